// SPDX-License-Identifier: Apache-2.0
#include <corvane/IDeviceEnumerator.h>
#include <corvane/V4L2SubDevice.h>

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string_view>
#include <thread>

#include "VirtualEngineTest.h"

namespace NSVista::NSCorvane {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ProviderTest : public VirtualEngineTest {
protected:
    ProviderTest() { registerDefaultMediaConfigs(&mConfigs); }

    /** Opens, subscriptions, unsubscriptions and closes of the sub-device so far. */
    std::vector<uint64_t> history() {
        return {calls(sim::Operation::OPEN), ioctls(VIDIOC_SUBSCRIBE_EVENT),
                ioctls(VIDIOC_UNSUBSCRIBE_EVENT), calls(sim::Operation::CLOSE)};
    }
    test::Lines dump() { return test::dumpOf(mProvider); }

    DefaultMediaConfigs mConfigs{VENGINE_MODEL, VENGINE_SUBDEV_ENTITY};
    DefaultSubDeviceProvider mProvider;
};

}  // namespace

TEST_F(ProviderTest, OpensForTheFirstUserAndClosesAfterTheLast) {
    EXPECT_EQ(IDefaultSubDeviceProvider::instance(), IDefaultSubDeviceProvider::instance());
    EXPECT_THAT(dump(), ElementsAre("<<DefaultSubDeviceProvider>> Users[0]={ }"));
    auto first = mProvider.acquire("AAAAAAAA");
    ASSERT_TRUE(first);
    EXPECT_THAT(history(), ElementsAre(1, 1, 0, 0));
    auto second = mProvider.acquire("BBBB");
    EXPECT_EQ(first, second);
    EXPECT_THAT(history(), ElementsAre(1, 1, 0, 0));

    const auto kept = first;
    mProvider.release("AAAAAAAA", first);
    mProvider.release("unknown", first);
    EXPECT_FALSE(first);
    EXPECT_THAT(history(), ElementsAre(1, 1, 0, 0));
    EXPECT_THAT(dump(),
                ElementsAre("<<DefaultSubDeviceProvider>> Users[1]={ BBBB }", second->toString()));

    mProvider.release("BBBB", second);
    mProvider.release("BBBB", second);
    EXPECT_THAT(history(), ElementsAre(1, 1, 1, 1));
    EXPECT_EQ(kept->getDeviceFd(), -1) << "alive, but closed";
    EXPECT_TRUE(mProvider.acquire("BBBB")) << "a new life begins";
    mProvider.release("BBBB", second);
    EXPECT_THAT(mReports.take(), IsEmpty());
}

TEST_F(ProviderTest, KeepsAFailedBringUpUntilTheLastUserLeaves) {
    using Counts = std::vector<uint64_t>;
    const struct {
        sim::Call call;
        Counts failed, released;  ///< history
        std::string report;
    } cases[] = {
        {{sim::Operation::OPEN, 0, VENGINE_SUBDEV_ENTITY},
         {1, 0, 0, 0},
         {1, 0, 0, 0},
         "VIDIOC_UNSUBSCRIBE_EVENT err=-9(Bad file descriptor)"},
        {sim::Call::ioctl(VIDIOC_SUBSCRIBE_EVENT),
         {2, 1, 0, 0},
         {2, 1, 1, 1},
         "VIDIOC_SUBSCRIBE_EVENT err=-13(Permission denied)"},
    };
    for (const auto& bringUp : cases) {
        mEngine.faults().fail(bringUp.call, EACCES);
        auto first = mProvider.acquire("AAAA");
        EXPECT_FALSE(first);
        EXPECT_THAT(dump().at(0), "<<DefaultSubDeviceProvider>> Users[1]={ AAAA }");
        auto second = mProvider.acquire("BBBB");
        ASSERT_TRUE(second);
        EXPECT_EQ(history(), bringUp.failed) << "nothing is tried again";
        EXPECT_EQ(second->getDeviceFd() >= 0, bringUp.failed[1] == 1);
        mProvider.release("BBBB", second);
        mProvider.release("AAAA", first);
        EXPECT_EQ(history(), bringUp.released);
        EXPECT_EQ(mReports.take(), test::ReportCapture::of(bringUp.report));
        EXPECT_EQ(dump().size(), 1u);
    }
    auto next = mProvider.acquire("AAAA");
    EXPECT_TRUE(next) << "the next first user starts anew";
    mProvider.release("AAAA", next);
    EXPECT_EQ(mEngine.device().counts().openFiles, 0u);
}

