// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Threads that run a loop object.
 */
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

/** What a ThreadLoopHandler runs. Its operations must not throw: that would end the process. */
class CORVANE_EXPORT IThreadLoop {
public:
    /** What a starting thread knows of itself. */
    struct ReadyToRun {
        std::string threadName;  ///< as given to the handler; may be empty
    };

    virtual ~IThreadLoop();
    /** Asks a running threadLoop() to return. Any thread. */
    virtual void requestExit() = 0;
    /** Called once on the new thread, before the loop. The default does nothing. */
    virtual int readyToRun(const ReadyToRun& ready);
    /** The same for those who want the name alone. */
    virtual int readyToRun(const std::string& threadName) = 0;
    /** One turn. @return true to be called again. */
    virtual bool threadLoop() = 0;
    virtual void dumpState(IPrinter* printer) const = 0;
    /** The name the loop wants its thread to have; static storage. */
    virtual const char* getThreadName() const = 0;
};

/**
 * Runs one IThreadLoop on a thread of its own, once.
 *
 * Thread-bound: setThreadName(), run() and requestExitAndWait() are called by one owner. The thread
 * keeps the loop object alive until it ends.
 */
class CORVANE_EXPORT ThreadLoopHandler {
public:
    static std::shared_ptr<ThreadLoopHandler> make();
    ThreadLoopHandler() = default;
    /** requestExitAndWait(), or a detach when it runs on its own thread. */
    ~ThreadLoopHandler();
    ThreadLoopHandler(const ThreadLoopHandler&) = delete;
    ThreadLoopHandler& operator=(const ThreadLoopHandler&) = delete;

    /** Names the thread. Before run(). */
    void setThreadName(std::string name);
    /**
     * Starts the thread: `readyToRun` once, then `threadLoop()` while it returns true and no exit
     * was requested. Returns when `readyToRun` has finished; when that returned non-zero, the loop
     * is not entered. A time guard tells of a `readyToRun` that does not come back.
     * @return 0; -EINVAL without a loop, -EBUSY when it was run before, -EAGAIN with an error line
     *         when the system has no thread to give: nothing runs then, and it may be run again.
     */
    int run(const std::shared_ptr<IThreadLoop>& loop);
    /**
     * Asks the loop to end and joins. The loop's `requestExit()` is called also when the loop ended
     * by itself, unless the object is gone. Called on the thread itself, it only asks. Once joined,
     * it does nothing.
     */
    void requestExitAndWait();

private:
    struct Shared;
    std::string mThreadName;
    std::shared_ptr<Shared> mShared;
    std::weak_ptr<IThreadLoop> mLoop;
    std::thread mThread;
};

}  // namespace NSVista::NSCorvane
