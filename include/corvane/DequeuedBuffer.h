// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a dequeue told.
 */
#pragma once

#include <sys/time.h>

#include <cstdint>

namespace NSVista::NSCorvane {

/**
 * One dequeue (VIDIOC_DQBUF) of a video node: what the driver wrote into its `v4l2_buffer`.
 *
 * A dequeue that failed is told as well: `result` is negative, nothing else but `portIndex` means
 * anything, and the buffer's index is lost until the next import: it never becomes free.
 */
struct DequeuedBuffer {
    /** As many as a buffer is queued with at most: FrameBuffer::kMaxPlanes. */
    static constexpr uint32_t kMaxPlanes = 3;
    static constexpr uint32_t kNoIndex = ~0U;
    /** The driver flagged the buffer (V4L2_BUF_FLAG_ERROR): its content is not to be trusted. */
    static constexpr int kBroken = 1;

    struct Plane {
        uint32_t bytesUsed;   ///< bytes
        uint32_t dataOffset;  ///< bytes, where the data begins in the plane
    };

    int portIndex;
    uint32_t bufferIndex;  ///< free again; kNoIndex after a failure
    int requestFd;         ///< the request it was queued with, -1 without one
    int result;            ///< 0, kBroken, or the driver's negated errno
    uint32_t flags;        ///< V4L2_BUF_FLAG_*
    uint32_t field;        ///< V4L2_FIELD_*
    uint32_t sequence;     ///< the driver's frame count
    struct timeval timestamp;
    uint32_t planeCount;  ///< valid entries of planes; 1 for single-plane and meta nodes
    Plane planes[kMaxPlanes];
};

}  // namespace NSVista::NSCorvane
