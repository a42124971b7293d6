// SPDX-License-Identifier: Apache-2.0
#include "BackgroundWriter.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "QuietThread.h"

namespace NSVista::NSCorvane {

namespace {

/** A ring of 512 kB holds what a thread puts into it in this time at 50 MB a second. */
constexpr std::chrono::milliseconds kPeriod{10};
constexpr std::chrono::seconds kFlushPatience{2};

}  // namespace

int BackgroundWriter::start(const char* name, std::function<void(Turn)> work) {
    {
        const MutexLock lock(mLock);
        mEnding = false;
        mEnded = false;
    }
    mThread = startQuietThread(name, [this, work = std::move(work)] { run(work); });
    if (!mThread.joinable())
        return -EAGAIN;
    mOwner = getpid();
    return 0;
}

void BackgroundWriter::flush() {
    if (!isRunning())
        return;
    MutexLock lock(mLock);
    const uint64_t wish = ++mWishes;
    mWished.notify_one();
    const auto patience = std::chrono::steady_clock::now() + kFlushPatience;
    while (mGranted < wish && !mEnded &&
           mDone.wait_until(lock.native(), patience) != std::cv_status::timeout) {
    }
}

void BackgroundWriter::stop() {
    if (!isRunning())
        return;
    {
        const MutexLock lock(mLock);
        mEnding = true;
        mWished.notify_one();
    }
    mThread.join();
    mOwner = 0;
}

bool BackgroundWriter::isRunning() const {
    return mOwner == getpid();
}

void BackgroundWriter::run(const std::function<void(Turn)>& work) {
    MutexLock lock(mLock);
    for (;;) {
        const uint64_t wishes = mWishes;
        const Turn turn = mEnding ? Turn::Last : mGranted != wishes ? Turn::Flush : Turn::Regular;
        lock.unlock();
        work(turn);
        lock.lock();
        mGranted = wishes;
        mEnded = turn == Turn::Last;
        mDone.notify_all();
        if (mEnded)
            return;
        if (!mEnding && mWishes == wishes)
            mWished.wait_for(lock.native(), kPeriod);
    }
}

}  // namespace NSVista::NSCorvane
