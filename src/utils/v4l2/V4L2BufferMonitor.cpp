// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2BufferMonitor.h>

#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/Trace.h>

#include "LoadTime.h"
#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-BufferMonitor")

#define MONITOR_PROPERTY(name) "persist.vendor.camera.corvane.V4L2BufferMonitor." name

namespace NSVista::NSCorvane {

namespace {

using Utils::Properties::property_get_bool;
using Utils::Properties::property_get_int32;

const bool sTraceBufWanted = diagnosticsWanted(sLogLevel, 3);

std::string nameWithAddress(const char* name, const void* address) {
    TextStream text;
    text << nameOrEmpty(name) << "-" << address;
    return text.str();
}

}  // namespace

std::shared_ptr<IV4L2BufferMonitor> IV4L2BufferMonitor::make(const char* name) try {
    return std::make_shared<V4L2BufferMonitor>(name);
}
CORVANE_NO_THROW

V4L2BufferMonitor::V4L2BufferMonitor(const char* name)
    : mName(nameWithAddress(name, this)),
      mConfigMode(property_get_int32(MONITOR_PROPERTY("configmode"), 0)),
      mTraceBuf(property_get_bool(MONITOR_PROPERTY("tracebuf"), false) ||
                (sTraceBufWanted && buildType() == BuildType::UserDebug)),
      mLogV(property_get_bool(MONITOR_PROPERTY("logv"), false)) {
    mPortObserverMap.max_load_factor(1.0F);
    mTraceBufferMap.max_load_factor(1.0F);
    mRequestDoneObservers.reserve(kReservedObservers);
    mTaken.reserve(kReservedObservers);
    CORVANE_LOGI("%s ctor - tracebuf:%d logv:%d", mName.c_str(), mTraceBuf, mLogV);
}

V4L2BufferMonitor::~V4L2BufferMonitor() {
    CORVANE_LOGI("%s dtor - %s %s", mName.c_str(), toString_runtime().c_str(),
                 toString_debugtrace().c_str());
}

uint32_t V4L2BufferMonitor::determineInqueBufferCount() const {
    return mQBufCount.load(std::memory_order_relaxed) - mDQBufCount.load(std::memory_order_relaxed);
}

uint32_t V4L2BufferMonitor::determineNeedToDQBUFCount() const {
    return mReqDoneCount.load(std::memory_order_relaxed) -
           mDQBufCount.load(std::memory_order_relaxed);
}

void V4L2BufferMonitor::attachObserver(const std::shared_ptr<IV4L2BufferObserver>& observer,
                                       int portIndex) try {
    const TraceSection section(area::kFormat, "V4L2BufferMonitor::attachObserver");
    if (mLogV)
        CORVANE_LOGI("(%#x, %p)", portIndex, static_cast<void*>(observer.get()));
    bool inserted = false;
    {
        const MutexLock lock(mObserverLock);
        const auto [entry, isNew] = mPortObserverMap.emplace(portIndex, nullptr);
        inserted = isNew;
        if (inserted) {
            entry->second = &mObservers.emplace_front(observer);
            if (static_cast<uint32_t>(portIndex) < kLowPorts)
                mLowPortObservers[portIndex].store(entry->second, std::memory_order_release);
        }
    }
    if (!inserted) {
        CORVANE_LOGE("(%#x, %p) has existed", portIndex, static_cast<void*>(observer.get()));
        CORVANE_LOGE("%s", toString_config().c_str());
        CORVANE_FATAL("FATAL");
    }
}
CORVANE_NO_THROW

void V4L2BufferMonitor::detachObserver(const std::shared_ptr<IV4L2BufferObserver>& observer,
                                       int portIndex) try {
    const TraceSection section(area::kFormat, "V4L2BufferMonitor::detachObserver");
    if (mLogV)
        CORVANE_LOGI("(%#x, %p)", portIndex, static_cast<void*>(observer.get()));
    size_t erased = 0;
    {
        const MutexLock lock(mObserverLock);
        erased = mPortObserverMap.erase(portIndex);
        if (static_cast<uint32_t>(portIndex) < kLowPorts)
            mLowPortObservers[portIndex].store(nullptr, std::memory_order_release);
    }
    if (erased == 0) {
        CORVANE_LOGE("(%#x, %p) hasn't existed", portIndex, static_cast<void*>(observer.get()));
        CORVANE_LOGE("%s", toString_config().c_str());
        CORVANE_FATAL("FATAL");
    }
}
CORVANE_NO_THROW

void V4L2BufferMonitor::attachRequestBuffer(int requestFd, unsigned int bufferIndex) try {
    const TraceSection section(area::kQueue, "attachRequestBuffer");
    if (mTraceBuf) {
        if (mLogV)
            CORVANE_LOGI("requestFd:%d bufferIndex:%u %s", requestFd, bufferIndex,
                         toString_runtime().c_str());
        bool inserted = false;
        {
            const MutexLock lock(mTraceLock);
            inserted = mTraceBufferMap[requestFd].insert(bufferIndex).second;
        }
        if (!inserted) {
            CORVANE_LOGE("requestFd:%d bufferIndex:%u existed", requestFd, bufferIndex);
            dumpToLog("[attachRequestBuffer] ");
            CORVANE_FATAL("FATAL");
        }
    }
    if (traceEnabled(area::kBufferLife))
        atrace_async_begin_body(NumberedTraceName(mName, '-', static_cast<int>(bufferIndex)).text(),
                                static_cast<int32_t>(bufferIndex));
    mQBufCount.fetch_add(1, std::memory_order_relaxed);
    if (traceEnabled(area::kBufferCounter))
        atrace_int_body(kTRACETAG_BufferCountInQue,
                        static_cast<int32_t>(determineInqueBufferCount()));
}
CORVANE_NO_THROW

void V4L2BufferMonitor::detachRequestBuffer(int requestFd, unsigned int bufferIndex) try {
    const TraceSection section(area::kDriverCall, "detachRequestBuffer");
    if (mTraceBuf) {
        if (mLogV)
            CORVANE_LOGI("requestFd:%d bufferIndex:%u %s", requestFd, bufferIndex,
                         toString_runtime().c_str());
        size_t erased = 0;
        {
            const MutexLock lock(mTraceLock);
            erased = mTraceBufferMap[requestFd].erase(bufferIndex);
        }
        if (erased == 0) {
            CORVANE_LOGE("requestFd:%d bufferIndex:%u not found", requestFd, bufferIndex);
            dumpToLog("[detachRequestBuffer] ");
            CORVANE_FATAL("FATAL");
        }
    }
    if (traceEnabled(area::kBufferLife))
        atrace_async_end_body(NumberedTraceName(mName, '-', static_cast<int>(bufferIndex)).text(),
                              static_cast<int32_t>(bufferIndex));
    mDQBufCount.fetch_add(1, std::memory_order_relaxed);
    if (traceEnabled(area::kBufferCounter))
        atrace_int_body(kTRACETAG_BufferCountInQue,
                        static_cast<int32_t>(determineInqueBufferCount()));
}
CORVANE_NO_THROW

void V4L2BufferMonitor::dumpToLog(const char* operation) const {
    Utils::ULog::ULogPrinter printer(log::kModule, kLogTag, Utils::ULog::kError, operation);
    dumpState(&printer);
}

int V4L2BufferMonitor::readyToRun(const std::string& threadName) {
    const int32_t policy = property_get_int32(MONITOR_PROPERTY("threadpolicy"), 0);
    const int32_t priority = property_get_int32(MONITOR_PROPERTY("threadpriority"), 6);
    Thread::setThreadPriority(Thread::getThisThread(), static_cast<Thread::Priority>(priority),
                              static_cast<Thread::Scheduler>(policy));
    if (threadName.empty())
        customizeThreadReadyToRun(kThreadName, sizeof(kThreadName) - 1);
    else
        customizeThreadReadyToRun(threadName.c_str(), threadName.size());
    kvxcam_perfctrl_set_affinity();
    return 0;
}

/**
 * Observers that are due and were not taken yet. Negative while some were taken before their
 * notifier raised the count.
 */
int32_t V4L2BufferMonitor::untakenCount() const {
    return static_cast<int32_t>(mReqDoneCount.load(std::memory_order_relaxed) - mTakenCount);
}

// Sleeps by what is queued for this thread, not by the counts' equality: what is dequeued on other
// threads makes them differ for good, or makes them equal while something is due.
bool V4L2BufferMonitor::threadLoop() try {
    const TraceSection section(area::kLifecycle, "threadLoop");
    CORVANE_LOGI("%s: + %s", mName.c_str(), toString_runtime().c_str());
    while (active()) {
        {
            const TraceSection waiting(area::kDriverCall, "wait_for needToDQBUF");
            MutexLock lock(mCountLock);
            while (untakenCount() <= 0 && active())
                mCondition.wait(lock);
        }
        notifyComplete();
    }
    CORVANE_LOGI("%s: - %s", mName.c_str(), toString_runtime().c_str());
    return false;
}
CORVANE_NO_THROW

void V4L2BufferMonitor::notifyComplete() {
    const TraceSection section(area::kDone, "V4L2BufferMonitor::notifyComplete");
    while ((needToDQBUF() || untakenCount() > 0) && active()) {
        const size_t count = takeObservers();
        if (count == 0) {
            CORVANE_LOGW("No Observer but needToDQBUF() - %s", toString_runtime().c_str());
            return;
        }
        const uint32_t before = mDQBufCount.load(std::memory_order_relaxed);
        callObservers();
        const uint32_t after = mDQBufCount.load(std::memory_order_relaxed);
        if (after - before < count)
            CORVANE_LOGE("After DQBUF, we expect %zu >= %zu + %zu, %s", size_t{after},
                         size_t{before}, count, toString_runtime().c_str());
        // The counts differ only until a notifier raises the one that it is about to raise.
        if (untakenCount() < 0)
            return;
    }
}

size_t V4L2BufferMonitor::takeObservers() {
    const MutexLock lock(mObserverLock);
    mTaken.swap(mRequestDoneObservers);
    mRequestDoneObservers.reserve(mTaken.capacity());  // they take turns: one grows for both
    mPendingObservers.store(0, std::memory_order_relaxed);
    mTakenCount += static_cast<uint32_t>(mTaken.size());
    return mTaken.size();
}

void V4L2BufferMonitor::callObservers() {
    constexpr const char* kOperation = "notifyComplete";
    for (size_t k = 0; k < mTaken.size(); ++k) {
        const auto observer = mTaken[k]->lock();
        if (observer == nullptr) {
            CORVANE_LOGW_AS(kOperation, "nullptr from weak_ptr::lock() for observer");
            continue;
        }
        if (mLogV)
            CORVANE_LOGI_AS(kOperation, "+ #%zu %s", k, toString_runtime().c_str());
        observer->onNotify(0);
        if (mLogV)
            CORVANE_LOGI_AS(kOperation, "- #%zu %s", k, toString_runtime().c_str());
    }
    mTaken.clear();
}

// Without the lock: the completion thread must not wait for the worker, and observers of high port
// indexes are neither attached nor detached while requests complete.
inline const V4L2BufferMonitor::Observer* V4L2BufferMonitor::findObserver(int portIndex) const
    CORVANE_NO_THREAD_SAFETY_ANALYSIS {
    if (static_cast<uint32_t>(portIndex) < kLowPorts)
        return mLowPortObservers[portIndex].load(std::memory_order_acquire);
    const auto found = mPortObserverMap.find(portIndex);
    return found != mPortObserverMap.end() ? found->second : nullptr;
}

void V4L2BufferMonitor::notifyRequestDone(int requestFd, int* portIndexes, size_t count) try {
    const TraceSection section(area::kDone, [&] {
        return NumberedTraceName("V4L2BufferMonitor::notifyRequestDone|requestFd", ':', requestFd);
    });
    if (mLogV)
        CORVANE_LOGI("requestFd:%d portIndexNum:%zu - %s", requestFd, count,
                     toString_runtime().c_str());
    if (count == 0)
        CORVANE_FATAL("requestFd:%d without buffer passed - %s %s", requestFd,
                      toString_runtime().c_str(), toString_debugtrace().c_str());
    if (mConfigMode == 0 && (count == 1 || mDirectDequeue)) {
        for (size_t i = 0; i < count; ++i)
            notifyDirectly(portIndexes[i]);
        return;
    }
    int unknownIndex = 0;
    if (!queueObservers(portIndexes, count, unknownIndex)) {
        // The fixed name of the line: this was a function within a function once.
        CORVANE_LOGE_AS("operator()", "port index:%#x doesn't existed", unknownIndex);
        CORVANE_LOGE("%s", toString_config().c_str());
        CORVANE_FATAL("FATAL");
    }
    {
        const MutexLock lock(mCountLock);
        mReqDoneCount.fetch_add(static_cast<uint32_t>(count), std::memory_order_relaxed);
    }
    mCondition.notifyOne();
}
CORVANE_NO_THROW

void V4L2BufferMonitor::notifyDirectly(int portIndex) {
    constexpr const char* kOperation = "notifyRequestDone";
    const Observer* found = findObserver(portIndex);
    if (found == nullptr)
        CORVANE_FATAL_AS(kOperation, "port index:%#x doesn't existed", portIndex);
    const auto observer = found->lock();
    if (observer == nullptr)
        CORVANE_FATAL_AS(kOperation, "Bad observer");
    observer->onNotify(0);
}

bool V4L2BufferMonitor::queueObservers(const int* portIndexes, size_t count, int& unknownIndex) {
    const MutexLock lock(mObserverLock);
    bool known = true;
    for (size_t i = 0; i < count && known; ++i) {
        const Observer* found = findObserver(portIndexes[i]);
        known = found != nullptr;
        if (known)
            mRequestDoneObservers.push_back(found);
        else
            unknownIndex = portIndexes[i];
    }
    mPendingObservers.store(mRequestDoneObservers.size(), std::memory_order_relaxed);
    return known;
}

void V4L2BufferMonitor::requestExit() {
    const TraceSection section(area::kLifecycle, "V4L2BufferMonitor::requestExit");
    CORVANE_LOGI("%s: + %s", mName.c_str(), toString_runtime().c_str());
    {
        const MutexLock lock(mCountLock);
        mActive.store(false, std::memory_order_relaxed);
    }
    mCondition.notifyOne();
    CORVANE_LOGI("%s: - %s", mName.c_str(), toString_runtime().c_str());
}

void V4L2BufferMonitor::dumpState(IPrinter* printer) const try {
    printer->printFormatLine("V4L2BufferMonitor:%s mode:%d tracebuf:%d logv:%d %s", mName.c_str(),
                             mConfigMode, mTraceBuf, mLogV, toString_runtime().c_str());
    printer->printFormatLine("    %s", toString_config().c_str());
    printer->printFormatLine("    %s", toString_debugtrace().c_str());
}
CORVANE_NO_THROW

std::string V4L2BufferMonitor::toString_runtime() const {
    TextStream text;
    text << "{ #DQBUF=" << mDQBufCount.load(std::memory_order_relaxed)
         << " #ReqDone=" << mReqDoneCount.load(std::memory_order_relaxed)
         << " #QBUF=" << mQBufCount.load(std::memory_order_relaxed)
         << " #mRequestDoneObservers=" << mPendingObservers.load(std::memory_order_relaxed)
         << " .mActive=" << active() << " }";
    return text.str();
}

std::string V4L2BufferMonitor::toString_config() const {
    std::vector<int32_t> ports;
    {
        const MutexLock lock(mObserverLock);
        for (const auto& [port, observer] : mPortObserverMap)
            ports.push_back(port);
    }
    TextStream text;
    text << "mPortObserverMap[" << ports.size() << "]={" << std::hex << std::showbase;
    for (const int32_t port : ports)
        text << " (" << port << ")";
    text << " }";
    return text.str();
}

std::string V4L2BufferMonitor::toString_debugtrace() const {
    if (!mTraceBuf)
        return {};
    std::unordered_map<int32_t, std::unordered_set<uint32_t>> buffers;
    {
        const MutexLock lock(mTraceLock);
        buffers = mTraceBufferMap;
    }
    TextStream text;
    text << "mTraceBufferMap={";
    for (const auto& [fd, indexes] : buffers)
        for (const uint32_t index : indexes)
            text << " " << fd << "-" << index;
    text << " }";
    return text.str();
}

}  // namespace NSVista::NSCorvane