TEST_F(ProviderTest, BringsUpAndTearsDownInTurnsUnderManyThreads) {
    constexpr int kThreads = 8, kRounds = 200;
    std::atomic<int> lost = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t, user = EIGHTCC("user" + std::to_string(t))] {
            for (int round = 0; round < kRounds; round++) {
                auto subDevice = mProvider.acquire(user);
                if (!subDevice || subDevice->getControl(VENGINE_CTRL_USER, nullptr) != 0)
                    lost++;
                if (t == 0 && dump().empty())
                    lost++;
                mProvider.release(user, subDevice);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(lost, 0);
    const auto counts = history();
    EXPECT_GE(counts[0], 1u);
    EXPECT_THAT(counts, testing::Each(counts[0]));
    EXPECT_EQ(mEngine.device().counts().openFiles, 0u);
    EXPECT_EQ(dump().size(), 1u);
    EXPECT_THAT(mReports.take(), IsEmpty());
}

TEST_F(ProviderTest, LetsASecondUserWaitForTheBringUp) {
    const int hang = mEngine.faults().hang({sim::Operation::OPEN, 0, VENGINE_SUBDEV_ENTITY});
    auto opener = std::async(std::launch::async, [&] { return mProvider.acquire("AAAA"); });
    EXPECT_TRUE(mEngine.faults().waitUntilHung(hang, std::chrono::seconds(10)));
    auto follower = std::async(std::launch::async, [&] { return mProvider.acquire("BBBB"); });
    EXPECT_EQ(follower.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    mEngine.faults().remove(hang);
    auto first = opener.get();
    auto second = follower.get();
    EXPECT_TRUE(first != nullptr && first == second);
    mProvider.release("AAAA", first);
    mProvider.release("BBBB", second);
}

#if defined(CORVANE_CHECK_RELOCK)
TEST_F(ProviderTest, EndsAHandlerThatDumpsTheProviderThatCallsIt) {
    const auto dumpInside = [&] {
        Utils::setExceptionHandler([&](const char*, const char*) { dump(); });
        mEngine.faults().fail(sim::Call::ioctl(VIDIOC_SUBSCRIBE_EVENT), ENOMEM);
        mProvider.acquire("AAAA");
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // guards have a thread by now
    // To standard error, where the death test looks.
    EXPECT_EXIT((Utils::ULog::ULogger::install(nullptr), dumpInside()),
                testing::KilledBySignal(SIGABRT), "locks again what it holds");
}
#endif

TEST(EightCcTest, ComparesAllEightBytes) {
    EXPECT_EQ(EIGHTCC("ABCDEFGHI"), EIGHTCC("ABCDEFGH"));
    EXPECT_EQ(EIGHTCC("ABCDEFGHI").toString(), "ABCDEFGH");
    EXPECT_FALSE(EIGHTCC("ABCD") == EIGHTCC("ABCDE"));
    EXPECT_EQ(EIGHTCC("AB").value, 0x4241u);
    EXPECT_EQ(std::hash<EIGHTCC>()(EIGHTCC("AB")), 0x4241u);
    EXPECT_EQ(EIGHTCC(nullptr).toString(), "");
    // Eight characters with nothing readable behind them.
    const long page = sysconf(_SC_PAGESIZE);
    auto* const pages = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    std::string_view("ABCDEFGH").copy(pages + page - 8, 8);
    EXPECT_EQ(EIGHTCC(static_cast<const char*>(pages + page - 8)), EIGHTCC("ABCDEFGH"));
    munmap(pages, 2 * page);
}

}  // namespace NSVista::NSCorvane
