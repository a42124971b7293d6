// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A media request: the kernel object behind a request.
 */
#pragma once

#include <functional>
#include <memory>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane {

class IEventMonitor;
struct RequestDebugInfo;

/** One request of the Media Request API. */
class CORVANE_EXPORT IMediaRequest {
public:
    virtual ~IMediaRequest();
    virtual std::shared_ptr<RequestDebugInfo> getDebugInfo() const = 0;
    virtual unsigned long* getTrackBuffer() const = 0;
    /**
     * @param track reqtrack::kTrackBufferWords words for the times of the request's stations, not
     *        owned, valid until it is replaced; null for none. Not while the request is queued.
     */
    virtual void setTrackBuffer(unsigned long* track) = 0;
    virtual int getRequestFD() const = 0;
    /** Sets what a completion calls, on the event monitor's thread. Before queueRequest(). */
    virtual void setRequestDone(std::function<void()> done) = 0;
    /**
     * Sets who watches for the completion, held weakly, and attaches to it. A live previous monitor
     * is detached from first; null only forgets.
     * @return 0, or the negated errno of a monitor that cannot watch the request (logged); every
     *         queueRequest() then fails with it, until another monitor is set.
     */
    virtual int setMonitor(const std::shared_ptr<IEventMonitor>& monitor) = 0;
    /**
     * MEDIA_REQUEST_IOC_QUEUE, then arms the watch. Fatal unless the request is idle and its
     * monitor is alive. A watch that cannot be armed is logged: the request runs, but its
     * completion is not reported.
     * @return 0 or the negated errno.
     */
    virtual int queueRequest() = 0;
};

}  // namespace NSVista::NSCorvane
