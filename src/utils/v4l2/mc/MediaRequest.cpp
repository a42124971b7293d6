#include <corvane/IRequest.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/ReqTrack.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <sys/epoll.h>

#include "Stamp.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-MediaDevice")

namespace NSVista::NSCorvane::mc {

namespace {

/** A completed request raises priority data; the watch disarms after each report. */
constexpr uint32_t kWatchedEvents = static_cast<uint32_t>(EPOLLPRI) | EPOLLONESHOT;
constexpr int kSubflow = 3;

}  // namespace

MediaRequest::MediaRequest(int mediaFd)
    : mFd(System::AllocMediaRequest(mediaFd, reinterpret_cast<unsigned long>(this))) {
    if (mFd < 0)
        CORVANE_FATAL("Bad request fd < 0");
    mDebugInfo = std::make_shared<RequestDebugInfo>();
}

MediaRequest::~MediaRequest() {
    const TraceSection section(area::kLifecycle,
                               CORVANE_TRACE_NAME("MediaRequest::~MediaRequest close fd=%d", mFd));
    if (const auto monitor = mMonitor.lock())
        monitor->detachObserver(this);
    if (mFd != -1) {
        System::Close(mFd, reinterpret_cast<unsigned long>(this));
        mFd = -1;
    }
}

int MediaRequest::setMonitor(const std::shared_ptr<IEventMonitor>& monitor) {
    if (const auto previous = mMonitor.lock())
        previous->detachObserver(this);
    mMonitor = monitor;
    if (monitor != nullptr)
        monitor->attachObserver(this, kWatchedEvents);
    return 0;
}

int MediaRequest::queueRequest() {
    const TraceSection section(area::kQueueRequest, "MediaRequest::queueRequest");
    reqtrack::enqueToSubmodule(mTrackBuffer, kSubflow);
    if (const int32_t previous = mState.exchange(kQueuing); previous != kIdle)
        CORVANE_FATAL("Bad media request state:%d -> QUEUING", previous);
    stampLogTime(mDebugInfo->queueStart);
    reqtrack::enqueToKernel(mTrackBuffer);
    if (const int ret = System::QueueMediaRequest(mFd); ret < 0) {
        mState.store(kFailed);
        CORVANE_LOGE("Failed to queue media request(%d): %d", mFd, ret);
        return ret;
    }
    reqtrack::enqueFromKernelToSubmodule(mTrackBuffer, kSubflow);
    stampLogTime(mDebugInfo->queued);
    mState.store(kQueued, std::memory_order_release);
    const auto monitor = mMonitor.lock();
    if (monitor == nullptr)
        CORVANE_FATAL("Bad monitor");
    monitor->rearmObserver(this, kWatchedEvents);
    return 0;
}

void MediaRequest::onEvent(const OnEvent& event) {
    const TraceSection section(area::kDriverCall, "MediaRequest::onNotify");
    if ((event.events & EPOLLERR) != 0) {
        // An idle request reports an error by its nature.
        if (mState.load() != kIdle)
            CORVANE_LOGE(
                "EPOLLERR: fd=%d with originally-set events=%#x is reporting events=%#x with "
                "EPOLLERR.",
                mFd, kWatchedEvents, event.events);
        return;
    }
    if ((event.events & kWatchedEvents) == 0) {
        CORVANE_LOGI("Unwanted events: fd=%d events(wanted/reported)=(%#x/%#x)", mFd,
                     kWatchedEvents, event.events);
        return;
    }
    stampLogTime(mDebugInfo->done);
    reqtrack::doneFromKernelToSubmodule(mTrackBuffer, kSubflow);
    mState.store(kDone, std::memory_order_release);
    reinit();
    if (!mRequestDone)
        CORVANE_FATAL("No request done callback");
    const TraceSection callback(area::kDriverCall, "MediaRequest: request done callback");
    mRequestDone();
}

bool MediaRequest::reinit() {
    const TraceSection section(area::kDone, "MediaRequest::reinit");
    if (mState.load(std::memory_order_acquire) == kIdle)
        return true;
    int ret = 0;
    {
        const TraceSection call(area::kDriverCall, "MediaRequest: MEDIA_REQUEST_IOC_REINIT");
        ret = System::ReinitMediaRequest(mFd);
    }
    if (ret < 0)
        CORVANE_FATAL("Failed to reinit media request: %d", ret);
    mState.store(kIdle, std::memory_order_release);
    return true;
}

}  // namespace NSVista::NSCorvane::mc
