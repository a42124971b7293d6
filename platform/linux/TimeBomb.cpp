#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/TimeBomb.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <limits>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "HandlerSlot.h"

CORVANE_LOG_UNIT("corvane-TimeGuard")

namespace NSVista::NSCorvane::timeguard {

namespace {

using Clock = std::chrono::steady_clock;

/** Far enough to mean "never", near enough to be added to any time. */
constexpr unsigned long kLongest = std::numeric_limits<int64_t>::max() / 4;

Clock::duration duration(unsigned long ns) {
    return std::chrono::nanoseconds(static_cast<int64_t>(std::min(ns, kLongest)));
}

struct Armed {
    Clock::time_point deadline;
    Clock::time_point since;
    std::weak_ptr<const TimeBomb> bomb;
};

/** Orders a heap so that the nearest deadline is in front. */
bool later(const Armed& a, const Armed& b) {
    return a.deadline > b.deadline;
}

/**
 * The thread that watches all guards.
 *
 * It knows them weakly, so that disarming one is deleting it. What is left of disarmed guards is
 * dropped when the thread wakes, and when they make up half of the heap.
 */
class GuardThread {
public:
    /** Never destroyed: the thread is detached and waits until the process ends. */
    static GuardThread& instance() {
        static auto* const guards = new GuardThread;
        return *guards;
    }

    /** @return false when there is no thread to watch the guard. */
    bool add(const std::shared_ptr<TimeBomb>& bomb);

    HandlerSlot<void(const TimeBomb&, std::chrono::nanoseconds)> handler;

private:
    bool start() CORVANE_REQUIRES(mLock);
    void push(Armed armed) CORVANE_REQUIRES(mLock);
    Armed pop() CORVANE_REQUIRES(mLock);
    void purge() CORVANE_REQUIRES(mLock);
    void run();
    /** @return the time to the next report, zero when there is none. */
    Clock::duration report(const Armed& armed) CORVANE_EXCLUDES(mLock);

    Mutex mLock;
    std::condition_variable mNearer;
    std::vector<Armed> mHeap CORVANE_GUARDED_BY(mLock);
    size_t mPurgeAt CORVANE_GUARDED_BY(mLock) = 64;
    bool mStarted CORVANE_GUARDED_BY(mLock) = false;
};

bool GuardThread::add(const std::shared_ptr<TimeBomb>& bomb) {
    const auto now = Clock::now();
    MutexLock lock(mLock);
    if (!mStarted)
        mStarted = start();
    const auto deadline = now + duration(bomb->limit());
    const bool nearest = mHeap.empty() || deadline < mHeap.front().deadline;
    push({deadline, now, bomb});
    if (nearest)
        mNearer.notify_one();
    return mStarted;
}

bool GuardThread::start() {
    // The host's signal handlers run on the host's threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        std::thread([this] { run(); }).detach();
    } catch (const std::system_error&) {
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

void GuardThread::push(Armed armed) {
    if (mHeap.size() >= mPurgeAt)
        purge();
    mHeap.push_back(std::move(armed));
    std::push_heap(mHeap.begin(), mHeap.end(), later);
}

Armed GuardThread::pop() {
    std::pop_heap(mHeap.begin(), mHeap.end(), later);
    Armed armed = std::move(mHeap.back());
    mHeap.pop_back();
    return armed;
}

void GuardThread::purge() {
    std::erase_if(mHeap, [](const Armed& armed) { return armed.bomb.expired(); });
    std::make_heap(mHeap.begin(), mHeap.end(), later);
    mPurgeAt = std::max<size_t>(64, mHeap.size() * 2);
}

void GuardThread::run() {
    pthread_setname_np(pthread_self(), "TimeGuard");
    MutexLock lock(mLock);
    for (;;) {
        while (!mHeap.empty() && mHeap.front().bomb.expired())
            pop();
        if (mHeap.empty()) {
            mNearer.wait(lock.native());
            continue;
        }
        const auto deadline = mHeap.front().deadline;
        if (Clock::now() < deadline) {
            mNearer.wait_until(lock.native(), deadline);
            continue;
        }
        Armed expired = pop();
        lock.unlock();
        const auto next = report(expired);
        lock.lock();
        if (next > Clock::duration::zero()) {
            expired.deadline = Clock::now() + next;
            push(std::move(expired));
        }
    }
}

Clock::duration GuardThread::report(const Armed& armed) {
    const auto bomb = armed.bomb.lock();
    if (!bomb)
        return Clock::duration::zero();
    const auto age = Clock::now() - armed.since;
    CORVANE_LOGE(
        "%s: %s (%lld ms)", bomb->name(), bomb->message(),
        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(age).count()));
    if (const auto expiryHandler = handler.get())
        (*expiryHandler)(*bomb, age);
    return duration(bomb->period());
}

}  // namespace

TimeBomb::TimeBomb(const char* name, unsigned long limit, unsigned long period)
    : mName(name != nullptr ? name : ""), mLimit(limit), mPeriod(period) {
}

void TimeBomb::setMessage(const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (vsnprintf(mMessage, sizeof(mMessage), format, args) < 0)
        mMessage[0] = '\0';
    va_end(args);
}

void TimeBomb::deleteThis(TimeBomb* bomb) {
    delete bomb;
}

void TimeBomb::registerTimeBomb(const std::shared_ptr<TimeBomb>& bomb) {
    if (!bomb)
        return;
    if (!GuardThread::instance().add(bomb))
        CORVANE_LOGE("No thread to guard %s", bomb->name());
}

void TimeBomb::setExpiryHandler(ExpiryHandler handler) {
    GuardThread::instance().handler.set(std::move(handler));
}

}  // namespace NSVista::NSCorvane::timeguard
