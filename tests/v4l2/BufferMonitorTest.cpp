// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2BufferMonitor.h>
#include <corvane/platform/Properties.h>
#include <pthread.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <numeric>
#include <sstream>
#include <thread>

#include "support/Capture.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using Utils::Properties::property_set;

constexpr char kTag[] = "corvane-BufferMonitor";
constexpr char kAffinity[] = "persist.vendor.kvx.camera.affinity";
#define PROPERTY(name) "persist.vendor.camera.corvane.V4L2BufferMonitor." name

class Observer : public IV4L2BufferObserver {
public:
    explicit Observer(std::function<void()> notified) : mNotified(std::move(notified)) {}
    void onNotify(int argument) override {
        EXPECT_EQ(argument, 0);
        mNotified();
    }

private:
    std::function<void()> mNotified;
};

class BufferMonitorTest : public testing::Test {
protected:
    void make() { mMonitor = std::make_shared<V4L2BufferMonitor>("x"); }
    ~BufferMonitorTest() override {
        for (const char* key : {PROPERTY("configmode"), PROPERTY("tracebuf"), PROPERTY("logv"),
                                PROPERTY("threadpolicy"), PROPERTY("threadpriority"), kAffinity})
            property_set(key, nullptr);
    }
    std::string name() const {
        std::ostringstream text;
        text << "x-" << static_cast<const void*>(mMonitor.get());
        return text.str();
    }
    /** The counts as toString_runtime() has them. */
    static std::string counts(uint32_t dequeued, uint32_t done, uint32_t queued,
                              size_t observers = 0, bool active = true) {
        std::ostringstream text;
        text << "{ #DQBUF=" << dequeued << " #ReqDone=" << done << " #QBUF=" << queued
             << " #mRequestDoneObservers=" << observers << " .mActive=" << active << " }";
        return text.str();
    }
    /** Attaches observers that note their port and dequeue, to ports from 0 on. */
    void attach(int ports) {
        for (int port = 0; port < ports; ++port) {
            mObservers.push_back(std::make_shared<Observer>([this, port] {
                mNotified.push_back(port);
                mMonitor->detachRequestBuffer(200, 0);
            }));
            mMonitor->attachObserver(mObservers.back(), port);
        }
    }
    void notify(std::vector<int> ports) {
        mMonitor->notifyRequestDone(200, ports.data(), ports.size());
    }
    void run() {
        mThread->setThreadName("named");
        EXPECT_EQ(mThread->run(mMonitor), 0);
    }
    /** Waits until nothing is due, then ends the worker. */
    void drain() {
        while (mMonitor->needToDQBUF())
            std::this_thread::yield();
        mThread->requestExitAndWait();
    }
    std::string text() const { return mMonitor->toString_runtime(); }

    LogCapture mLog{kTag, Utils::ULog::kWarning};
    std::shared_ptr<V4L2BufferMonitor> mMonitor = std::make_shared<V4L2BufferMonitor>("x");
    std::vector<std::shared_ptr<Observer>> mObservers;
    std::vector<int> mNotified;
    std::shared_ptr<ThreadLoopHandler> mThread = ThreadLoopHandler::make();
};

TEST_F(BufferMonitorTest, IsConfiguredByPropertiesAndPrintsItself) {
    EXPECT_EQ(dumpOf(*mMonitor),
              Lines({"V4L2BufferMonitor:" + name() + " mode:0 tracebuf:0 logv:0 " + counts(0, 0, 0),
                     "    mPortObserverMap[0]={ }", "    "}));
    property_set(PROPERTY("configmode"), "-3");
    property_set(PROPERTY("tracebuf"), "1");
    property_set(PROPERTY("logv"), "true");
    make();
    mLog.setLevel(Utils::ULog::kInfo);
    attach(1);
    mMonitor->attachRequestBuffer(7, 3);
    EXPECT_EQ(
        dumpOf(*mMonitor),
        Lines({"V4L2BufferMonitor:" + name() + " mode:-3 tracebuf:1 logv:1 " + counts(0, 0, 1),
               "    mPortObserverMap[1]={ (0) }", "    mTraceBufferMap={ 7-3 }"}));
    mMonitor->detachRequestBuffer(7, 3);
    EXPECT_EQ(mMonitor->toString_debugtrace(), "mTraceBufferMap={ }");
    mMonitor->detachObserver(nullptr, 0);
    mMonitor->attachObserver(mObservers[0], 26);
    EXPECT_EQ(mMonitor->toString_config(), "mPortObserverMap[1]={ (0x1a) }");
    EXPECT_EQ(mLog.take().size(), 5U) << "a line for each call";
    property_set(PROPERTY("tracebuf"), "0");
    make();
    EXPECT_THAT(dumpOf(*mMonitor).front(), HasSubstr("tracebuf:0 logv:1"));
    EXPECT_THAT(dumpOf(*IV4L2BufferMonitor::make("scene")).front(),
                testing::StartsWith("V4L2BufferMonitor:scene-0x"));
}

