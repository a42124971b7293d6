// SPDX-License-Identifier: Apache-2.0
#include "Answer.h"

#include <corvane/replay/Decode.h>
#include <linux/ioctl.h>
#include <linux/media.h>

#include <algorithm>
#include <cstring>
#include <span>

namespace NSVista::NSCorvane::replay {

namespace {

using Bytes = std::span<const uint8_t>;

bool isPlanar(const v4l2_buffer& buffer) {
    return V4L2_TYPE_IS_MULTIPLANAR(buffer.type) && buffer.m.planes != nullptr &&
           buffer.length <= VIDEO_MAX_PLANES;
}

void put(void* to, Bytes from, size_t most) {
    if (to != nullptr && !from.empty())
        memcpy(to, from.data(), std::min(from.size(), most));
}

void putArray(const Call& recorded, uint32_t array, void* to, size_t most) {
    put(to, recorded.piece(record::kArray + array, true), most);
}

/** The arrays that an answer brings; what the caller asked for bounds them. */
void answerArrays(const Call& recorded, void* arg) {
    switch (recorded.code) {
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS: {
            auto& list = *static_cast<v4l2_ext_controls*>(arg);
            const Bytes items = recorded.piece(record::kArray, true);
            for (size_t i = 0; i < list.count && list.controls != nullptr &&
                               (i + 1) * sizeof(v4l2_ext_control) <= items.size();
                 ++i) {
                v4l2_ext_control told{};
                memcpy(&told, &items[i * sizeof(told)], sizeof(told));
                v4l2_ext_control& control = list.controls[i];
                if (control.size == 0)
                    control.value64 = told.value64;
                else
                    putArray(recorded, static_cast<uint32_t>(1 + i), control.ptr, control.size);
            }
            break;
        }
        case MEDIA_IOC_ENUM_LINKS: {
            // The kernel does not ask either how much room there is.
            auto& links = *static_cast<media_links_enum*>(arg);
            putArray(recorded, 0, links.pads, SIZE_MAX);
            putArray(recorded, 1, links.links, SIZE_MAX);
            break;
        }
        case MEDIA_IOC_G_TOPOLOGY: {
            auto& graph = *static_cast<media_v2_topology*>(arg);
            const auto at = [](uint64_t address) {
                return reinterpret_cast<void*>(static_cast<uintptr_t>(address));
            };
            putArray(recorded, 0, at(graph.ptr_entities), SIZE_MAX);
            putArray(recorded, 1, at(graph.ptr_interfaces), SIZE_MAX);
            putArray(recorded, 2, at(graph.ptr_pads), SIZE_MAX);
            putArray(recorded, 3, at(graph.ptr_links), SIZE_MAX);
            break;
        }
        default:
            break;
    }
}

}  // namespace

LiveBuffer readBuffer(const v4l2_buffer& buffer) {
    LiveBuffer result{buffer.index, buffer.request_fd, {}};
    if (!isPlanar(buffer))
        result.dmaBufs.push_back(buffer.m.fd);
    for (uint32_t i = 0; isPlanar(buffer) && i < buffer.length; ++i)
        result.dmaBufs.push_back(buffer.m.planes[i].m.fd);
    return result;
}

void answer(const Call& recorded, void* arg) {
    const Bytes told = recorded.piece(record::kArgument, true);
    if (arg == nullptr || told.empty())
        return;
    const size_t size = std::min<size_t>(told.size(), _IOC_SIZE(recorded.code));
    auto* const bytes = static_cast<uint8_t*>(arg);
    const std::vector<uint8_t> before(bytes, bytes + size);
    memcpy(bytes, told.data(), size);
    for (const FieldPlace& place : placesOf(recorded.code, {bytes, size}))
        memcpy(bytes + place.offset, &before[place.offset], place.size);
    answerArrays(recorded, arg);
}

void answerBuffer(const Call& recorded, v4l2_buffer& buffer, const LiveBuffer& queued) {
    const Bytes told = recorded.piece(record::kArgument, true);
    if (told.size() < sizeof(buffer))
        return;
    const v4l2_buffer before = buffer;
    memcpy(&buffer, told.data(), sizeof(buffer));
    buffer.m = before.m;
    buffer.index = queued.index;
    if ((buffer.flags & V4L2_BUF_FLAG_REQUEST_FD) != 0)
        buffer.request_fd = queued.requestFd;
    const auto fdOf = [&](size_t plane) {
        return plane < queued.dmaBufs.size() ? queued.dmaBufs[plane] : -1;
    };
    if (!V4L2_TYPE_IS_MULTIPLANAR(buffer.type)) {
        buffer.m.fd = fdOf(0);
        return;
    }
    const Bytes planes = recorded.piece(record::kArray, true);
    const size_t room = std::min<size_t>(before.length, VIDEO_MAX_PLANES);
    for (size_t i = 0;
         i < room && buffer.m.planes != nullptr && (i + 1) * sizeof(v4l2_plane) <= planes.size();
         ++i) {
        memcpy(&buffer.m.planes[i], &planes[i * sizeof(v4l2_plane)], sizeof(v4l2_plane));
        buffer.m.planes[i].m.fd = fdOf(i);
    }
}

}  // namespace NSVista::NSCorvane::replay
