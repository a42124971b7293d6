// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/ThreadLoop.h>
#include <corvane/platform/TimeBomb.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <utility>

CORVANE_LOG_UNIT("corvane-ThreadLoop")

namespace NSVista::NSCorvane {

namespace {
constexpr unsigned long kReadyLimit = 2999000000;
constexpr unsigned long kReadyPeriod = 1000000000;
}  // namespace

IThreadLoop::~IThreadLoop() = default;

int IThreadLoop::readyToRun(const ReadyToRun& /*ready*/) {
    return 0;
}

/** What the handler and its thread share; it outlives the handler when that detaches. */
struct ThreadLoopHandler::Shared {
    std::atomic<std::thread::id> thread{};
    std::atomic<bool> exitRequested{false};

    void runLoop(IThreadLoop& loop, const std::string& threadName);
    void waitReady();

private:
    void setReady();

    Mutex mLock;
    std::condition_variable mReadied;
    bool mReady CORVANE_GUARDED_BY(mLock) = false;
};

void ThreadLoopHandler::Shared::setReady() {
    const MutexLock lock(mLock);
    mReady = true;
    mReadied.notify_one();
}

void ThreadLoopHandler::Shared::waitReady() {
    MutexLock lock(mLock);
    while (!mReady)
        mReadied.wait(lock.native());
}

void ThreadLoopHandler::Shared::runLoop(IThreadLoop& loop, const std::string& threadName) {
    if (!threadName.empty())
        pthread_setname_np(pthread_self(), threadName.substr(0, 15).c_str());
    thread = std::this_thread::get_id();
    const int result = loop.readyToRun(IThreadLoop::ReadyToRun{threadName});
    setReady();
    if (result != 0)
        CORVANE_LOGE("Thread %s is not ready to run: %d", threadName.c_str(), result);
    while (result == 0 && !exitRequested && loop.threadLoop()) {
    }
}

std::shared_ptr<ThreadLoopHandler> ThreadLoopHandler::make() try {
    return std::make_shared<ThreadLoopHandler>();
}
CORVANE_NO_THROW

ThreadLoopHandler::~ThreadLoopHandler() {
    requestExitAndWait();
    if (mThread.joinable())
        mThread.detach();
}

void ThreadLoopHandler::setThreadName(std::string name) {
    mThreadName = std::move(name);
}

int ThreadLoopHandler::run(const std::shared_ptr<IThreadLoop>& loop) try {
    if (!loop)
        return -EINVAL;
    if (mShared)
        return -EBUSY;
    const auto guard =
        timeguard::TimeBomb::make(mThreadName.c_str(), kReadyLimit, kReadyPeriod, "readyToRun");
    mShared = std::make_shared<Shared>();
    mLoop = loop;
    try {
        // The thread's copies may be the last ones: the loop, and what it owns, then dies there.
        mThread = std::thread([shared = mShared, loop, name = mThreadName] {  //
            shared->runLoop(*loop, name);
        });
    } catch (const std::system_error& error) {
        CORVANE_LOGE("No thread for %s: %s", mThreadName.c_str(), error.what());
        mShared.reset();
        return -EAGAIN;
    }
    mShared->waitReady();
    return 0;
}
CORVANE_NO_THROW

void ThreadLoopHandler::requestExitAndWait() try {
    if (!mShared)
        return;
    mShared->exitRequested = true;
    if (const auto loop = mLoop.lock())
        loop->requestExit();
    if (mShared->thread == std::this_thread::get_id() || !mThread.joinable())
        return;
    mThread.join();
    mLoop.reset();
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
