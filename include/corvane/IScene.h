// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A scene: ports and links that stream together.
 */
#pragma once

#include <time.h>

#include <cstddef>
#include <functional>
#include <memory>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

class IPort;
class IRequest;
struct PixelFormat;

/** When a scene last streamed on and off, on the log clock; zero before the first time. */
struct SceneDebugInfo {
    struct timespec streamOnBegin;
    struct timespec streamOnEnd;
    struct timespec streamOffBegin;
    struct timespec streamOffEnd;
};

/**
 * A set of ports and links that stream together.
 *
 * Order of a scene's life: init, acquire(), formats and buffer import, start(), requests, stop(),
 * release(), uninit. A scene is started once; drain its requests, or take the event monitor away,
 * before stop(). A call in the wrong state returns -1 and changes nothing, except acquire() and
 * release(), which are fatal then. start() and stop() exclude each other; queueRequest() may be
 * called from any thread meanwhile, and dumpState() and the getters beside anything.
 */
class CORVANE_EXPORT IScene {
public:
    virtual ~IScene();
    /** Prints the scene, its buffer monitor and its ports. Any thread. */
    virtual void dumpState(IPrinter* printer) const = 0;
    virtual std::shared_ptr<SceneDebugInfo> getDebugInfo() const = 0;
    /**
     * Sets who is told of completed requests. Before start(), not locked. The callback runs on the
     * event monitor's thread; it may touch the finished request only.
     */
    virtual void setRequestDoneCallback(std::function<void(IRequest*)> callback) = 0;
    virtual size_t getNumOfPorts() const = 0;
    /** Calls @p visit for each port until it returns false. An empty function is fatal. */
    virtual void iteratePorts(std::function<bool(std::shared_ptr<IPort>)> visit) = 0;
    /** Makes a request. The media device must be acquired; the scene must outlive the request. */
    virtual std::shared_ptr<IRequest> createRequest() = 0;
    /** IDLE to ACQUIRED. @return 0. */
    virtual int acquire() = 0;
    /** ACQUIRED to IDLE. @return 0. */
    virtual int release() = 0;
    /** IPort::getFormat() in ACQUIRED. @return -1 in another state. A null port is fatal. */
    virtual int getFormat(const std::shared_ptr<IPort>& port, PixelFormat& format) const = 0;
    /** IPort::setFormat() in ACQUIRED. @return -1 in another state. A null port is fatal. */
    virtual int setFormat(const std::shared_ptr<IPort>& port, PixelFormat& format) = 0;
    /** IPort::importBuffer() in ACQUIRED. @return -1 in another state. A null port is fatal. */
    virtual int importBuffer(const std::shared_ptr<IPort>& port, int count) = 0;
    /**
     * ACQUIRED to STARTED: starts the buffer monitor's thread, then VIDIOC_STREAMON on every port,
     * under a time guard. A refused stream-on is reported and ends the service. The handlers of
     * reports and of the service's end run under the lock that orders start() and stop(): they must
     * not call either of this scene, nor make its choices.
     * @return 0, or -1 in another state. Fatal when the system has no thread to give.
     */
    virtual int start() = 0;
    /**
     * STARTED to ACQUIRED: VIDIOC_STREAMOFF on every port, under a time guard, then joins the
     * buffer monitor's thread: not to be called on that thread. Requests still with the driver are
     * told in a warning. What start() says of handlers holds here as well.
     * @return 0, or -1 in another state.
     */
    virtual int stop() = 0;
    /**
     * Queues a filled request; may block while a port has no free buffer index.
     * @param request must not be null (fatal).
     * @param argument handed on to every device.
     * @return 0, -1 unless STARTED, or the status of the buffer that could not be queued: then stop
     *         the scene and build a new one.
     */
    virtual int queueRequest(IRequest* request, int argument) = 0;
};

}  // namespace NSVista::NSCorvane
