// SPDX-License-Identifier: Apache-2.0
#include "RecordArgument.h"

#include <linux/media.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>

#include "Format.h"

namespace NSVista::NSCorvane::record {

namespace {

template <class T>
const T& as(const void* arg) {
    return *static_cast<const T*>(arg);
}

const void* pointer(uint64_t address) {
    return reinterpret_cast<const void*>(static_cast<uintptr_t>(address));
}

/** What an array holds at most: a wrong count must not be believed. */
constexpr uint32_t kItemsMost = 4096;

void addCounted(Blocks& blocks, const void* items, uint64_t count, size_t size, uint32_t index) {
    if (count <= kItemsMost)
        blocks.add(items, count * size, kArray + index);
}

/**
 * Whether a control's payload, of no more than a page, is there: a control that has none holds its
 * value where others have an address, and any size. Where the kernel does not tell, it is not.
 */
bool isReadable(const void* data, size_t size) {
    const ErrnoKeeper keeper;
    char ends[2];
    const iovec into = {ends, sizeof(ends)};
    const auto first = reinterpret_cast<uintptr_t>(data);
    const iovec from[] = {{reinterpret_cast<void*>(first), 1},
                          {reinterpret_cast<void*>(first + size - 1), 1}};
    return process_vm_readv(getpid(), &into, 1, from, 2, 0) == sizeof(ends);
}

void addControls(Blocks& blocks, const v4l2_ext_controls& list) {
    addCounted(blocks, list.controls, list.count, sizeof(v4l2_ext_control), 0);
    if (list.controls == nullptr || list.count > kItemsMost)
        return;
    for (uint32_t i = 0; i < list.count; ++i) {
        const v4l2_ext_control& control = list.controls[i];
        if (control.size != 0 && isReadable(control.ptr, control.size))
            addCounted(blocks, control.ptr, control.size, 1, 1 + i);
    }
}

void addTopology(Blocks& blocks, const media_v2_topology& graph) {
    addCounted(blocks, pointer(graph.ptr_entities), graph.num_entities, sizeof(media_v2_entity), 0);
    addCounted(blocks, pointer(graph.ptr_interfaces), graph.num_interfaces,
               sizeof(media_v2_interface), 1);
    addCounted(blocks, pointer(graph.ptr_pads), graph.num_pads, sizeof(media_v2_pad), 2);
    addCounted(blocks, pointer(graph.ptr_links), graph.num_links, sizeof(media_v2_link), 3);
}

/** The record is packed: a byte that counts, then the address of as many descriptors. */
void addFences(Blocks& blocks, const void* arg) {
    uint64_t address;
    memcpy(&address, static_cast<const uint8_t*>(arg) + 1, sizeof(address));
    blocks.add(pointer(address), as<uint8_t>(arg) * sizeof(int32_t), kArray);
}

}  // namespace

void addArrays(Blocks& blocks, uint32_t code, const void* arg, bool after) {
    switch (code) {
        case VIDIOC_QUERYBUF:
        case VIDIOC_PREPARE_BUF: {
            const auto& buffer = as<v4l2_buffer>(arg);
            if (V4L2_TYPE_IS_MULTIPLANAR(buffer.type) && buffer.length <= VIDEO_MAX_PLANES)
                blocks.add(buffer.m.planes, buffer.length * sizeof(v4l2_plane), kArray);
            break;
        }
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
            addControls(blocks, as<v4l2_ext_controls>(arg));
            break;
        case MEDIA_IOC_G_TOPOLOGY:
            if (after)
                addTopology(blocks, as<media_v2_topology>(arg));
            break;
        case kAddFence:
        case kDelFence:
            if (after == (code == kAddFence))
                addFences(blocks, arg);
            break;
        default:
            break;
    }
}

}  // namespace NSVista::NSCorvane::record
