// SPDX-License-Identifier: Apache-2.0
#include <corvane/IRequest.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/ReqTrack.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <sys/epoll.h>

#include <algorithm>
#include <cstring>

#include "DriverCall.h"
#include "Stamp.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-MediaDevice")

namespace NSVista::NSCorvane::mc {

namespace {

/** A completed request raises priority data; the watch disarms after each report. */
constexpr uint32_t kWatchedEvents = static_cast<uint32_t>(EPOLLPRI) | EPOLLONESHOT;
constexpr int kSubflow = 3;

/** Stamps a station where a request is tracked; most are not. */
template <class... Subflow>
void track(void (*station)(unsigned long*, Subflow...), unsigned long* buffer, Subflow... subflow) {
    if (buffer != nullptr)
        station(buffer, subflow...);
}

}  // namespace

MediaRequest::MediaRequest(int mediaFd) try
    : mFd(System::AllocMediaRequest(mediaFd, ownerToken(this))) {
    if (mFd < 0)
        CORVANE_FATAL("Bad request fd < 0");
    mDebugInfo = std::make_shared<RequestDebugInfo>();
}
CORVANE_NO_THROW

MediaRequest::~MediaRequest() try {
    const TraceSection section(area::kLifecycle,
                               CORVANE_TRACE_NAME("MediaRequest::~MediaRequest close fd=%d", mFd));
    if (const auto monitor = mMonitor.lock())
        monitor->detachObserver(this);
    if (mFd != -1) {
        System::Close(mFd, ownerToken(this));
        mFd = -1;
    }
}
CORVANE_NO_THROW

int MediaRequest::setMonitor(const std::shared_ptr<IEventMonitor>& monitor) try {
    if (const auto previous = mMonitor.lock())
        previous->detachObserver(this);
    mMonitor = monitor;
    mWatched = monitor != nullptr ? monitor->attachObserver(this, kWatchedEvents) : 0;
    if (mWatched < 0)
        CORVANE_LOGE("%s cannot watch request fd=%d, so it cannot be queued: %d(%s)",
                     monitor->getThreadName(), mFd, mWatched, strerror(-mWatched));
    return std::min(mWatched, 0);
}
CORVANE_NO_THROW

int MediaRequest::queueRequest() try {
    const TraceSection section(area::kQueueRequest, "MediaRequest::queueRequest");
    unsigned long* const tracked = mTrackBuffer.load(std::memory_order_relaxed);
    track(reqtrack::enqueToSubmodule, tracked, kSubflow);
    if (const int32_t previous = mState.exchange(kQueuing); previous != kIdle)
        CORVANE_FATAL("Bad media request state:%d -> QUEUING", previous);
    stampLogTime(mDebugInfo->queueStart);
    track(reqtrack::enqueToKernel, tracked);
    // What nobody watches must not reach the driver: its completion would never be reported.
    if (const int ret = mWatched < 0 ? mWatched : System::QueueMediaRequest(mFd); ret < 0) {
        mState.store(kFailed);
        CORVANE_LOGE("Failed to queue media request(%d): %d", mFd, ret);
        return ret;
    }
    track(reqtrack::enqueFromKernelToSubmodule, tracked, kSubflow);
    stampLogTime(mDebugInfo->queued);
    mState.store(kQueued, std::memory_order_release);
    const auto monitor = mMonitor.lock();
    if (monitor == nullptr)
        CORVANE_FATAL("Bad monitor");
    if (const int ret = monitor->rearmObserver(this, kWatchedEvents); ret < 0)
        CORVANE_LOGE(
            "Request fd=%d is queued, but %s cannot watch it: its completion will not be "
            "reported: %d(%s)",
            mFd, monitor->getThreadName(), ret, strerror(-ret));
    return 0;
}
CORVANE_NO_THROW

void MediaRequest::onEvent(const OnEvent& event) try {
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
    track(reqtrack::doneFromKernelToSubmodule, mTrackBuffer.load(std::memory_order_relaxed),
          kSubflow);
    mState.store(kDone, std::memory_order_release);
    reinit();
    if (!mRequestDone)
        CORVANE_FATAL("No request done callback");
    const TraceSection callback(area::kDriverCall, "MediaRequest: request done callback");
    mRequestDone();
}
CORVANE_NO_THROW

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
