// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/EpollEventMonitor.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

#include "support/Capture.h"
#include "support/DescriptorLimit.h"

// What watching costs: the program's own epoll calls stand before the library's.
namespace {
std::atomic<int> sWaits{0};
std::atomic<int> sControls{0};

template <class Function>
Function* next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) int epoll_wait(int epoll, epoll_event* events, int count,
                                                      int timeout) {
    static const auto real = next(&epoll_wait, "epoll_wait");
    ++sWaits;
    return real(epoll, events, count, timeout);
}
__attribute__((visibility("default"))) int epoll_ctl(int epoll, int operation, int fd,
                                                     epoll_event* event) noexcept {
    static const auto real = next(&epoll_ctl, "epoll_ctl");
    ++sControls;
    return real(epoll, operation, fd, event);
}
}

namespace NSVista::NSCorvane::client {
namespace {

using namespace std::chrono_literals;

constexpr auto kShort = 30ms;  ///< long enough for what must not happen
constexpr uint32_t kOneShot = EPOLLONESHOT;

/** Observes a descriptor of its own: an eventfd, unless given another. */
class Observer : public IEventObserver {
public:
    explicit Observer(std::function<void()> action = {}, int fd = eventfd(0, EFD_CLOEXEC))
        : mFd(fd), mAction(std::move(action)) {}
    ~Observer() override { close(mFd); }

    int getEventFD() const override { return mFd; }
    void onEvent(const OnEvent& event) override {
        const auto action = mAction;  // The observer may be destroyed by it.
        mEvents = event.events;
        mCalls.fetch_add(1);
        mCalls.notify_all();
        if (action)
            action();
    }
    void raise() const { eventfd_write(mFd, 1); }
    void waitForCalls(int count) const {
        for (int seen = mCalls; seen < count; seen = mCalls)
            mCalls.wait(seen);
    }
    int calls() const { return mCalls; }
    uint32_t events() const { return mEvents; }
    void setAction(std::function<void()> action) { mAction = std::move(action); }

private:
    const int mFd;
    std::function<void()> mAction;
    std::atomic<int> mCalls{0};
    std::atomic<uint32_t> mEvents{0};
};

/** One end (0: to read, 1: to write) of a pipe whose other end is closed. */
int endOfPipe(int kept) {
    int ends[2] = {};
    EXPECT_EQ(pipe(ends), 0);
    close(ends[1 - kept]);
    return ends[kept];
}

class EpollEventMonitorTest : public testing::Test {
protected:
    void watchOnce(Observer& observer) {
        EXPECT_EQ(mMonitor->attachObserver(&observer, EPOLLIN | kOneShot), 0);
        EXPECT_EQ(mMonitor->rearmObserver(&observer, EPOLLIN | kOneShot), 0);
    }