TEST_F(BufferMonitorTest, TracesBuffersByDefaultOnDetailedUserDebugBuilds) {
    const struct {
        const char *level, *build, *own;
        bool traced;
    } cases[] = {
        {"4", "userdebug", "-1", true}, {"4", "userdebug", "3", true},
        {"4", "userdebug", "2", false}, {"3", "userdebug", "-1", false},
        {"4", "eng", "-1", false},      {"6", nullptr, "-1", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.level << " " << (c.build != nullptr ? c.build : "") << " " << c.own);
        // Read at load and once a process: the process of its own inherits the environment.
        setenv("persist.vendor.kvx.camera.ulog.detailslevel", c.level, 1);
        c.build != nullptr ? setenv("ro.vendor.build.type", c.build, 1)
                           : unsetenv("ro.vendor.build.type");
        setenv("persist.vendor.kvx.camera.log_level", c.own, 1);
        inOwnProcess([&] {
            EXPECT_THAT(dumpOf(*mMonitor).front(),
                        HasSubstr(c.traced ? "tracebuf:1" : "tracebuf:0"));
        });
    }
    for (const char* key : {"persist.vendor.kvx.camera.ulog.detailslevel", "ro.vendor.build.type",
                            "persist.vendor.kvx.camera.log_level"})
        unsetenv(key);
}

TEST_F(BufferMonitorTest, CountsBuffers) {
    for (int i = 0; i < 3; ++i)
        mMonitor->attachRequestBuffer(5, 1);  // not checked without tracing
    mMonitor->detachRequestBuffer(9, 9);
    EXPECT_EQ(mMonitor->determineInqueBufferCount(), 2U);
    EXPECT_EQ(mMonitor->determineNeedToDQBUFCount(), ~0U);
    EXPECT_TRUE(mMonitor->needToDQBUF());
    EXPECT_EQ(text(), counts(1, 0, 3));
}

TEST_F(BufferMonitorTest, ServesOnePortOnTheCallersThread) {
    attach(2);
    std::thread::id thread;
    const auto observer =
        std::make_shared<Observer>([&thread] { thread = std::this_thread::get_id(); });
    mMonitor->attachObserver(observer, 32);
    notify({1});
    notify({32});
    EXPECT_EQ(mNotified, std::vector<int>({1}));
    EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_EQ(text(), counts(1, 0, 0));
    EXPECT_TRUE(mMonitor->needToDQBUF());
}

TEST_F(BufferMonitorTest, ServesManyPortsOnTheWorkerInTheirOrder) {
    attach(12);
    std::vector<int> all(12);
    std::iota(all.rbegin(), all.rend(), 0);
    notify(all);  // more than fit in place
    EXPECT_EQ(text(), counts(0, 12, 0, 12));
    run();
    notify({2, 0});
    drain();
    all.insert(all.end(), {2, 0});
    EXPECT_EQ(mNotified, all);
    EXPECT_EQ(text(), counts(14, 14, 0, 0, false));
    EXPECT_EQ(mLog.take(), Lines());
}

TEST_F(BufferMonitorTest, ServesOnePortOnTheWorkerInAnotherMode) {
    property_set(PROPERTY("configmode"), "1");
    property_set(PROPERTY("threadpriority"), "2");
    property_set(kAffinity, "1");
    make();
    char threadName[16] = "";
    int nice = -99;
    cpu_set_t cpus;
    const auto observer = std::make_shared<Observer>([&] {
        pthread_getname_np(pthread_self(), threadName, sizeof(threadName));
        nice = getpriority(PRIO_PROCESS, 0);
        sched_getaffinity(0, sizeof(cpus), &cpus);
        mMonitor->detachRequestBuffer(200, 0);
    });
    mMonitor->attachObserver(observer, 3);
    notify({3});
    run();
    drain();
    EXPECT_EQ(text(), counts(1, 1, 0, 0, false));
    EXPECT_STREQ(threadName, "named");
    EXPECT_EQ(nice, 8);
    EXPECT_EQ(CPU_COUNT(&cpus), 1);
    std::thread([&] {
        EXPECT_EQ(mMonitor->readyToRun(std::string()), 0);
        pthread_getname_np(pthread_self(), threadName, sizeof(threadName));
    }).join();
    EXPECT_STREQ(threadName, "P2Drv-BufferMon");
    EXPECT_STREQ(mMonitor->getThreadName(), "P2Drv-BufferMon");
}

TEST_F(BufferMonitorTest, PassesOverAnObserverThatIsGone) {
    attach(2);
    mObservers[0].reset();
    notify({0, 1});
    mMonitor->notifyComplete();
    EXPECT_EQ(mNotified, std::vector<int>({1}));
    EXPECT_EQ(mLog.take(),
              Lines({"W [notifyComplete] nullptr from weak_ptr::lock() for observer",
                     "E [notifyComplete] After DQBUF, we expect 1 >= 0 + 2, " + counts(1, 2, 0),
                     "W [notifyComplete] No Observer but needToDQBUF() - " + counts(1, 2, 0)}));
}

