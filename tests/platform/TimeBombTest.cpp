// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/ULog.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "support/Process.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using namespace Utils::ULog;
using timeguard::TimeBomb;

constexpr unsigned long kMs = 1000000;

class TimeBombTest : public testing::Test {
protected:
    TimeBombTest() {
        ULogger::install(&mLog);
        TimeBomb::setExpiryHandler([this](const TimeBomb& bomb, std::chrono::nanoseconds age) {
            TimeBomb::make("Handler", ULONG_MAX, 0, "");  // which may guard its own calls
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
    ASSERT_TRUE(reported("QBUF timed out", 6));
    bomb.reset();
    std::this_thread::sleep_for(50ms);
    const auto seen = ages("QBUF timed out");

    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_GE(seen[i], 20ms + 10ms * i);
    const auto onePeriod = [](auto before, auto after) { return after - before < 15ms; };
    EXPECT_NE(std::adjacent_find(seen.begin(), seen.end(), onePeriod), seen.end());
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(ages("QBUF timed out").size(), seen.size());

    const auto lines = mLog.take();
    ASSERT_EQ(lines.size(), seen.size());
    EXPECT_EQ(lines[0].level, kError);
    EXPECT_THAT(lines[0].text, testing::MatchesRegex(".* Kernel: QBUF timed out .[0-9]+ ms."));
}

TEST_F(TimeBombTest, LooksUntilReleasedAndTellsWhatIsOverdue) {
    std::atomic<int> looks{0};
    auto guard = TimeBomb::watch("Scene", 20 * kMs, [&](const TimeBomb::Tell& tell) {
        if (++looks % 2 == 0)
            tell(7s, "100% stuck");
        return 5ms;
    });
    EXPECT_TRUE(reported("100% stuck", 3));
    guard.reset();
    std::this_thread::sleep_for(20ms);  // a look under way ends
    const int seen = looks;
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(looks, seen);
    EXPECT_EQ(ages("100% stuck"), std::vector<std::chrono::nanoseconds>(seen / 2, 7s));
    EXPECT_TRUE(mLog.take().front().text.ends_with("Scene: 100% stuck (7000 ms)"));
}

TEST_F(TimeBombTest, LooksAgainAfterThePauseThatALookAskedFor) {
    // Both are the one thread's, nearest first: how late it is makes no difference to the order.
    std::atomic<int> looks{0};
    const auto guard = TimeBomb::watch("Scene", 10 * kMs, [&](const TimeBomb::Tell& tell) {
        if (++looks == 2)
            tell(1s, ages("limit").empty() ? "before" : "after");
        return 200ms;
    });
    const auto limit = TimeBomb::make("Kernel", 390 * kMs, 0, "limit");
    EXPECT_TRUE(reported("before", 1));
    EXPECT_TRUE(ages("after").empty());
}

/** The signals that a thread of the process has blocked, as the kernel prints them. */
std::string blockedSignals(const std::string& thread) {
    return runShell("cd /proc/$PPID/task && for t in *; do [ \"$(cat $t/comm)\" = " + thread +
                    " ] && sed -n 's/^SigBlk:.//p' $t/status; done")
        .output;
}

TEST_F(TimeBombTest, LeavesSignalsToTheHostsThreads) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";  // the thread is not started there yet
    const auto first = [] {
        sigset_t before;
        sigset_t after;
        pthread_sigmask(SIG_SETMASK, nullptr, &before);
        const auto bomb = TimeBomb::make("Kernel", ULONG_MAX, 0, "100%%");
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        for (int i = 0; i < 100 && blockedSignals("TimeGuard").empty(); ++i)
            std::this_thread::sleep_for(10ms);
        fprintf(stderr, "guard %s", blockedSignals("TimeGuard").c_str());
        fprintf(stderr, "message %s\n", bomb->message());
        for (int signal = 1; signal < NSIG; ++signal) {
            if (sigismember(&before, signal) != sigismember(&after, signal))
                exit(signal);
        }
        exit(0);
    };
    // All but those that the C library needs.
    EXPECT_EXIT(first(), testing::ExitedWithCode(0), "guard fffffffe7ff[bf]feff\nmessage 100%\n");
}

TEST_F(TimeBombTest, TellsThatNobodyGuards) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto unguarded = [] {
        pthread_attr_t huge;
        pthread_getattr_default_np(&huge);
        pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3);
        pthread_setattr_default_np(&huge);
        ULogger::install(nullptr);
        TimeBomb::make("Kernel", kMs, 0, "late");
        exit(0);
    };
    EXPECT_EXIT(unguarded(), testing::ExitedWithCode(0), "No thread to guard Kernel");
}

TEST_F(TimeBombTest, TellsHeldFromReleasedGuardsOfManyThreads) {
    const auto never = TimeBomb::make("Kernel", ULONG_MAX, ULONG_MAX, "never");
    std::this_thread::sleep_for(20ms);  // the guard thread waits for it
    const std::string cut(255, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            const auto held = TimeBomb::make("Kernel", kMs, 0, "%sxxx", cut.c_str());
            for (unsigned long i = 0; i < 500; ++i)
                TimeBomb::make("Kernel", 200 * kMs - i, kMs, "released");
            EXPECT_TRUE(reported(cut, 4));
        });
    }
    for (auto& thread : threads)
        thread.join();
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(ages(cut).size(), 4U);  // a period of 0 reports once
    EXPECT_TRUE(ages("released").empty());
    EXPECT_TRUE(ages("never").empty());
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
