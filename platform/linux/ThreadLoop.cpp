#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/ThreadLoop.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <utility>

CORVANE_LOG_UNIT("corvane-ThreadLoop")

namespace NSVista::NSCorvane {

IThreadLoop::~IThreadLoop() = default;

int IThreadLoop::readyToRun(const ReadyToRun& /*ready*/) {
    return 0;
}

/** What the handler and its thread share; it outlives the handler when that detaches. */
struct ThreadLoopHandler::Shared {
    Mutex lock;
    std::condition_variable readied;
    bool ready CORVANE_GUARDED_BY(lock) = false;
    std::thread::id thread CORVANE_GUARDED_BY(lock);
    std::shared_ptr<IThreadLoop> loop CORVANE_GUARDED_BY(lock);  ///< until the thread ends
    std::atomic<bool> exitRequested{false};

    void runLoop(const std::string& threadName);
    void waitReady();

private:
    std::shared_ptr<IThreadLoop> begin();
    void setReady();
};

std::shared_ptr<IThreadLoop> ThreadLoopHandler::Shared::begin() {
    MutexLock held(lock);
    thread = std::this_thread::get_id();
    return loop;
}

void ThreadLoopHandler::Shared::setReady() {
    MutexLock held(lock);
    ready = true;
    readied.notify_one();
}

void ThreadLoopHandler::Shared::waitReady() {
    MutexLock held(lock);
    while (!ready)
        readied.wait(held.native());
}

void ThreadLoopHandler::Shared::runLoop(const std::string& threadName) {
    if (!threadName.empty())
        pthread_setname_np(pthread_self(), threadName.substr(0, 15).c_str());
    const std::shared_ptr<IThreadLoop> running = begin();
    const int result = running->readyToRun(IThreadLoop::ReadyToRun{threadName});
    setReady();
    if (result != 0)
        CORVANE_LOGE("Thread %s is not ready to run: %d", threadName.c_str(), result);
    while (result == 0 && !exitRequested && running->threadLoop()) {
    }
    // The object may die when this returns, and may own the handler: no lock is held then.
    MutexLock held(lock);
    loop.reset();
}

std::shared_ptr<ThreadLoopHandler> ThreadLoopHandler::make() {
    return std::make_shared<ThreadLoopHandler>();
}

ThreadLoopHandler::~ThreadLoopHandler() {
    requestExitAndWait();
    if (mThread.joinable())
        mThread.detach();
}

void ThreadLoopHandler::setThreadName(std::string name) {
    mThreadName = std::move(name);
}

int ThreadLoopHandler::run(const std::shared_ptr<IThreadLoop>& loop) {
    if (!loop)
        return -EINVAL;
    if (mShared)
        return -EBUSY;
    auto shared = std::make_shared<Shared>();
    {
        MutexLock held(shared->lock);
        shared->loop = loop;
    }
    mShared = shared;
    try {
        mThread = std::thread([shared, name = mThreadName] { shared->runLoop(name); });
    } catch (const std::system_error&) {
        mShared.reset();
        return -EAGAIN;
    }
    shared->waitReady();
    return 0;
}

void ThreadLoopHandler::requestExitAndWait() {
    if (!mShared)
        return;
    mShared->exitRequested = true;
    std::shared_ptr<IThreadLoop> loop;
    bool onItsThread = false;
    {
        MutexLock held(mShared->lock);
        loop = mShared->loop;
        onItsThread = mShared->thread == std::this_thread::get_id();
    }
    if (loop)
        loop->requestExit();
    if (!onItsThread && mThread.joinable())
        mThread.join();
}

}  // namespace NSVista::NSCorvane
