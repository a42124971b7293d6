/**
 * @file
 * The buffer queue of a video node.
 */
#pragma once

#include <linux/videodev2.h>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <corvane/sim/Description.h>

#include "Format.h"
#include "Mapping.h"
#include "Request.h"

namespace NSVista::NSCorvane::sim {

inline constexpr uint32_t kMaxBuffers = 64;
inline constexpr uint32_t kMaxPlanes = 3;

/**
 * A video node's format and buffers, which outlive its descriptors. It keeps to the rules of the
 * kernel's own queues, the odd ones included: see the comments. Everything is guarded by the
 * device's mutex; an owner is the address of the open file that requested the buffers.
 */
class BufferQueue {
public:
    BufferQueue(DeviceCore& device, const EntityDesc& entity, size_t entityIndex, uint32_t ordinal);
    BufferQueue(const BufferQueue&) = delete;
    BufferQueue& operator=(const BufferQueue&) = delete;

    /** @name Ioctls. Results are 0 or a negated errno.
     * @{ */
    int setFormat(v4l2_format& format);
    int requestBuffers(std::unique_lock<std::mutex>& lock, const void* owner,
                       v4l2_requestbuffers& request);
    /** @param request the media request that the buffer names, null for none. */
    int queueBuffer(const void* owner, v4l2_buffer& buffer, std::shared_ptr<Request> request);
    int dequeueBuffer(std::unique_lock<std::mutex>& lock, const void* owner, v4l2_buffer& buffer,
                      bool nonBlocking);
    int streamOn(const void* owner, uint32_t type);
    int streamOff(std::unique_lock<std::mutex>& lock, const void* owner, uint32_t type);
    /** @} */
    /** An open file is closed: its owner's buffers go. */
    void release(std::unique_lock<std::mutex>& lock, const void* owner);

    /** @name What a media request does with its buffers
     * @{ */
    /** Takes hold of the planes' dma-bufs and checks them. */
    int prepare(uint32_t index);
    /** Hands a prepared buffer to the engine. */
    void enqueue(uint32_t index);
    /** Takes a buffer out of a request that is not queued. */
    void abandon(uint32_t index);
    /** @} */

    /** @name What the engine sees and does
     * @{ */
    bool streaming() const { return mStreaming; }
    size_t entity() const { return mEntity; }
    bool capture() const { return !V4L2_TYPE_IS_OUTPUT(mVideo.bufType); }
    uint32_t role() const { return mVideo.role; }
    uint32_t ordinal() const { return mOrdinal; }
    /** First byte of a plane of a prepared buffer; stays valid while the engine has the buffer. */
    uint8_t* planeData(uint32_t index, uint32_t plane) const;
    vengine_picture picture(uint32_t index) const;
    /** Ends the processing of a buffer, whose request still has to be told. */
    void complete(uint32_t index, bool good, const timespec& time);
    /** @} */

    const std::string& name() const { return mName; }
    const VideoDesc& video() const { return mVideo; }
    const Format& format() const { return mFormat; }
    uint64_t remaps() const { return mRemaps; }
    size_t mappedPlanes() const;

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
        std::array<Plane, kMaxPlanes> given;   ///< as the last QBUF named them
        std::array<Plane, kMaxPlanes> planes;  ///< as prepared
        std::array<Mapping, kMaxPlanes> mappings;
        Job job;  ///< of a buffer without a request
    };

    bool busyFor(const void* owner) const { return mOwner && mOwner != owner; }
    int checkPlanes(const v4l2_buffer& buffer) const;
    int checkRequestUse(bool withRequest) const;
    int takePlanes(const v4l2_buffer& buffer, Buffer& into) const;
    int mapPlanes(Buffer& buffer);
    void fill(const Buffer& buffer, v4l2_buffer& user) const;
    void cancel(std::unique_lock<std::mutex>& lock);

    DeviceCore& mDevice;
    const std::string mName;
    const size_t mEntity;
    const VideoDesc mVideo;
    const uint32_t mOrdinal;
    Format mFormat;
    const void* mOwner = nullptr;
    std::vector<Buffer> mBuffers;
    std::array<uint32_t, kMaxBuffers> mDone;  ///< ring of indexes
    uint32_t mDoneFirst = 0, mDoneCount = 0;
    bool mStreaming = false;
    uint32_t mSequence = 0;  ///< of the next buffer that is done
    bool mUsesRequests = false, mUsesPlain = false;
    uint64_t mRemaps = 0;
};

}  // namespace NSVista::NSCorvane::sim