TEST_F(BufferMonitorTest, SleepsWhileNothingIsQueuedForItAndLeavesNothing) {
    attach(3);
    notify({0});  // dequeued before the worker has begun
    run();
    std::this_thread::sleep_for(30ms);
    notify({1});
    EXPECT_EQ(mLog.take(), Lines()) << "no pass";
    EXPECT_EQ(text(), counts(2, 0, 0));

    notify({0, 1});  // now the counts are equal, and yet two are due
    while (mMonitor->determineInqueBufferCount() != ~3U)
        std::this_thread::yield();
    const auto empty = "W [notifyComplete] No Observer but needToDQBUF() - " + counts(4, 2, 0);
    EXPECT_EQ(mLog.takeUntil(empty).size(), 1U);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(mLog.take(), Lines()) << "one pass for a notification";
    mThread->requestExitAndWait();
    EXPECT_EQ(mNotified, std::vector<int>({0, 1, 0, 1}));
}

/** Requests complete on two threads while the worker passes; none may be lost or warned of. */
TEST_F(BufferMonitorTest, TakesObserversBeforeTheirCountWithoutAnEmptyPass) {
    constexpr uint32_t kRounds = 5000;
    attach(4);
    run();
    const auto complete = [this](int first) {
        for (uint32_t i = 0; i < kRounds; ++i)
            notify({first, first + 1});
    };
    std::thread other(complete, 2);
    complete(0);
    other.join();
    drain();
    EXPECT_EQ(mNotified.size(), 4 * kRounds);
    EXPECT_EQ(text(), counts(4 * kRounds, 4 * kRounds, 0, 0, false));
    EXPECT_EQ(mLog.take(), Lines());
}

TEST_F(BufferMonitorTest, ExitsAfterThePassUnderWay) {
    std::promise<void> entered;
    std::promise<void> leave;
    const auto blocking = std::make_shared<Observer>([&] {
        entered.set_value();
        leave.get_future().wait();
        mMonitor->detachRequestBuffer(200, 0);
    });
    attach(3);
    mMonitor->attachObserver(blocking, 9);
    run();
    notify({9, 0});
    entered.get_future().wait();
    notify({1, 2});  // not taken yet: left undone
    mMonitor->requestExit();
    leave.set_value();
    mThread->requestExitAndWait();
    EXPECT_EQ(mNotified, std::vector<int>({0}));
    EXPECT_EQ(text(), counts(2, 4, 0, 2, false));
    EXPECT_FALSE(mMonitor->threadLoop()) << "a monitor runs once";
    EXPECT_EQ(mNotified.size(), 1U);
}

TEST_F(BufferMonitorTest, EndsOnConsistencyErrors) {
    attach(1);
    mMonitor->attachObserver(std::make_shared<Observer>([] {}), 3);
    mMonitor->attachObserver(mObservers[0], 5);
    mMonitor->detachObserver(nullptr, 5);
    property_set(PROPERTY("tracebuf"), "1");
    V4L2BufferMonitor traced("t");
    traced.attachRequestBuffer(7, 2);
    const std::string ports = "mPortObserverMap[2]={ (0x3) (0) }";
    const std::string buffers = "    mTraceBufferMap={ 7-2 }";
    const auto notifying = [this](std::vector<int> indexes) {
        return [=, this] { notify(indexes); };
    };
    const auto fatal = [](std::function<void()> action, const char* where, Lines before) {
        return FatalCase{std::move(action), kTag, where, "FATAL", std::move(before)};
    };
    expectFatal({
        fatal([&] { mMonitor->attachObserver(nullptr, 0); }, "attachObserver",
              {"(0, (nil)) has existed", ports}),
        fatal([&] { mMonitor->detachObserver(nullptr, 0x1a); }, "detachObserver",
              {"(0x1a, (nil)) hasn't existed", ports}),
        fatal([&] { traced.attachRequestBuffer(7, 2); }, "attachRequestBuffer",
              {"requestFd:7 bufferIndex:2 existed", "[attachRequestBuffer] V4L2", buffers}),
        fatal([&] { traced.detachRequestBuffer(8, 2); }, "detachRequestBuffer",
              {"requestFd:8 bufferIndex:2 not found", "[detachRequestBuffer] V4L2", buffers}),
        fatal(notifying({0, 31}), "notifyRequestDone",
              {"[operator()] port index:0x1f doesn't existed", ports}),
        fatal(notifying({0, 32}), "notifyRequestDone", {"port index:0x20 doesn't existed"}),
        {notifying({}), kTag, "notifyRequestDone",
         "requestFd:200 without buffer passed - " + counts(0, 0, 0) + " "},
        {notifying({5}), kTag, "notifyRequestDone", "port index:0x5 doesn't existed"},
        {notifying({3}), kTag, "notifyRequestDone", "Bad observer"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
