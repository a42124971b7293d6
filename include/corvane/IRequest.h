// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A request: buffers of several ports that are queued and completed together.
 */
#pragma once

#include <time.h>

#include <functional>
#include <memory>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane {

class IEventMonitor;
struct FrameBuffer;

/**
 * Times of a request's last cycle, on the log clock; zero where not passed. The library stamps
 * three of them; the others are the client's to fill. Written field by field while a request is
 * under way: read it when the request is done.
 */
struct RequestDebugInfo {
    struct timespec created;     ///< A: the client began to build the request
    struct timespec filled;      ///< B: the client has filled all buffers
    struct timespec queueStart;  ///< C: the media request is about to be queued
    struct timespec queued;      ///< D: the kernel has taken the media request
    struct timespec done;        ///< E: the completion was seen
    struct timespec reported;    ///< F: the client was told
    struct timespec consumed;    ///< G: the client has used the buffers
    struct timespec released;    ///< H: the client has given the buffers back
};

/**
 * One reusable unit of work of a scene.
 *
 * A cycle is: addBuffer() for every port, IScene::queueRequest(), the done callback. The client's
 * thread fills and queues; the completion runs on the event monitor's thread. From the done
 * callback on the request may be filled again, also from inside it. A request remembers every port
 * that was ever added to it: refill them all in each cycle. toString() and the getters may be
 * called on any thread beside the cycle. Client functions must not throw: it is fatal.
 */
class CORVANE_EXPORT IRequest {
public:
    virtual ~IRequest();
    virtual std::string toString() const = 0;
    virtual std::shared_ptr<RequestDebugInfo> getDebugInfo() const = 0;
    /** Descriptor of the media request. */
    virtual int getRequestFD() const = 0;
    /** 0: a normal completion. */
    virtual int getStatus() const = 0;
    virtual void* getCookie() const = 0;
    /** The client's own pointer, carried from queueing to the done callback. Orders nothing. */
    virtual void setCookie(void* cookie) = 0;
    virtual unsigned long* getTrackBuffer() const = 0;
    /** @param track reqtrack::kTrackBufferWords words, not owned; null for none. */
    virtual void setTrackBuffer(unsigned long* track) = 0;
    /**
     * Sets who watches for the completion; held weakly, must live while requests are under way.
     * Before the first queueing.
     * @return 0.
     */
    virtual int setMonitor(const std::shared_ptr<IEventMonitor>& monitor) = 0;
    /**
     * Adds one port's buffer to this cycle; spins while the previous cycle ends. A wait of three
     * seconds or more, of a request still under way, is told in an error line each second.
     * @param portIndex a port of the scene.
     * @param fill writes the buffer in place; called before the return. Empty is fatal.
     * @return 0. A second buffer for a port in one cycle is fatal.
     */
    virtual int addBuffer(int portIndex, std::function<void(FrameBuffer&)> fill) = 0;
    /**
     * Queues the buffers (VIDIOC_QBUF) and the media request (MEDIA_REQUEST_IOC_QUEUE). Clients
     * call IScene::queueRequest(), which checks the scene's state.
     * @param argument handed on to every device.
     * @return 0 or the status of the first buffer that could not be queued; a media request that
     *         cannot be queued is fatal.
     */
    virtual int queueRequest(int argument) = 0;
};

}  // namespace NSVista::NSCorvane