    std::shared_ptr<EpollEventMonitor> mMonitor = EpollEventMonitor::make("Test-Events");
};

TEST_F(EpollEventMonitorTest, WatchesFromTheAttachOrFromTheFirstRearm) {
    const struct {
        const char* what;
        int fd;
        uint32_t events;
        bool atOnce;
        uint32_t reported;
    } cases[] = {{"level", eventfd(1, EFD_CLOEXEC), EPOLLIN, true, EPOLLIN},
                 {"one shot", eventfd(1, EFD_CLOEXEC), EPOLLIN | kOneShot, false, EPOLLIN},
                 {"in error", endOfPipe(1), EPOLLPRI, false, EPOLLERR},
                 {"one shot in error", endOfPipe(1), EPOLLPRI | kOneShot, false, EPOLLERR},
                 {"hung up", endOfPipe(0), EPOLLIN, true, EPOLLHUP}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Observer observer({}, c.fd);
        EXPECT_EQ(mMonitor->attachObserver(&observer, c.events), 0);
        if (!c.atOnce) {
            std::this_thread::sleep_for(kShort);
            EXPECT_EQ(observer.calls(), 0);
            EXPECT_EQ(mMonitor->rearmObserver(&observer, c.events), 0);
        }
        observer.waitForCalls(1);
        EXPECT_EQ(observer.events(), c.reported);
        if (c.events != EPOLLIN || c.reported != EPOLLIN) {
            std::this_thread::sleep_for(kShort);
            EXPECT_EQ(observer.calls(), 1) << "a report disarms, of what lasts as well";
            EXPECT_EQ(mMonitor->rearmObserver(&observer, c.events), 0);
            observer.waitForCalls(2);
        }
        EXPECT_EQ(mMonitor->detachObserver(&observer), 0);
    }
    Observer both;
    EXPECT_EQ(mMonitor->attachObserver(&both, EPOLLIN), 0);
    EXPECT_EQ(mMonitor->rearmObserver(&both, EPOLLOUT | kOneShot), 0);
    both.waitForCalls(1);
    EXPECT_EQ(both.events(), EPOLLOUT) << "what the re-arm asks for";
    EXPECT_EQ(mMonitor->detachObserver(&both), 0);
}

TEST_F(EpollEventMonitorTest, AReportCostsOneRearmAndOneWait) {
    Observer observer({}, eventfd(1, EFD_CLOEXEC));
    Observer other;
    EXPECT_EQ(mMonitor->attachObserver(&other, EPOLLIN), 0);
    watchOnce(observer);
    EXPECT_EQ(mMonitor->detachObserver(&other), 0);
    EXPECT_EQ(mMonitor->attachObserver(&other, EPOLLIN), 0);
    observer.waitForCalls(1);
    EXPECT_EQ(
        test::dumpOf(*mMonitor),
        test::Lines(
            {"<<EpollEventMonitor>> thread=Test-Events observers=2",
             "    fd=" + std::to_string(observer.getEventFD()) + " events=0x40000001 reports=1",
             "    fd=" + std::to_string(other.getEventFD()) + " events=0x1 reports=0"}))
        << "in the order of their attaching";
    EXPECT_EQ(mMonitor->detachObserver(&other), 0);
    const int waits = sWaits;
    const int controls = sControls;
    for (int calls = 2; calls <= 21; ++calls) {
        EXPECT_EQ(mMonitor->rearmObserver(&observer, EPOLLIN | kOneShot), 0);
        observer.waitForCalls(calls);
    }
    EXPECT_NEAR(sWaits - waits, 20, 1) << "the one after the last report may have begun or not";
    EXPECT_EQ(sControls - controls, 20);
    EXPECT_EQ(mMonitor->detachObserver(&observer), 0);
}

TEST_F(EpollEventMonitorTest, ASignalEndsNothing) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);
    std::atomic<pthread_t> thread{};
    Observer observer([&] { thread = pthread_self(); });
    watchOnce(observer);
    observer.raise();
    observer.waitForCalls(1);
    std::this_thread::sleep_for(kShort);  // It waits again.
    EXPECT_EQ(pthread_kill(thread, SIGUSR1), 0);
    std::this_thread::sleep_for(kShort);
    EXPECT_EQ(mMonitor->rearmObserver(&observer, EPOLLIN | kOneShot), 0);
    observer.waitForCalls(2);
    EXPECT_EQ(mMonitor->detachObserver(&observer), 0);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(EpollEventMonitorTest, LateDetachLeavesTheDescriptorsNewOwnerWatched) {
    Observer late({}, eventfd(0, EFD_CLOEXEC));
    EXPECT_EQ(mMonitor->attachObserver(&late, EPOLLIN), 0);
    // Takes the number away from its observer, as a client does that closes too early.
    const int fd = late.getEventFD();
    const int fresh = eventfd(0, EFD_CLOEXEC);
    dup2(fresh, fd);
    close(fresh);
    Observer successor({}, fd);
    EXPECT_EQ(mMonitor->attachObserver(&successor, EPOLLIN), 0);
    EXPECT_EQ(mMonitor->detachObserver(&late), 0);
    successor.raise();
    successor.waitForCalls(1);
    EXPECT_EQ(mMonitor->detachObserver(&successor), 0);
}

TEST_F(EpollEventMonitorTest, IsNotMadeWithoutDescriptors) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer needs descriptors to look at an object's type";
#endif
    for (const rlim_t more : {0, 1}) {
        const test::DescriptorLimit few(more);
        EXPECT_EQ(EpollEventMonitor::make("Test-Events"), nullptr) << more;
    }
}

TEST_F(EpollEventMonitorTest, HasNoDescriptorThatAnotherProgramInherits) {
    const int before = dup(STDERR_FILENO);
    const auto monitor = EpollEventMonitor::make("Test-Events");
    const int after = dup(STDERR_FILENO);
    EXPECT_GT(after, before + 1);
    for (int fd = before + 1; fd < after; ++fd)
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << fd;
    close(before);
    close(after);
}

