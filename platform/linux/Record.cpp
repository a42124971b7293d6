// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Record.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "FilePattern.h"
#include "Immortal.h"
#include "PropertyText.h"
#include "QuietThread.h"
#include "RecordClock.h"
#include "RecordFile.h"
#include "RecordKernel.h"
#include "RecordLanes.h"

CORVANE_LOG_UNIT("corvane-Record")

namespace NSVista::NSCorvane::record {

namespace {

constexpr std::chrono::milliseconds kPeriod{10};
constexpr std::chrono::seconds kFlushPatience{2};
constexpr uint64_t kDefaultLimit = uint64_t{256} << 20;
constexpr size_t kRun = size_t{64} * 1024;
static_assert(kRun + Lane::kBytes <= kChunkMost);

/** One record after the other; a thread of its own writes them. Never destroyed. */
class Recorder {
public:
    int start(const std::string& path, const std::string& note);
    void stop();
    void flush();
    Status status() const;

    /** The process that records; a forked child has no writer. */
    bool isOwner() const { return mPid == getpid(); }

private:
    /** What the writer knows of the thread behind a lane. */
    struct Thread {
        uint32_t number = 0;  ///< 0: nothing of it was written yet
        pid_t tid = 0;
        char name[16] = {};
        uint64_t lostBefore = 0;
    };

    void run();
    void drain();
    void tellTimes(char* events, size_t size) const;
    void describe(Thread& thread, const Lane& lane);
    void write(const Thread& thread, const Lane& lane, const char* events, size_t size);

    RecordKernel mKernel;
    std::thread mThread;
    std::atomic<pid_t> mPid{0};
    std::atomic<bool> mRunning{false};
    std::atomic<int> mError{0};
    std::atomic<uint64_t> mBytes{0};
    std::atomic<uint64_t> mLostBefore{0};
    Mutex mLock;
    std::condition_variable mWished;
    std::condition_variable mDone;
    uint64_t mFlushWishes CORVANE_GUARDED_BY(mLock) = 0;
    uint64_t mFlushes CORVANE_GUARDED_BY(mLock) = 0;
    bool mEnding CORVANE_GUARDED_BY(mLock) = false;

