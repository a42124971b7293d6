// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What of an ioctl's argument is memory of the caller.
 */
#pragma once

#include <linux/ioctl.h>
#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>

#include <corvane/platform/RecordFormat.h>

namespace NSVista::NSCorvane::record {

/** A piece of the caller's memory. */
struct Block {
    const void* data;
    uint32_t size;
    uint32_t what;
};

/** The pieces of one half of a call. */
struct Blocks {
    static constexpr size_t kMost = 8;

    Block list[kMost];
    uint32_t count = 0;

    void add(const void* data, size_t size, uint32_t what) {
        if (data != nullptr && size != 0 && count < kMost)
            list[count++] = {data, static_cast<uint32_t>(size), what};
    }
};

/**
 * The sub-device's private calls that point to an array of descriptors: KVXDIP_IOC_ADD_FENCE and
 * KVXDIP_IOC_DEL_FENCE. The layer that declares them stands above this one.
 */
inline constexpr uint32_t kAddFence = _IOC(_IOC_WRITE, 'V', BASE_VIDIOC_PRIVATE + 15, 9);
inline constexpr uint32_t kDelFence = _IOC(_IOC_WRITE, 'V', BASE_VIDIOC_PRIVATE + 16, 9);

/** @private All but buffers. */
void addArrays(Blocks& blocks, uint32_t code, const void* arg, bool after);

/**
 * Collects the argument of an ioctl and the arrays that it points to: those that the kernel reads,
 * or @p after the call those that it may have written.
 */
inline void collect(Blocks& blocks, uint32_t code, const void* arg, bool after) {
    constexpr uint32_t kReads = _IOC_WRITE;
    constexpr uint32_t kWrites = _IOC_READ;
    if (arg == nullptr)
        return;
    if ((_IOC_DIR(code) & (after ? kWrites : kReads)) != 0)
        blocks.add(arg, _IOC_SIZE(code), kArgument);
    if (code != VIDIOC_QBUF && code != VIDIOC_DQBUF)
        return addArrays(blocks, code, arg, after);
    const auto& buffer = *static_cast<const v4l2_buffer*>(arg);
    if (V4L2_TYPE_IS_MULTIPLANAR(buffer.type) && buffer.length <= VIDEO_MAX_PLANES &&
        (after || code == VIDIOC_QBUF))
        blocks.add(buffer.m.planes, buffer.length * sizeof(v4l2_plane), kArray);
}

}  // namespace NSVista::NSCorvane::record
