// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Record.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "BackgroundWriter.h"
#include "FilePattern.h"
#include "PropertyText.h"
#include "RecordClock.h"
#include "RecordFile.h"
#include "RecordKernel.h"
#include "RecordLanes.h"

CORVANE_LOG_UNIT("corvane-Record")

namespace NSVista::NSCorvane::record {

constinit ThreadRings<Lane> gLanes;

namespace {

constexpr uint64_t kDefaultLimit = uint64_t{256} << 20;
constexpr size_t kRun = size_t{64} * 1024;
static_assert(kRun + Lane::kBytes <= kChunkMost);

/** One record after the other; a thread of its own writes them. Never destroyed. */
class Recorder {
public:
    /** @param parents the one of the process that this one was forked from; kept, not used. */
    explicit Recorder(const Recorder* parents) : mParents(parents) {}

    int start(const std::string& path, const std::string& note);
    void stop();
    void flush() { mWriter.flush(); }
    Status status() const;

    bool isRunning() const { return mWriter.isRunning(); }
    bool isForked() const { return mPid != getpid(); }

private:
    /** What the writer knows of the thread behind a lane. */
    struct Thread {
        uint32_t number = 0;  ///< 0: nothing of it was written yet
        pid_t tid = 0;
        char name[16] = {};
        uint64_t lostBefore = 0;
    };

    using Turn = BackgroundWriter::Turn;

    void work(Turn turn);
    void drain();
    void tellTimes(char* events, size_t size) const;
    void describe(Thread& thread, const Lane& lane);
    void write(const Thread& thread, const Lane& lane, const char* events, size_t size);

    [[maybe_unused]] const Recorder* const mParents;
    const pid_t mPid = getpid();
    RecordKernel mKernel;
    BackgroundWriter mWriter;
    std::atomic<int> mError{0};
    std::atomic<uint64_t> mBytes{0};
    std::atomic<uint64_t> mLostBefore{0};

    // The writer's own from here on; start() sets it up before the writer runs.
    RecordFile mFile;
    StampReader mStamps;
    Thread mThreads[gLanes.kCount];
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
    gLanes.clear();
    mLostBefore = gLanes.lost();
    for (Thread& thread : mThreads)
        thread = {};
    mLastNumber = 0;
    mBytes = 0;
    mError = 0;
    const int started = mWriter.start("RecordWriter", [this](Turn turn) { work(turn); });
    if (started != 0) {
        mFile.close();
        return started;
    }
    mKernel.setOn(true);
    System::wrapKernel(&mKernel);
    return 0;
}

void Recorder::stop() {
    if (!isRunning())
        return;
    System::wrapKernel(nullptr);
    mKernel.setOn(false);
    mWriter.stop();
    const uint64_t lost = status().lost;
    if (lost != 0)
        CORVANE_LOGW("%llu calls did not fit and are missing in the record",
                     static_cast<unsigned long long>(lost));
    if (mFile.wentRound())
        CORVANE_LOGW("The record reached its limit: its middle was overwritten");
}

Status Recorder::status() const {
    const int error = mError;
    return {isRunning() && error == 0, error, mBytes, gLanes.lost() - mLostBefore};
}

void Recorder::work(Turn turn) {
    drain();
    if (turn == Turn::Last)
        mFile.close();
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
constinit std::atomic<Recorder*> gRecorder{nullptr};

/** This process's own: a forked child has no use for its parent's. @return null without memory. */
Recorder* ownRecorder() CORVANE_REQUIRES(gLock) {
    Recorder* recorder = gRecorder;
    if (recorder != nullptr && !recorder->isForked())
        return recorder;
    recorder = new (std::nothrow) Recorder(recorder);
    if (recorder != nullptr)
        gRecorder = recorder;
    return recorder;
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
    if (Recorder* const before = gRecorder)
        before->stop();
    if (path == nullptr || *path == '\0' || strcmp(path, "none") == 0)
        return 0;
    [[maybe_unused]] static const int registered = std::atexit([] { stop(); });
    Recorder* const recorder = ownRecorder();
    return recorder != nullptr ? recorder->start(filePath(path), note != nullptr ? note : "")
                               : -ENOMEM;
}

void stop() {
    // A forked child may have been made while another thread held the lock.
    const Recorder* const recorder = gRecorder;
    if (recorder == nullptr || !recorder->isRunning())
        return;
    const MutexLock lock(gLock);
    gRecorder.load()->stop();
}

void flush() {
    if (Recorder* const recorder = gRecorder)
        recorder->flush();
}

Status status() {
    const Recorder* const recorder = gRecorder;
    return recorder != nullptr ? recorder->status() : Status{};
}

}  // namespace NSVista::NSCorvane::record