    // The writer's own from here on; start() sets it up before the writer runs.
    RecordFile mFile;
    StampReader mStamps;
    Thread mThreads[Lanes::kCount];
    uint32_t mLastNumber = 0;
};

int Recorder::start(const std::string& path, const std::string& note) {
    if (!gLanes.prepare())
        return -ENOMEM;
    const uint64_t limit = Utils::Properties::property_get_uint64(
        "persist.vendor.camera.corvane.recordlimit", kDefaultLimit);
    if (const int result = mFile.open(path, note, limit); result != 0)
        return result;
    [[maybe_unused]] static const bool chosen = (chooseStamps(), true);
    mStamps.start();
    gLanes.begin();
    mLostBefore = gLanes.lost();
    for (Thread& thread : mThreads)
        thread = {};
    mLastNumber = 0;
    mBytes = 0;
    mError = 0;
    {
        const MutexLock lock(mLock);
        mEnding = false;
    }
    mThread = startQuietThread("RecordWriter", [this] { run(); });
    if (!mThread.joinable()) {
        mFile.close();
        return -EAGAIN;
    }
    mPid = getpid();
    mRunning = true;
    mKernel.setOn(true);
    System::wrapKernel(&mKernel);
    return 0;
}

void Recorder::stop() {
    if (!mThread.joinable() || !isOwner())
        return;
    System::wrapKernel(nullptr);
    mKernel.setOn(false);
    {
        const MutexLock lock(mLock);
        mEnding = true;
        mWished.notify_one();
    }
    mThread.join();
    mRunning = false;
    const uint64_t lost = status().lost;
    if (lost != 0)
        CORVANE_LOGW("%llu calls did not fit and are missing in the record",
                     static_cast<unsigned long long>(lost));
    if (mFile.wentRound())
        CORVANE_LOGW("The record reached its limit: its middle was overwritten");
}

void Recorder::flush() {
    if (!mRunning || !isOwner())
        return;
    MutexLock lock(mLock);
    const uint64_t wish = ++mFlushWishes;
    mWished.notify_one();
    const auto patience = std::chrono::steady_clock::now() + kFlushPatience;
    while (mFlushes < wish && !mEnding &&
           mDone.wait_until(lock.native(), patience) != std::cv_status::timeout) {
    }
}

Status Recorder::status() const {
    const int error = mError;
    return {mRunning && error == 0, error, mBytes, gLanes.lost() - mLostBefore};
}

void Recorder::run() {
    MutexLock lock(mLock);
    for (;;) {
        const uint64_t wishes = mFlushWishes;
        const bool ending = mEnding;
        lock.unlock();
        drain();
        if (ending)
            mFile.close();
        lock.lock();
        mFlushes = wishes;
        mDone.notify_all();
        if (ending)
            return;
        if (!mEnding && mFlushWishes == wishes)
            mWished.wait_for(lock.native(), kPeriod);
    }
}

void Recorder::drain() {
    mStamps.tick();
    gLanes.forEach([this](size_t index, Lane& lane, bool left) {
        Thread& thread = mThreads[index];
        bool isDescribed = false;
        lane.drain(kRun, [&](char* events, size_t size) {
            tellTimes(events, size);
            if (!isDescribed)
                describe(thread, lane);
            isDescribed = true;
            write(thread, lane, events, size);
        });
        if (left)
            thread = {};
    });
}

/** Makes times of the stamps of whole events. */
void Recorder::tellTimes(char* events, size_t size) const {
    for (size_t at = 0; at < size;) {
        auto* const event = reinterpret_cast<EventHead*>(events + at);
        event->ns = mStamps.toNs(event->ns);
        at += event->size;
    }
}

/** Threads take their names at any time, and may have ended by now. */
void Recorder::describe(Thread& thread, const Lane& lane) {
    if (thread.number == 0) {
        thread.number = ++mLastNumber;
        thread.tid = lane.tid();
        thread.lostBefore = lane.lost();
    }
    char path[48];
    snprintf(path, sizeof(path), "/proc/self/task/%d/comm", thread.tid);
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    char name[sizeof(thread.name)] = {};
    const ssize_t length = file ? read(file.get(), name, sizeof(name) - 1) : 0;
    if (length <= 0)
        return;
    name[strcspn(name, "\n")] = '\0';
    memcpy(thread.name, name, sizeof(name));
}

void Recorder::write(const Thread& thread, const Lane& lane, const char* events, size_t size) {
    if (mError != 0)
        return;
    ChunkHead head{};
    head.size = static_cast<uint32_t>(size);
    head.lost = lane.lost() - thread.lostBefore;
    head.thread = thread.number;
    head.tid = thread.tid;
    memcpy(head.name, thread.name, sizeof(head.name));
    const int result = mFile.append(head, events);
    mBytes += sizeof(head) + size;
    if (result == 0)
        return;
    mError = result;
    mKernel.setOn(false);
    CORVANE_LOGE("Failed to write the record: %d(%s)", result, strerror(-result));
}

constinit Mutex gLock;  ///< one start or stop at a time

Recorder& recorder() {
    static Immortal<Recorder> one;
    return *one;
}

/** Takes the configured file. */
bool loadState() {
    const std::string path =
        Utils::Properties::propertyText("persist.vendor.camera.corvane.record", "none");
    if (path == "none")
        return true;
    if (const int result = start(path.c_str()); result != 0)
        CORVANE_LOGE("Failed to record into %s: %d(%s)", path.c_str(), result, strerror(-result));
    return true;
}

[[maybe_unused]] const bool gStateLoaded = loadState();

}  // namespace

int start(const char* path, const char* note) {
    const MutexLock lock(gLock);
    const bool isWanted = path != nullptr && *path != '\0' && strcmp(path, "none") != 0;
    if (!isWanted && !recorder().status().running)
        return 0;
    recorder().stop();
    if (!isWanted)
        return 0;
    [[maybe_unused]] static const int registered = std::atexit([] { stop(); });
    return recorder().start(filePath(path), note != nullptr ? note : "");
}

void stop() {
    // A forked child may have been made while another thread held the lock.
    if (!recorder().isOwner())
        return;
    const MutexLock lock(gLock);
    recorder().stop();
}

void flush() {
    recorder().flush();
}

Status status() {
    return recorder().status();
}

}  // namespace NSVista::NSCorvane::record
