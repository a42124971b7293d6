// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A V4L2 video node.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <corvane/IV4L2BufferMonitor.h>
#include <corvane/V4L2.h>
#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane {

class IMediaDevice;
class IMediaRequest;

/** One buffer of a client. */
struct FrameBuffer {
    static constexpr size_t kMaxPlanes = 3;

    struct Plane {
        int32_t fd;        ///< dma-buf; must stay open until the request is queued
        uint32_t offset;   ///< bytes, where the plane begins in the dma-buf
        uint32_t bufsize;  ///< bytes
    };

    Plane planes[kMaxPlanes];
    size_t planeCount;  ///< valid entries of planes
};

/**
 * A V4L2 video node as one port uses it.
 *
 * Open, close, format, import and streaming calls are serialised by the owner; queueBuffer() runs
 * on client threads while dequeBuffer() runs on a completion or the buffer monitor's thread;
 * dumpState() may run beside anything. Destroying an open device is fatal. Results are 0 or the
 * negated errno unless noted; "reported and ends the service" is said of refusals that leave the
 * driver in an unknown state, which are returned all the same.
 */
class CORVANE_EXPORT IV4L2VideoDevice : public IV4L2BufferObserver {
public:
    /**
     * Makes a device over the node of an entity; does not open it.
     * @return never empty: an entity without node shows in openDevice().
     */
    static std::shared_ptr<IV4L2VideoDevice> make(IMediaDevice& media, const std::string& name,
                                                  const std::string& entityName, int portIndex);

    /** Prints a line, once a buffer was queued; nothing before. */
    virtual void dumpState(IPrinter* printer) const = 0;
    /** Sets the buffer monitor, held weakly, and attaches to it; null only forgets. @return 0. */
    virtual int setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor) = 0;
    /**
     * Opens the node and reads its class (VIDIOC_QUERYCAP).
     * @return also -EEXIST when it is open, -EINVAL for a node without streaming or of no known
     *         class; the node stays open then.
     */
    virtual int openDevice() = 0;
    /** @return also -EINVAL when it is closed. */
    virtual int closeDevice() = 0;
    /**
     * VIDIOC_G_FMT. A refusal is reported and ends the service.
     * @param[out] format untouched on failure.
     */
    virtual int getFormat(PixelFormat& format) = 0;
    /**
     * VIDIOC_S_FMT. A refusal is reported and ends the service.
     * @param[in,out] format what the driver made of it, whose sizes buffers must have. Of a
     *        single-plane node the size is the driver's alone.
     */
    virtual int setFormat(PixelFormat& format) = 0;
    /**
     * VIDIOC_REQBUFS for dma-bufs. A refusal is reported and ends the service.
     * @param count 0 to 64; more is fatal. After 0 the next queueBuffer() is fatal.
     * @return also -EINVAL for a negative count, before anything changes; -ENOMEM when the driver
     *         grants fewer. After a failure all of @p count indexes count as free nevertheless.
     */
    virtual int importBuffer(int count) = 0;
    /** VIDIOC_STREAMON. */
    virtual int streamOn() = 0;
    /**
     * VIDIOC_STREAMOFF; on success ends waits for a free index, and detaches from the buffer
     * monitor for good.
     */
    virtual int streamOff() = 0;
    /**
     * VIDIOC_QBUF at the lowest free index; blocks while none is free.
     * @param request binds the buffer; required of a monitored port (fatal without).
     * @return also -EINVAL for more than FrameBuffer::kMaxPlanes planes, and -EPIPE when the node
     *         streams off while no index is free; no index is taken then. An index whose
     *         VIDIOC_QBUF was refused stays taken.
     */
    virtual int queueBuffer(const FrameBuffer& buffer, IMediaRequest* request, int argument) = 0;
    /**
     * VIDIOC_DQBUF, tried ten times while no buffer is ready; the buffer's index is free then.
     * @return 0, or -1 for a buffer in error (V4L2_BUF_FLAG_ERROR) or a failure, after which the
     *         index stays taken. Fatal on a monitored port for a buffer that no request has bound.
     */
    virtual int dequeBuffer() = 0;
};

}  // namespace NSVista::NSCorvane
