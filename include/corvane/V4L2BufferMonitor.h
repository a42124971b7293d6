// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The buffer monitor's implementation.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <corvane/IV4L2BufferMonitor.h>
#include <corvane/platform/Condition.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {

/**
 * Counts buffers queued, due and dequeued, and makes the ports' observers dequeue.
 *
 * Runs its thread once: after requestExit() it stays inactive. The three locks are never nested,
 * and none is held while an observer is called.
 */
class CORVANE_EXPORT V4L2BufferMonitor : public IV4L2BufferMonitor {
public:
    static constexpr char kThreadName[] = "P2Drv-BufferMon";
    static constexpr char kTRACETAG_BufferCountInQue[] = "V4L2BufferMonitor-#BufInQ";

    /** Reads the configuration from the system properties. @param name begins mName. */
    explicit V4L2BufferMonitor(const char* name);
    /** Neither stops the thread nor checks the counts. */
    ~V4L2BufferMonitor() override;
    V4L2BufferMonitor(const V4L2BufferMonitor&) = delete;
    V4L2BufferMonitor& operator=(const V4L2BufferMonitor&) = delete;

    void requestExit() override;
    int readyToRun(const ReadyToRun& ready) override { return readyToRun(ready.threadName); }
    int readyToRun(const std::string& threadName) override;
    bool threadLoop() override;
    void dumpState(IPrinter* printer) const override;
    const char* getThreadName() const override { return kThreadName; }
    void attachObserver(const std::shared_ptr<IV4L2BufferObserver>& observer,
                        int portIndex) override;
    void detachObserver(const std::shared_ptr<IV4L2BufferObserver>& observer,
                        int portIndex) override;
    void attachRequestBuffer(int requestFd, unsigned int bufferIndex) override;
    void detachRequestBuffer(int requestFd, unsigned int bufferIndex) override;
    void notifyRequestDone(int requestFd, int* portIndexes, size_t count) override;

    /**
     * Serves a request over several ports as one over a single port: in configuration mode 0 its
     * observers are called in port order by notifyRequestDone(). Before the first request.
     */
    void setDirectDequeue(bool direct) { mDirectDequeue = direct; }
    /**
     * Calls queued observers until nothing is due. The worker thread, which comes here once for
     * each notification that found it asleep.
     */
    void notifyComplete();

    /** Buffers with the driver. The counts wrap at 2^32. */
    uint32_t determineInqueBufferCount() const;
    /** Buffers completed but not dequeued. */
    uint32_t determineNeedToDQBUFCount() const;
    bool needToDQBUF() const { return determineNeedToDQBUFCount() != 0; }

    /**
     * @name Texts of a state dump
     * Any thread.
     * @{
     */
    std::string toString_runtime() const;
    std::string toString_config() const;
    std::string toString_debugtrace() const;
    /** @} */

private:
    static constexpr size_t kReservedObservers = 8;
    static constexpr size_t kLowPorts = 32;
    using Observer = std::weak_ptr<IV4L2BufferObserver>;

    bool active() const { return mActive.load(std::memory_order_relaxed); }
    const Observer* findObserver(int portIndex) const;
    void notifyDirectly(int portIndex);
    bool queueObservers(const int* portIndexes, size_t count, int& unknownIndex);
    int32_t untakenCount() const;
    size_t takeObservers();
    void callObservers();
    void dumpToLog(const char* operation) const;

    const std::string mName;
    const int32_t mConfigMode;
    const int32_t mTraceBuf;
    const int32_t mLogV;
    bool mDirectDequeue = false;
    Condition mCondition;
    Mutex mCountLock;
    std::atomic<uint32_t> mQBufCount{0};
    std::atomic<uint32_t> mReqDoneCount{0};  ///< increased under mCountLock
    std::atomic<uint32_t> mDQBufCount{0};
    std::atomic<bool> mActive{true};  ///< cleared under mCountLock
    mutable Mutex mObserverLock;
    /**
     * Every observer there ever was, so that those queued stay where they are: copying a weak
     * pointer costs two atomic operations a buffer. A scene has few, and its monitor goes with it.
     */
    std::forward_list<Observer> mObservers CORVANE_GUARDED_BY(mObserverLock);
    std::unordered_map<int32_t, const Observer*> mPortObserverMap CORVANE_GUARDED_BY(mObserverLock);
    std::atomic<const Observer*> mLowPortObservers[kLowPorts] = {};  ///< the map's, by port index
    std::vector<const Observer*> mRequestDoneObservers CORVANE_GUARDED_BY(mObserverLock);
    std::atomic<size_t> mPendingObservers{0};  ///< size of mRequestDoneObservers, for text forms
    mutable Mutex mTraceLock;
    std::unordered_map<int32_t, std::unordered_set<uint32_t>> mTraceBufferMap
        CORVANE_GUARDED_BY(mTraceLock);
    std::vector<const Observer*> mTaken;  ///< observers of the pass; the worker thread's
    uint32_t mTakenCount = 0;             ///< observers taken so far; the worker thread's
};

}  // namespace NSVista::NSCorvane
