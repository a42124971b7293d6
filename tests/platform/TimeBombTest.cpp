#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/ULog.h>
#include <gmock/gmock.h>

#include <climits>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using NSVista::NSCorvane::timeguard::TimeBomb;
using NSVista::Utils::ULog::RingULogger;
using NSVista::Utils::ULog::ULogger;

namespace {

constexpr unsigned long kMs = 1000000;

class TimeBombTest : public testing::Test {
protected:
    TimeBombTest() {
        ULogger::install(&mLog);
        TimeBomb::setExpiryHandler([this](const TimeBomb& bomb, std::chrono::nanoseconds age) {
            const std::lock_guard lock(mLock);
            mAges[bomb.message()].push_back(age);
        });
    }
    ~TimeBombTest() override {
        // A report under way uses the handler and the sink to its end: outlive it.
        TimeBomb::setExpiryHandler(nullptr);
        std::this_thread::sleep_for(50ms);
        ULogger::install(nullptr);
    }

    std::vector<std::chrono::nanoseconds> ages(const std::string& message) {
        const std::lock_guard lock(mLock);
        return mAges[message];
    }
    bool reported(const std::string& message, size_t times) {
        for (int i = 0; i < 1000 && ages(message).size() < times; ++i)
            std::this_thread::sleep_for(5ms);
        return ages(message).size() >= times;
    }

    RingULogger mLog{4096};

private:
    std::mutex mLock;
    std::map<std::string, std::vector<std::chrono::nanoseconds>> mAges;
};

TEST_F(TimeBombTest, ReportsAtTheLimitAndEveryPeriodUntilReleased) {
    auto bomb = TimeBomb::make("Kernel", 20 * kMs, 10 * kMs, "%s timed out", "QBUF");
    ASSERT_TRUE(reported("QBUF timed out", 3));
    bomb.reset();
    std::this_thread::sleep_for(50ms);
    const auto seen = ages("QBUF timed out");

    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_GE(seen[i], 20ms + 10ms * i);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(ages("QBUF timed out").size(), seen.size());

    const auto lines = mLog.take();
    ASSERT_EQ(lines.size(), seen.size());
    EXPECT_EQ(lines[0].level, NSVista::Utils::ULog::kError);
    EXPECT_THAT(lines[0].text, testing::MatchesRegex(".* Kernel: QBUF timed out .[0-9]+ ms."));
}

TEST_F(TimeBombTest, TellsHeldFromReleasedGuardsOfManyThreads) {
    const auto never = TimeBomb::make("Kernel", ULONG_MAX, ULONG_MAX, "never");
    const std::string cut(255, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            const auto held = TimeBomb::make("Kernel", kMs, 0, "%sxxx", cut.c_str());
            for (unsigned long i = 0; i < 500; ++i)
                TimeBomb::make("Kernel", 500 * kMs - i, kMs, "released");
            EXPECT_TRUE(reported(cut, 4));
        });
    }
    for (auto& thread : threads)
        thread.join();
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(ages(cut).size(), 4U);  // a period of 0 reports once
    EXPECT_TRUE(ages("released").empty());
    EXPECT_TRUE(ages("never").empty());
}

}  // namespace
