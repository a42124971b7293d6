/**
 * @file
 * What a client fills and inspects of a session: requests, and one frame of each port in them.
 */
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

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

/** The memory of one port's buffer. */
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

private:
    int allocateShared(const FrameLayout& layout, IDmaBufSource& source);
    int allocateApart(const FrameLayout& layout, IDmaBufSource& source);

    PixelFormat mFormat{};
    FrameBuffer mBuffer{};
    std::array<DmaBuf, FrameBuffer::kMaxPlanes> mMemory;
};

/** Where a request's time went. */
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
    /** Of the request's last cycle. */
    RequestTimes times() const;

private:
    friend class SceneSession;

    uint64_t mNumber = 0;
    unsigned mSlot = 0;
    std::vector<Frame> mFrames;
    std::shared_ptr<IRequest> mRequest;
    unsigned long mTrack[reqtrack::kTrackBufferWords] = {};
    std::chrono::nanoseconds mQueued{0};  ///< CLOCK_MONOTONIC
    std::chrono::nanoseconds mDone{0};
};

}  // namespace NSVista::NSCorvane::client
