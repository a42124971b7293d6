// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * An event monitor over epoll.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <corvane/IEventMonitor.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/ThreadLoop.h>

namespace NSVista::NSCorvane::client {

/**
 * One thread that waits on the descriptors of all observers and calls them one at a time.
 *
 * All operations may be called from any thread, also from inside a callback; no lock is held while
 * an observer is called. An observer may detach itself, or others, from inside its callback, and
 * may be destroyed there once it is detached. detachObserver() on another thread waits while that
 * observer's callback runs, so a callback must not wait for a thread that detaches its observer.
 * Detach an observer before its descriptor is closed.
 *
 * A one-shot watch begins with its first re-arm, and so does that of a descriptor in error when it
 * is attached. A media request is both, attached long before it is queued: watched at once, it
 * would report its idle error, or complete while it is still being queued.
 *
 * A descriptor that hung up or is in error is reported once and then not watched until it is
 * re-armed: the state lasts, so that a level-triggered watch would report it without end.
 *
 * A completion costs one epoll_ctl (the re-arm) and one epoll_wait, and no allocation.
 */
class CORVANE_EXPORT EpollEventMonitor : public IEventMonitor {
public:
    /**
     * Starts the thread.
     * @param threadName at most 15 characters are kept.
     * @return null when the system has no descriptor or thread to give (logged).
     */
    static std::shared_ptr<EpollEventMonitor> make(std::string threadName = "Corvane-Events");
    /**
     * Ends the thread: when this returns on another thread than the monitor's, no callback is
     * running or ever runs again. Observers that are still attached are forgotten.
     */
    ~EpollEventMonitor() override;
    EpollEventMonitor(const EpollEventMonitor&) = delete;
    EpollEventMonitor& operator=(const EpollEventMonitor&) = delete;

    /** Prints the thread, and a line per observer: descriptor, events wanted, reports so far. */
    void dumpState(IPrinter* printer) const override;
    /** Valid while the monitor lives. */
    const char* getThreadName() const override;
    /**
     * @param observer not owned; attached until detachObserver().
     * @param events epoll event bits.
     * @return 0, -EINVAL for null, -EEXIST when it is attached already, -EBADF for a bad
     *         descriptor, -ENOSPC beyond 2^24 observers, or the negated errno of epoll_ctl.
     */
    int attachObserver(IEventObserver* observer, uint32_t events) override;
    /** @return 0, -ENOENT when it is not attached, or the negated errno of epoll_ctl. */
    int rearmObserver(IEventObserver* observer, uint32_t events) override;
    /** @return 0, or -ENOENT when it is not attached. */
    int detachObserver(IEventObserver* observer) override;

private:
    class Loop;

    explicit EpollEventMonitor(std::shared_ptr<Loop> loop);

    std::shared_ptr<Loop> mLoop;
    ThreadLoopHandler mThread;
};

}  // namespace NSVista::NSCorvane::client
