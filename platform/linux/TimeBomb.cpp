// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/TimeBomb.h>

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "HandlerSlot.h"
#include "Immortal.h"
#include "QuietThread.h"

CORVANE_LOG_UNIT("corvane-TimeGuard")

namespace NSVista::NSCorvane::timeguard {

namespace {

using Clock = std::chrono::steady_clock;

Clock::duration duration(unsigned long ns) {
    // Far enough to mean "never", near enough to be added to any time.
    constexpr uint64_t kLongest = std::numeric_limits<int64_t>::max() / 4;
    return std::chrono::nanoseconds(static_cast<int64_t>(std::min<uint64_t>(ns, kLongest)));
}

struct Armed {
    Clock::time_point deadline;
    Clock::time_point since;
    std::weak_ptr<TimeBomb> bomb;
};

/**
 * The thread that watches all guards, of which there are as many as calls under way. It knows them
 * weakly, so that disarming one is deleting it.
 */
class GuardThread {
public:
    /** The thread is detached and waits until the process ends. */
    static GuardThread& instance() {
        static Immortal<GuardThread> guards;
        return *guards;
    }

    /** @return false when there is no thread to watch the guard. */
    bool add(const std::shared_ptr<TimeBomb>& bomb);

    HandlerSlot<void(const TimeBomb&, std::chrono::nanoseconds)> handler;

private:
    bool start();
    void run();
    /** Drops what is disarmed. @return the guard that expires next. */
    Armed* nearest() CORVANE_REQUIRES(mLock);
    void report(const TimeBomb& bomb, Clock::duration age) CORVANE_EXCLUDES(mLock);
    /** @return the time until the next look. */
    Clock::duration look(TimeBomb& bomb) CORVANE_EXCLUDES(mLock);
    void lookAgain(const std::shared_ptr<TimeBomb>& bomb, Clock::duration pause)
        CORVANE_REQUIRES(mLock);

    Mutex mLock;
    std::condition_variable mAdded;
    std::vector<Armed> mArmed CORVANE_GUARDED_BY(mLock);
    bool mStarted CORVANE_GUARDED_BY(mLock) = false;
};

bool GuardThread::add(const std::shared_ptr<TimeBomb>& bomb) {
    const auto now = Clock::now();
    const MutexLock lock(mLock);
    if (!mStarted)
        mStarted = start();
    const Armed* const next = nearest();
    const auto deadline = now + duration(bomb->limit());
    const bool first = next == nullptr || deadline < next->deadline;
    mArmed.push_back({deadline, now, bomb});
    if (first)
        mAdded.notify_one();
    return mStarted;
}

bool GuardThread::start() {
    std::thread thread = startQuietThread("TimeGuard", [this] { run(); });
    if (!thread.joinable())
        return false;
    thread.detach();
    return true;
}

Armed* GuardThread::nearest() {
    std::erase_if(mArmed, [](const Armed& armed) { return armed.bomb.expired(); });
    const auto sooner = [](const Armed& a, const Armed& b) { return a.deadline < b.deadline; };
    const auto found = std::min_element(mArmed.begin(), mArmed.end(), sooner);
    return found != mArmed.end() ? &*found : nullptr;
}

void GuardThread::run() {
    MutexLock lock(mLock);
    for (;;) {
        Armed* const next = nearest();
        if (next == nullptr) {
            mAdded.wait(lock.native());
            continue;
        }
        const auto now = Clock::now();
        if (now < next->deadline) {
            // A copy: the guard may be gone before the wait looks at its deadline again.
            const auto deadline = next->deadline;
            mAdded.wait_until(lock.native(), deadline);
            continue;
        }
        const auto bomb = next->bomb.lock();
        if (!bomb)
            continue;
        if (bomb->looks()) {
            next->deadline = Clock::time_point::max();
            lock.unlock();
            const auto pause = look(*bomb);
            lock.lock();
            lookAgain(bomb, pause);
            continue;
        }
        const auto age = now - next->since;
        if (const auto period = duration(bomb->period()); period > Clock::duration::zero())
            next->deadline += period * ((now - next->deadline) / period + 1);
        else
            next->deadline = Clock::time_point::max();
        lock.unlock();
        report(*bomb, age);
        lock.lock();
    }
}

void GuardThread::report(const TimeBomb& bomb, Clock::duration age) {
    CORVANE_LOGE(
        "%s: %s (%lld ms)", bomb.name(), bomb.message(),
        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(age).count()));
    if (const auto expiryHandler = handler.get())
        (*expiryHandler)(bomb, age);
}

Clock::duration GuardThread::look(TimeBomb& bomb) {
    return bomb.look([&](std::chrono::nanoseconds age, const char* message) {
        bomb.setText(message);
        report(bomb, age);
    });
}

void GuardThread::lookAgain(const std::shared_ptr<TimeBomb>& bomb, Clock::duration pause) {
    for (Armed& armed : mArmed)
        if (armed.bomb.lock() == bomb)
            armed.deadline = Clock::now() + pause;
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

std::shared_ptr<TimeBomb> TimeBomb::makeUnarmed(const char* name, unsigned long limit,
                                                unsigned long period) try {
    return std::shared_ptr<TimeBomb>(new TimeBomb(name, limit, period), &TimeBomb::deleteThis);
}
CORVANE_NO_THROW

std::shared_ptr<TimeBomb> TimeBomb::watch(const char* name, unsigned long first, Look look) try {
    auto shared = makeUnarmed(name, first, 0);
    shared->mLook = std::move(look);
    registerTimeBomb(shared);
    return shared;
}
CORVANE_NO_THROW

void TimeBomb::deleteThis(TimeBomb* bomb) {
    delete bomb;
}

void TimeBomb::registerTimeBomb(const std::shared_ptr<TimeBomb>& bomb) try {
    if (!bomb)
        return;
    if (!GuardThread::instance().add(bomb))
        CORVANE_LOGE("No thread to guard %s", bomb->name());
}
CORVANE_NO_THROW

void TimeBomb::setExpiryHandler(ExpiryHandler handler) try {
    GuardThread::instance().handler.set(std::move(handler));
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane::timeguard
