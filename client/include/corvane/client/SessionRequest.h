// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a client fills and inspects of a session: requests, and one frame of each port in them.
 */
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <corvane/DequeuedBuffer.h>
#include <corvane/IRequest.h>
#include <corvane/IV4L2VideoDevice.h>
#include <corvane/client/DmaBuf.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/ReqTrack.h>

namespace NSVista::NSCorvane::client {

/** How a frame's planes lie in DMA-bufs. */
struct FrameLayout {
    /**
     * Bytes before the first plane. 0 gives each plane a DMA-buf of its own, which every driver
     * takes; above 0 all planes share one, for drivers that read plane offsets.
     */
    uint32_t offset = 0;
    /** Bytes after each plane that belong to none, at least. */
    uint32_t guard = 0;
};

/** Processor access to a frame, from construction to end. */
class CORVANE_EXPORT FrameMapping {
public:
    /** False when the frame's memory could not be mapped. */
    explicit operator bool() const { return mPlaneCount != 0; }
    size_t planeCount() const { return mPlaneCount; }
    /** A plane, as long as the format says. */
    std::span<uint8_t> plane(size_t index) const { return mPlanes[index]; }
    /** One more than planes. */
    size_t gapCount() const { return mPlaneCount + 1; }
    /** What lies before the first plane (0) and after each plane (1...); no driver may touch it. */
    std::span<uint8_t> gap(size_t index) const { return mGaps[index]; }

private:
    friend class Frame;

    size_t mPlaneCount = 0;
    std::array<DmaBufMapping, FrameBuffer::kMaxPlanes> mMappings;
    std::array<std::span<uint8_t>, FrameBuffer::kMaxPlanes> mPlanes;
    std::array<std::span<uint8_t>, FrameBuffer::kMaxPlanes + 1> mGaps;
};

/** The memory of one port's buffer, and what the driver said when it gave it back. */
class CORVANE_EXPORT Frame {
public:
    /**
     * @return 0, -EINVAL for a format of no plane or more than a FrameBuffer has, -EOVERFLOW when
     *         the layout takes 4 GiB or more, or an errno.
     */
    int allocate(const PixelFormat& format, const FrameLayout& layout, IDmaBufSource& source);

    const PixelFormat& format() const { return mFormat; }
    /** For the port's device. */
    const FrameBuffer& buffer() const { return mBuffer; }
    FrameMapping map(CpuAccess access);

    /**
     * @name Of the frame's last cycle, once its request is handed over
     * Where requests are handed over early, result() tells whether there is more to ask.
     * @{ */
    /**
     * 0, DequeuedBuffer::kBroken for a frame that the driver flagged, or the negated errno of a
     * dequeue that failed: its memory is the driver's until the session's end. -EINPROGRESS while
     * it was not dequeued (where requests are handed over early). Any thread.
     */
    int result() const { return __atomic_load_n(&mResult, __ATOMIC_ACQUIRE); }
    bool isGood() const { return result() == 0; }
    /** The driver's frame count. */
    uint32_t sequence() const { return mDequeued.sequence; }
    /** The driver's time, of CLOCK_MONOTONIC where the flags say no other. */
    std::chrono::nanoseconds timestamp() const {
        return std::chrono::seconds(mDequeued.timestamp.tv_sec) +
               std::chrono::microseconds(mDequeued.timestamp.tv_usec);
    }
    /** Bytes that hold data in a plane, its offset included; 0 for a plane that there is not. */
    uint32_t bytesUsed(size_t plane) const {
        return plane < mDequeued.planeCount && plane < DequeuedBuffer::kMaxPlanes
                   ? mDequeued.planes[plane].bytesUsed
                   : 0;
    }
    /** Where the data begins in a plane, in bytes: what some drivers put before it is no data. */
    uint32_t dataOffset(size_t plane) const {
        return plane < mDequeued.planeCount && plane < DequeuedBuffer::kMaxPlanes
                   ? mDequeued.planes[plane].dataOffset
                   : 0;
    }
    /** V4L2_FIELD_*. */
    uint32_t field() const { return mDequeued.field; }
    /** V4L2_BUF_FLAG_*. */
    uint32_t flags() const { return mDequeued.flags; }
    /** All that the dequeue told. */
    const DequeuedBuffer& dequeued() const { return mDequeued; }
    /** @} */

private:
    friend class SceneSession;

    int allocateShared(const FrameLayout& layout, IDmaBufSource& source);
    int allocateApart(const FrameLayout& layout, IDmaBufSource& source);

    /** Publishes what was written into mDequeued. */
    void setResult(int result) { __atomic_store_n(&mResult, result, __ATOMIC_RELEASE); }
    void tell(const DequeuedBuffer& buffer) {
        mDequeued = buffer;
        setResult(buffer.result);
    }

    PixelFormat mFormat{};
    DequeuedBuffer mDequeued{};
    int mResult = 0;
    FrameBuffer mBuffer{};
    std::array<DmaBuf, FrameBuffer::kMaxPlanes> mMemory;
};

/** Where a request's time went; on 32-bit machines, of one of up to four seconds. */
struct RequestTimes {
    std::chrono::nanoseconds total;    ///< from the queueing to the done callback
    std::chrono::nanoseconds buffers;  ///< queueing the buffers
    std::chrono::nanoseconds queue;    ///< queueing the media request
    std::chrono::nanoseconds driver;   ///< from there until the completion was seen
    std::chrono::nanoseconds report;   ///< from there to the done callback
};

/** One request of a session with a frame of each port. */
class CORVANE_EXPORT SessionRequest {
public:
    /** Counts the session's requests, from 0. */
    uint64_t number() const { return mNumber; }
    /** In the order of the session's ports. */
    size_t frameCount() const { return mFrames.size(); }
    Frame& frame(size_t port) { return mFrames[port]; }
    const Frame& frame(size_t port) const { return mFrames[port]; }
    /** The media request, for controls that are to go with it: ControlNode::set(). */
    int descriptor() const { return mRequest->getRequestFD(); }
    /** Of the request's last cycle; zeros unless SessionDesc::times asks for them. */
    RequestTimes times() const;

private:
    friend class SceneSession;

    /**
     * What a cycle still waits for: a bit per port's dequeue, one for a lost frame that is being
     * settled, one for the done callback, one for the client, and one for the driver, which has
     * kept a frame. Who clears the last one of a kind goes on with the request.
     */
    static constexpr uint64_t kRetired = uint64_t{1} << 60;
    static constexpr uint64_t kSettling = uint64_t{1} << 61;
    static constexpr uint64_t kNotDone = uint64_t{1} << 62;
    static constexpr uint64_t kHeld = uint64_t{1} << 63;
    /** Those that no hand-over waits for. */
    static constexpr uint64_t kLater = kHeld | kRetired;

    std::atomic<uint64_t> mPending{0};
    std::atomic<uint32_t> mCycle{0};
    uint64_t mLost = 0;  ///< bit per port whose frame the driver has kept; the session's lock
    uint64_t mNumber = 0;
    unsigned mSlot = 0;
    std::vector<Frame> mFrames;
    std::shared_ptr<IRequest> mRequest;
    unsigned long mTrack[reqtrack::kTrackBufferWords] = {};
    std::chrono::nanoseconds mQueued{0};  ///< CLOCK_MONOTONIC
    std::chrono::nanoseconds mDone{0};
};

}  // namespace NSVista::NSCorvane::client
