// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The buffer queue of a video node.
 */
#pragma once

#include <linux/videodev2.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <corvane/sim/Description.h>

#include "Connectors.h"
#include "Controls.h"
#include "Format.h"
#include "Locks.h"
#include "Mapping.h"
#include "Request.h"

namespace NSVista::NSCorvane::sim {

/** Most buffers that a queue can be told to grant, and most planes that a format has. */
inline constexpr uint32_t kQueueCapacity = 64;
inline constexpr uint32_t kPicturePlanes = VIDEO_MAX_PLANES;

/**
 * A video node's format and buffers, which outlive its descriptors. It keeps to the rules of the
 * kernel's own queues, the odd ones included: see the comments. An owner is the address of the open
 * file that requested the buffers.
 */
class BufferQueue {
public:
    BufferQueue(DeviceCore& device, const EntityDesc& entity, size_t entityIndex, uint32_t ordinal);
    BufferQueue(const BufferQueue&) = delete;
    BufferQueue& operator=(const BufferQueue&) = delete;

    /** @name Ioctls. Results are 0 or a negated errno.
     * @{ */
    int setFormat(v4l2_format& format) CORVANE_REQUIRES(deviceState);
    int setParameters(v4l2_streamparm& parameters) CORVANE_REQUIRES(deviceState) {
        return mFormat.setParameters(parameters);
    }
    int requestBuffers(DeviceLock& lock, const void* owner, v4l2_requestbuffers& request)
        CORVANE_REQUIRES(deviceState);
    /** @param request the media request that the buffer names, null for none. */
    int queueBuffer(const void* owner, v4l2_buffer& buffer, std::shared_ptr<Request> request)
        CORVANE_REQUIRES(deviceState);
    int dequeueBuffer(DeviceLock& lock, const void* owner, v4l2_buffer& buffer, bool nonBlocking)
        CORVANE_REQUIRES(deviceState);
    int streamOn(const void* owner, uint32_t type) CORVANE_REQUIRES(deviceState);
    int streamOff(DeviceLock& lock, const void* owner, uint32_t type) CORVANE_REQUIRES(deviceState);
    /** @} */
    /** An open file is closed: its owner's buffers go. */
    void release(DeviceLock& lock, const void* owner) CORVANE_REQUIRES(deviceState);

    /** @name What a media request does with its buffers
     * @{ */
    /** Takes hold of the planes' dma-bufs and checks them. */
    int prepare(uint32_t index) CORVANE_REQUIRES(deviceState);
    /** Hands a prepared buffer to the engine. */
    void enqueue(uint32_t index) CORVANE_REQUIRES(deviceState);
    /** Takes a buffer out of a request that is not queued. */
    void abandon(uint32_t index) CORVANE_REQUIRES(deviceState);
    /** @} */

    /** @name What the engine sees and does
     * @{ */
    bool streaming() const CORVANE_REQUIRES(deviceState) { return mStreaming; }
    size_t entity() const { return mEntity; }
    bool capture() const { return !v4l2::isOutput(mVideo.bufType); }
    uint32_t role() const { return mVideo.role; }
    uint32_t ordinal() const { return mOrdinal; }
    /**
     * First byte of a plane, and the picture, of a buffer that the engine has. No lock is needed:
     * until the engine gives it back nobody changes its planes or the format.
     */
    uint8_t* planeData(uint32_t index, uint32_t plane) const CORVANE_NO_THREAD_SAFETY_ANALYSIS;
    /** Of nothing that can be drawn the picture has no format. */
    vengine_picture picture(uint32_t index) const CORVANE_NO_THREAD_SAFETY_ANALYSIS;
    /** How the planes lie in memory; as with the picture. */
    const LayoutDesc& layout() const CORVANE_NO_THREAD_SAFETY_ANALYSIS { return mFormat.layout(); }
    /** Ends the processing of a buffer, whose request still has to be told. */
    void complete(uint32_t index, bool good, const timespec& time) CORVANE_REQUIRES(deviceState);
    /** @} */

    /** @name The node's controls
     * @{ */
    const Controls& controls() const { return mControls; }
    const ControlValues& controlValues() const CORVANE_REQUIRES(deviceState) {
        return mControlValues;
    }
    /** Takes over those values that there are. */
    void setControls(const SomeControlValues& values) CORVANE_REQUIRES(deviceState);
    /** What the brightness control adds to the luma, 0 without it. */
    int32_t brightness() const CORVANE_REQUIRES(deviceState);
    /** @} */