TEST_F(EpollEventMonitorTest, RefusesWhatMakesNoSense) {
    Observer observer;
    Observer bad({}, -1);
    Observer file({}, memfd_create("file", MFD_CLOEXEC));
    EXPECT_EQ(mMonitor->attachObserver(&file, EPOLLIN), -EPERM) << "epoll watches none";
    EXPECT_EQ(mMonitor->detachObserver(&file), -ENOENT);
    EXPECT_EQ(mMonitor->attachObserver(&file, EPOLLIN | kOneShot), 0);
    EXPECT_EQ(mMonitor->rearmObserver(&file, EPOLLIN | kOneShot), -EPERM);
    EXPECT_EQ(mMonitor->detachObserver(&file), 0);
    EXPECT_EQ(mMonitor->attachObserver(nullptr, EPOLLIN), -EINVAL);
    EXPECT_EQ(mMonitor->attachObserver(&bad, EPOLLIN), -EBADF);
    EXPECT_EQ(mMonitor->attachObserver(&bad, EPOLLIN | kOneShot), -EBADF);
    EXPECT_EQ(mMonitor->rearmObserver(&observer, EPOLLIN), -ENOENT);
    EXPECT_EQ(mMonitor->detachObserver(&observer), -ENOENT);
    EXPECT_EQ(mMonitor->attachObserver(&observer, EPOLLIN), 0);
    EXPECT_EQ(mMonitor->attachObserver(&observer, EPOLLIN), -EEXIST);
    EXPECT_EQ(mMonitor->detachObserver(&observer), 0);
}

TEST_F(EpollEventMonitorTest, ObserverMayDetachAndDieInItsCallback) {
    auto observer = std::make_unique<Observer>();
    std::promise<int> result;
    observer->setAction([&] {
        const int detached = mMonitor->detachObserver(observer.get());
        observer.reset();
        result.set_value(detached);
    });
    observer->raise();
    EXPECT_EQ(mMonitor->attachObserver(observer.get(), EPOLLIN), 0);
    EXPECT_EQ(result.get_future().get(), 0);
    Observer next;
    next.raise();
    EXPECT_EQ(mMonitor->attachObserver(&next, EPOLLIN), 0);
    next.waitForCalls(1);
    mMonitor.reset();
}

TEST_F(EpollEventMonitorTest, DetachOnAnotherThreadWaitsForTheCallback) {
    std::promise<void> release;
    Observer observer([&, released = release.get_future().share()] { released.wait(); });
    observer.raise();
    EXPECT_EQ(mMonitor->attachObserver(&observer, EPOLLIN), 0);
    observer.waitForCalls(1);
    auto detached =
        std::async(std::launch::async, [&] { return mMonitor->detachObserver(&observer); });
    EXPECT_EQ(detached.wait_for(kShort), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(detached.get(), 0);
    const int calls = observer.calls();
    std::this_thread::sleep_for(kShort);
    EXPECT_EQ(observer.calls(), calls) << "the descriptor is still readable";
}

TEST_F(EpollEventMonitorTest, ReportOfAClosedDescriptorDoesNotReachItsSuccessor) {
    // While the gate's callback runs, two observers become readable: the next wait reports both.
    // Whichever is called first replaces the other by one with the same descriptor.
    std::promise<void> release;
    Observer gate([&, released = release.get_future().share()] {
        released.wait();
        mMonitor->detachObserver(&gate);
    });
    std::unique_ptr<Observer> pair[2];
    std::unique_ptr<Observer> successor;
    std::promise<bool> replaced;
    for (int i = 0; i < 2; ++i) {
        pair[i] = std::make_unique<Observer>();
        pair[i]->setAction([&, i] {
            mMonitor->detachObserver(pair[i].get());
            const int fd = pair[1 - i]->getEventFD();
            mMonitor->detachObserver(pair[1 - i].get());
            pair[1 - i].reset();
            successor = std::make_unique<Observer>();
            mMonitor->attachObserver(successor.get(), EPOLLIN);
            replaced.set_value(successor->getEventFD() == fd);
        });
        EXPECT_EQ(mMonitor->attachObserver(pair[i].get(), EPOLLIN), 0);
    }
    gate.raise();
    EXPECT_EQ(mMonitor->attachObserver(&gate, EPOLLIN), 0);
    gate.waitForCalls(1);
    pair[0]->raise();
    pair[1]->raise();
    release.set_value();
    ASSERT_TRUE(replaced.get_future().get()) << "the descriptor's number should come back";
    std::this_thread::sleep_for(kShort);
    EXPECT_EQ(successor->calls(), 0);
    successor->raise();
    successor->waitForCalls(1);
    mMonitor.reset();
}

TEST_F(EpollEventMonitorTest, MayBeDroppedInACallback) {
    Observer observer([this] { mMonitor.reset(); });
    const std::weak_ptr<EpollEventMonitor> monitor = mMonitor;
    observer.raise();
    mMonitor->attachObserver(&observer, EPOLLIN | kOneShot);
    std::shared_ptr<EpollEventMonitor> kept = mMonitor;
    EXPECT_EQ(kept->rearmObserver(&observer, EPOLLIN | kOneShot), 0);
    kept.reset();
    while (!monitor.expired())
        std::this_thread::yield();
    EXPECT_EQ(observer.calls(), 1);
    std::this_thread::sleep_for(kShort);
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
