// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Condition.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/ThreadLoop.h>
#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/Trace.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>

using namespace NSVista::NSCorvane;
using NSVista::Thread;

namespace {

class Loop : public IThreadLoop {
public:
    void requestExit() override {
        mExit = true;
        ++mAsked;
    }
    int readyToRun(const ReadyToRun& ready) override { return readyToRun(ready.threadName); }
    int readyToRun(const std::string& threadName) override {
        char actual[16] = {};
        pthread_getname_np(pthread_self(), actual, sizeof(actual));
        mName = threadName + "/" + actual;
        return mReadyResult;
    }
    bool threadLoop() override {
        ++mTurns;
        std::this_thread::yield();
        return mTurn ? mTurn() : !mExit;
    }
    void dumpState(NSVista::IPrinter*) const override {}
    const char* getThreadName() const override { return "loop"; }

    std::atomic<bool> mExit{false};
    std::atomic<int> mAsked{0};
    std::atomic<int> mTurns{0};
    std::string mName;
    int mReadyResult = 0;
    std::function<bool()> mTurn;
};

TEST(ThreadLoopHandler, RunsOnceAndEndsOnRequest) {
    const auto loop = std::make_shared<Loop>();
    const auto handler = ThreadLoopHandler::make();
    handler->requestExitAndWait();  // nothing runs yet
    EXPECT_EQ(handler->run(nullptr), -EINVAL);
    handler->setThreadName("a name of more than 15");
    EXPECT_EQ(handler->run(loop), 0);
    EXPECT_EQ(loop->mName, "a name of more than 15/a name of more ");  // ready has finished
    EXPECT_EQ(handler->run(loop), -EBUSY);
    while (loop->mTurns < 3)
        std::this_thread::yield();
    handler->requestExitAndWait();
    handler->requestExitAndWait();
    EXPECT_EQ(loop->mAsked, 1);
    EXPECT_EQ(loop.use_count(), 1);
}

TEST(ThreadLoopHandler, EndsWhenNotReadyOrFalseOrAsked) {
    struct {
        int readyResult;
        bool goesOn;
        int minTurns, maxTurns;
    } const cases[] = {{-1, true, 0, 0}, {0, false, 1, 1}, {0, true, 1, 1 << 30}};
    for (const auto& c : cases) {
        const auto loop = std::make_shared<Loop>();
        loop->mReadyResult = c.readyResult;
        loop->mTurn = [&] { return c.goesOn; };
        {
            ThreadLoopHandler handler;
            EXPECT_EQ(handler.run(loop), 0);
            while (loop->mTurns < c.minTurns)
                std::this_thread::yield();
            if (c.maxTurns == c.minTurns)
                usleep(5000);  // time for a turn too many
        }
        EXPECT_LE(loop->mTurns, c.maxTurns);
        EXPECT_EQ(loop->mAsked, 1);  // also when it ended by itself
    }
}

TEST(ThreadLoopHandler, TellsThatThereIsNoThreadAndMayRunLater) {
    pthread_attr_t normal;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&normal), 0);
    ASSERT_EQ(pthread_getattr_default_np(&huge), 0);
    // A guard's thread is started while there are some: it is not what is tried here.
    const auto guard = timeguard::TimeBomb::make("test", ULONG_MAX, 0, "");
    pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3);
    pthread_setattr_default_np(&huge);
    const auto loop = std::make_shared<Loop>();
    ThreadLoopHandler handler;
    EXPECT_EQ(handler.run(loop), -EAGAIN);
    handler.requestExitAndWait();
    const std::string traced = testing::TempDir() + "corvane-untraced-" + std::to_string(getpid());
    EXPECT_EQ(trace::start(traced.c_str()), -EAGAIN);
    pthread_setattr_default_np(&normal);
    EXPECT_EQ(trace::start(traced.c_str()), 0) << "nobody has the file";
    trace::stop();
    unlink(traced.c_str());
    EXPECT_EQ(loop->mAsked, 0);
    EXPECT_EQ(loop.use_count(), 1);
    EXPECT_EQ(handler.run(loop), 0);
}

TEST(ThreadLoopHandler, MayEndAndDieOnItsOwnThread) {
    auto loop = std::make_shared<Loop>();
    const std::weak_ptr<Loop> kept = loop;
    std::atomic<bool> released{false};
    auto handler = ThreadLoopHandler::make();
    // Kept by the loop alone, the handler dies with it on the thread it runs.
    loop->mTurn = [handler, &released] {
        while (!released)
            std::this_thread::yield();
        handler->requestExitAndWait();
        return true;
    };
    EXPECT_EQ(handler->run(loop), 0);
    handler.reset();
    loop.reset();
    EXPECT_FALSE(kept.expired());
    released = true;
    while (!kept.expired())
        std::this_thread::yield();
}

TEST(Condition, HasTheLockAgainWhenItReturns) {
    Mutex mutex;
    Condition condition;
    std::atomic<int> turns{0};
    std::thread waiter([&] {
        for (MutexLock lock(mutex); turns < 2; ++turns)
            condition.wait(lock);
    });
    while (turns < 2)
        condition.notifyOne();
    waiter.join();
}

TEST(Thread, SetsPriorityAndAffinity) {
    std::thread([] {
        const auto set = [](int priority, int scheduler) {
            return Thread::setThreadPriority(Thread::getThisThread(), Thread::Priority{priority},
                                             Thread::Scheduler{scheduler});
        };
        EXPECT_EQ(set(3, 0), 0);
        EXPECT_EQ(getpriority(PRIO_PROCESS, 0), 6);
        EXPECT_EQ(set(11, 0), -EINVAL);
        EXPECT_EQ(set(6, 9), -EINVAL);
        // Without the privilege a thread keeps what it has.
        for (const int policy : {SCHED_FIFO, SCHED_RR}) {
            const bool granted = set(3, policy) == 0;
            struct sched_param param {};
            sched_getparam(0, &param);
            EXPECT_EQ(sched_getscheduler(0), granted ? policy : SCHED_OTHER);
            EXPECT_EQ(param.sched_priority, granted ? 3 : 0);
            EXPECT_EQ(set(100, policy), -EINVAL);
        }
        cpu_set_t before, cpus;
        sched_getaffinity(0, sizeof(before), &before);
        EXPECT_EQ(kvxcam_perfctrl_set_affinity(), 0);
        sched_getaffinity(0, sizeof(cpus), &cpus);
        EXPECT_TRUE(CPU_EQUAL(&cpus, &before)) << "nothing is configured";
        const char* const key = "persist.vendor.kvx.camera.affinity";
        NSVista::Utils::Properties::property_set(key, "1");
        EXPECT_EQ(kvxcam_perfctrl_set_affinity(), 0);
        NSVista::Utils::Properties::property_set(key, "-1");
        EXPECT_EQ(kvxcam_perfctrl_set_affinity(), -EINVAL);
        NSVista::Utils::Properties::property_set(key, nullptr);
        sched_getaffinity(0, sizeof(cpus), &cpus);
        EXPECT_TRUE(CPU_COUNT(&cpus) == 1 && CPU_ISSET(0, &cpus));
    }).join();
}

}  // namespace