    const std::string& name() const { return mName; }
    const VideoDesc& video() const { return mVideo; }
    /** The queue's of a buffer type; of a type that the node has not the first one, to refuse it.
     */
    const Format& formatOf(uint32_t type) const CORVANE_REQUIRES(deviceState) {
        return isSecond(type) ? *mSecondFormat : mFormat;
    }
    /** The first queue's that offers a format, where the call names no queue. */
    const Format& formatWith(uint32_t fourcc) const CORVANE_REQUIRES(deviceState) {
        return mSecondFormat && !mFormat.offers(fourcc) ? *mSecondFormat : mFormat;
    }
    Connectors& connectors() CORVANE_REQUIRES(deviceState) { return mConnectors; }
    uint64_t remaps() const CORVANE_REQUIRES(deviceState) { return mRemaps; }
    size_t mappedPlanes() const CORVANE_REQUIRES(deviceState);

private:
    enum class State {
        DEQUEUED,
        IN_REQUEST,
        QUEUED,
        DONE,
        ERROR,
    };
    struct Plane {
        int fd = 0;
        uint32_t length = 0;
        uint32_t bytesUsed = 0;
        uint32_t dataOffset = 0;
        uint32_t offset = 0;  ///< of the plane in its dma-buf, from the reserved words
    };
    struct Buffer {
        State state = State::DEQUEUED;
        /** The dma-bufs below are those of the last QBUF; a new QBUF's planes are not looked at. */
        bool prepared = false;
        bool bound = false;  ///< among the buffers of `request`
        std::shared_ptr<Request> request;
        int requestFd = -1;
        uint32_t sequence = 0;
        timeval timestamp = {};
        std::array<Plane, kPicturePlanes> given;   ///< as the last QBUF named them
        std::array<Plane, kPicturePlanes> planes;  ///< as prepared
        std::array<Mapping, kPicturePlanes> mappings;
        Job job;  ///< of a buffer without a request
    };

    bool isSecond(uint32_t type) const {
        return !mVideo.secondQueue.empty() && mVideo.secondQueue.front().bufType == type;
    }
    int grantOfSecond(v4l2_requestbuffers& request) const;
    bool busyFor(const void* owner) const CORVANE_REQUIRES(deviceState) {
        return mOwner != nullptr && mOwner != owner;
    }
    int checkPlanes(const v4l2_buffer& buffer) const CORVANE_REQUIRES(deviceState);
    int checkRequestUse(bool withRequest) const CORVANE_REQUIRES(deviceState);
    int takePlanes(const v4l2_buffer& buffer, Buffer& into) const CORVANE_REQUIRES(deviceState);
    int mapPlanes(Buffer& buffer) CORVANE_REQUIRES(deviceState);
    void fill(const Buffer& buffer, v4l2_buffer& user) const CORVANE_REQUIRES(deviceState);
    void cancel(DeviceLock& lock) CORVANE_REQUIRES(deviceState);
    uint32_t bufferLimit() const CORVANE_REQUIRES(deviceState);

    DeviceCore& mDevice;
    const std::string mName;
    const size_t mEntity;
    const VideoDesc mVideo;
    const uint32_t mOrdinal;
    Format mFormat CORVANE_GUARDED_BY(deviceState);
    std::optional<Format> mSecondFormat CORVANE_GUARDED_BY(deviceState);
    Connectors mConnectors CORVANE_GUARDED_BY(deviceState);
    const void* mOwner CORVANE_GUARDED_BY(deviceState) = nullptr;
    std::vector<Buffer> mBuffers CORVANE_GUARDED_BY(deviceState);
    std::array<uint32_t, kQueueCapacity> mDone
        CORVANE_GUARDED_BY(deviceState);  ///< ring of indexes
    uint32_t mDoneFirst CORVANE_GUARDED_BY(deviceState) = 0;
    uint32_t mDoneCount CORVANE_GUARDED_BY(deviceState) = 0;
    bool mStreaming CORVANE_GUARDED_BY(deviceState) = false;
    uint32_t mSequence CORVANE_GUARDED_BY(deviceState) = 0;  ///< of the next buffer that is done
    bool mUsesRequests CORVANE_GUARDED_BY(deviceState) = false;
    bool mUsesPlain CORVANE_GUARDED_BY(deviceState) = false;
    const Controls mControls;
    const std::optional<size_t> mBrightness;  ///< place of that control
    ControlValues mControlValues CORVANE_GUARDED_BY(deviceState);
    uint64_t mRemaps CORVANE_GUARDED_BY(deviceState) = 0;
};

}  // namespace NSVista::NSCorvane::sim
