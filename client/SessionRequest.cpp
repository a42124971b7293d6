// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/SessionRequest.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

CORVANE_LOG_UNIT("corvane-SceneSession")

namespace NSVista::NSCorvane::client {

namespace {

/** Planes that share a DMA-buf begin at multiples of this many bytes. */
constexpr uint32_t kPlaneAlignment = 64;

uint64_t alignedUp(uint64_t value) {
    return (value + kPlaneAlignment - 1) / kPlaneAlignment * kPlaneAlignment;
}

/** Drivers take offsets and sizes in 32 bits. */
constexpr uint64_t kMostBytes = std::numeric_limits<uint32_t>::max();

/** A driver refuses memory that is smaller than its format, at best. */
int allocateAll(IDmaBufSource& source, size_t size, DmaBuf& memory) {
    if (const int result = source.allocate(size, memory); result != 0)
        return result;
    const off_t end = lseek(memory.fd(), 0, SEEK_END);  // -1 where the descriptor does not tell.
    const size_t got = end < 0 ? memory.size() : std::min(memory.size(), static_cast<size_t>(end));
    if (got >= size)
        return 0;
    CORVANE_LOGE("a buffer from %s has %zu bytes, the format asks for %zu",
                 source.toString().c_str(), got, size);
    return -EINVAL;
}

}  // namespace

int Frame::allocate(const PixelFormat& format, const FrameLayout& layout,
                    IDmaBufSource& source) try {
    if (format.planeCount == 0 || format.planeCount > FrameBuffer::kMaxPlanes)
        return -EINVAL;
    mFormat = format;
    mBuffer = {};
    mBuffer.planeCount = format.planeCount;
    return layout.offset != 0 ? allocateShared(layout, source) : allocateApart(layout, source);
}
CORVANE_NO_THROW

int Frame::allocateShared(const FrameLayout& layout, IDmaBufSource& source) {
    uint64_t end = layout.offset;
    for (size_t i = 0; i < mBuffer.planeCount; ++i) {
        const uint64_t offset = i == 0 ? end : alignedUp(end);
        mBuffer.planes[i] = {-1, static_cast<uint32_t>(offset), mFormat.planes[i].size};
        end = offset + mFormat.planes[i].size + layout.guard;
        if (end > kMostBytes)
            return -EOVERFLOW;
    }
    if (const int result = allocateAll(source, end, mMemory[0]); result != 0)
        return result;
    for (size_t i = 0; i < mBuffer.planeCount; ++i)
        mBuffer.planes[i].fd = mMemory[0].fd();
    return 0;
}

int Frame::allocateApart(const FrameLayout& layout, IDmaBufSource& source) {
    for (size_t i = 0; i < mBuffer.planeCount; ++i) {
        const uint32_t size = mFormat.planes[i].size;
        if (uint64_t{size} + layout.guard > kMostBytes)
            return -EOVERFLOW;
        if (const int result = allocateAll(source, size_t{size} + layout.guard, mMemory[i]);
            result != 0)
            return result;
        mBuffer.planes[i] = {mMemory[i].fd(), 0, size};
    }
    return 0;
}

FrameMapping Frame::map(CpuAccess access) {
    FrameMapping mapping;
    const bool shared = !mMemory[1];
    for (size_t i = 0; i < mBuffer.planeCount; ++i) {
        const size_t memory = shared ? 0 : i;
        if (!mapping.mMappings[memory])
            mapping.mMappings[memory] = mMemory[memory].map(access);
        uint8_t* const data = mapping.mMappings[memory].data();
        if (data == nullptr)
            return {};
        const FrameBuffer::Plane& plane = mBuffer.planes[i];
        const size_t end = size_t{plane.offset} + plane.bufsize;
        const bool last = !shared || i + 1 == mBuffer.planeCount;
        const size_t gapEnd = last ? mMemory[memory].size() : mBuffer.planes[i + 1].offset;
        mapping.mPlanes[i] = {data + plane.offset, plane.bufsize};
        mapping.mGaps[i + 1] = {data + end, gapEnd - end};
    }
    mapping.mGaps[0] = {mapping.mMappings[0].data(), mBuffer.planes[0].offset};
    mapping.mPlaneCount = mBuffer.planeCount;
    return mapping;
}

RequestTimes SessionRequest::times() const {
    // A stamp has the width of a pointer: where that is 32 bits it goes round every four seconds.
    const auto station = [this](reqtrack::Station which) {
        const auto since = static_cast<unsigned long>(mQueued.count());
        return mQueued + std::chrono::nanoseconds(
                             static_cast<int64_t>(reqtrack::stamp(mTrack, which) - since));
    };
    // A fast driver is done before the queueing call has returned.
    const auto queued = std::min(station(reqtrack::kFromKernelQueued), mDone);
    const auto seen = std::max(station(reqtrack::kFromKernelDone), queued);
    return {mDone - mQueued, station(reqtrack::kToSubmodule) - mQueued,
            queued - station(reqtrack::kToSubmodule), seen - queued, mDone - seen};
}

}  // namespace NSVista::NSCorvane::client
