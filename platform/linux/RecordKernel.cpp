// SPDX-License-Identifier: Apache-2.0
#include "RecordKernel.h"

#include <linux/media.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "Format.h"
#include "RecordArgument.h"
#include "RecordClock.h"
#include "RecordLanes.h"

namespace NSVista::NSCorvane::record {

namespace {

constexpr size_t rounded(size_t size, size_t to) {
    return (size + to - 1) & ~(to - 1);
}

size_t sizeOf(const Blocks& blocks) {
    size_t size = sizeof(EventHead);
    for (uint32_t i = 0; i < blocks.count; ++i)
        size += sizeof(BlockHead) + rounded(blocks.list[i].size, 8);
    return rounded(size, kAlignment);
}

/**
 * @param head built in its place: what is short is not copied twice.
 * @param fill called with the place behind the head. @return false when there is no room.
 */
template <class Head, class Fill>
[[gnu::always_inline]] inline bool putWith(Lane& lane, size_t size, size_t room, Head head,
                                           Fill fill) {
    char* const begin = lane.reserve(size, room);
    if (begin == nullptr) [[unlikely]]
        return false;
    new (begin) EventHead(head());
    fill(begin + sizeof(EventHead));
    lane.commit(size);
    return true;
}

inline char* putBlockHead(char* at, size_t size, uint32_t what) {
    const BlockHead head{static_cast<uint32_t>(size), what};
    memcpy(at, &head, sizeof(head));
    return at + sizeof(head);
}

bool put(Lane& lane, EventHead head, const Blocks& blocks, size_t room) {
    head.size = static_cast<uint32_t>(sizeOf(blocks));
    head.blocks = static_cast<uint16_t>(blocks.count);
    const auto fill = [&](char* at) {
        for (uint32_t i = 0; i < blocks.count; ++i) {
            const Block& block = blocks.list[i];
            memcpy(putBlockHead(at, block.size, block.what), block.data, block.size);
            at += sizeof(BlockHead) + rounded(block.size, 8);
        }
    };
    return putWith(
        lane, head.size, room, [&] { return head; }, fill);
}

/** One call from its first half to its second. */
class Call {
public:
    /** @param on whether to record. */
    Call(bool on, Operation operation, int64_t handle, uint32_t code, const Blocks& blocks)
        : mOperation(operation), mHandle(handle), mCode(code) {
        if (!on)
            return;
        mLane = gLanes.mine();
        if (mLane == nullptr) {
            gLanes.lose();
            return;
        }
        const EventHead head{stamp(), 0, EventKind::Enter, operation, 0, handle, code, 0};
        if (put(*mLane, head, blocks, Lane::kExitRoom))
            return;
        mLane->lose();
        mLane = nullptr;
    }

    /** Whether there is a second half to be put. */
    bool isRecorded() const { return mLane != nullptr; }
    void setHandle(int64_t handle) { mHandle = handle; }
    void setCode(uint32_t code) { mCode = code; }

    void end(int result, const Blocks& blocks) {
        if (mLane == nullptr)
            return;
        const EventHead head{stamp(), 0, EventKind::Exit, mOperation, 0, mHandle, mCode, result};
        // A long answer may find no room; that the call ended always does.
        if (!put(*mLane, head, blocks, 0)) {
            mLane->lose();
            put(*mLane, head, {}, 0);
        }
    }

private:
    const Operation mOperation;
    int64_t mHandle;
    uint32_t mCode;
    Lane* mLane = nullptr;
};

Blocks textBlock(const char* text) {
    Blocks blocks;
    if (text != nullptr)
        blocks.add(text, strlen(text), kArgument);
    return blocks;
}

int64_t handleOf(const DIR* dir) {
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(dir));
}

/** A file that was exported can be as large as it likes. */
uint64_t sizeOfExport(const v4l2_exportbuffer& exported) {
    const ErrnoKeeper keeper;
    const off_t size = lseek(exported.fd, 0, SEEK_END);
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

/** One half of a call of every request, whose cost counts. */
struct Half {
    EventKind kind;
    int fd;
    uint32_t code;
    int result;

    EventHead head(size_t size, uint16_t blocks) const {
        return {stamp(), static_cast<uint32_t>(size), kind, Operation::Ioctl, blocks, fd, code,
                result};
    }
};

/** Copies of sizes that the compiler knows. */
[[gnu::always_inline]] inline bool putBuffer(Lane& lane, const Half& half,
                                             const v4l2_buffer& buffer, bool withPlanes,
                                             size_t room) {
    constexpr size_t kBufferSize = rounded(sizeof(buffer), 8);
    const size_t planes = withPlanes && V4L2_TYPE_IS_MULTIPLANAR(buffer.type) &&
                                  buffer.m.planes != nullptr && buffer.length <= VIDEO_MAX_PLANES
                              ? buffer.length
                              : 0;
    const size_t size =
        rounded(sizeof(EventHead) + sizeof(BlockHead) + kBufferSize +
                    (planes != 0 ? sizeof(BlockHead) + planes * sizeof(v4l2_plane) : 0),
                kAlignment);
    return putWith(
        lane, size, room, [&] { return half.head(size, planes != 0 ? 2 : 1); },
        [&](char* at) {
            at = putBlockHead(at, sizeof(buffer), kArgument);
            memcpy(at, &buffer, sizeof(buffer));
            if (planes == 0)
                return;
            at = putBlockHead(at + kBufferSize, planes * sizeof(v4l2_plane), kArray);
            for (size_t i = 0; i < planes; ++i)
                memcpy(at + i * sizeof(v4l2_plane), &buffer.m.planes[i], sizeof(v4l2_plane));
        });
}

[[gnu::always_inline]] inline bool putNothing(Lane& lane, const Half& half, size_t room) {
    constexpr size_t kSize = sizeof(EventHead);
    return putWith(
        lane, kSize, room, [&] { return half.head(kSize, 0); }, [](char*) {});
}

/**
 * A queued buffer goes in with its planes, what came of it without; a dequeued one with all when it
 * is there.
 * @tparam kCode VIDIOC_QBUF, VIDIOC_DQBUF, or 0 for a call without argument.
 */
template <uint32_t kCode>
int recordShort(System::Kernel& kernel, int fd, uint32_t code, void* arg) {
    Lane* const lane = gLanes.mine();
    if (lane == nullptr) [[unlikely]] {
        gLanes.lose();
        return kernel.ioctl(fd, code, arg);
    }
    const Half before{EventKind::Enter, fd, code, 0};
    const auto* const buffer = static_cast<const v4l2_buffer*>(arg);
    bool isPut = false;
    if constexpr (kCode == VIDIOC_QBUF)
        isPut = putBuffer(*lane, before, *buffer, true, Lane::kExitRoom);
    else
        isPut = putNothing(*lane, before, Lane::kExitRoom);
    if (!isPut) [[unlikely]] {
        lane->lose();
        return kernel.ioctl(fd, code, arg);
    }
    const int result = kernel.ioctl(fd, code, arg);
    const Half after{EventKind::Exit, fd, code, result};
    if constexpr (kCode != 0)
        putBuffer(*lane, after, *buffer, kCode == VIDIOC_DQBUF, 0);
    else
        putNothing(*lane, after, 0);
    return result;
}

}  // namespace

int RecordKernel::open(const char* path, int flags) {
    Call call(on(), Operation::Open, -1, static_cast<uint32_t>(flags), textBlock(path));
    const int result = inner().open(path, flags);
    call.setHandle(result);
    call.end(result, {});
    return result;
}

int RecordKernel::close(int fd) {
    Call call(on(), Operation::Close, fd, 0, {});
    const int result = inner().close(fd);
    call.end(result, {});
    return result;
}

int RecordKernel::ioctl(int fd, unsigned long request, void* arg) {
    const auto code = static_cast<uint32_t>(request);
    if (!on())
        return inner().ioctl(fd, request, arg);
    switch (code) {
        case VIDIOC_QBUF:
            if (arg != nullptr)
                return recordShort<VIDIOC_QBUF>(inner(), fd, code, arg);
            break;
        case VIDIOC_DQBUF:
            if (arg != nullptr)
                return recordShort<VIDIOC_DQBUF>(inner(), fd, code, arg);
            break;
        case MEDIA_REQUEST_IOC_QUEUE:
        case MEDIA_REQUEST_IOC_REINIT:
            return recordShort<0>(inner(), fd, code, arg);
        case MEDIA_IOC_ENUM_LINKS:
            if (arg != nullptr)
                return ioctlLinks(fd, arg);
            break;
        default:
            break;
    }
    Blocks before;
    collect(before, code, arg, false);
    Call call(true, Operation::Ioctl, fd, code, before);
    const int result = inner().ioctl(fd, request, arg);
    if (!call.isRecorded())
        return result;
    Blocks after;
    collect(after, code, arg, true);
    uint64_t size = 0;
    if (code == VIDIOC_EXPBUF && result >= 0 && arg != nullptr) {
        size = sizeOfExport(*static_cast<const v4l2_exportbuffer*>(arg));
        after.add(&size, sizeof(size), kExportSize);
    }
    call.end(result, after);
    return result;
}

/** How long the arrays are the record does not tell; the entity does. */
int RecordKernel::ioctlLinks(int fd, void* arg) {
    System::Kernel& kernel = inner();
    const auto& links = *static_cast<const media_links_enum*>(arg);
    Blocks before;
    collect(before, MEDIA_IOC_ENUM_LINKS, arg, false);
    Call call(true, Operation::Ioctl, fd, MEDIA_IOC_ENUM_LINKS, before);
    const int result = kernel.ioctl(fd, MEDIA_IOC_ENUM_LINKS, arg);
    Blocks after;
    collect(after, MEDIA_IOC_ENUM_LINKS, arg, true);
    const ErrnoKeeper keeper;
    media_entity_desc entity{};
    entity.id = links.entity;
    if (result >= 0 && kernel.ioctl(fd, MEDIA_IOC_ENUM_ENTITIES, &entity) >= 0) {
        after.add(links.pads, entity.pads * sizeof(media_pad_desc), kArray);
        after.add(links.links, entity.links * sizeof(media_link_desc), kArray + 1);
    }
    call.end(result, after);
    return result;
}

int RecordKernel::openDir(const char* path, DIR** dir) {
    Call call(on(), Operation::OpenDir, 0, 0, textBlock(path));
    const int result = inner().openDir(path, dir);
    call.setHandle(result >= 0 ? handleOf(*dir) : 0);
    call.end(result, {});
    return result;
}

int RecordKernel::readDir(DIR* dir, struct dirent** entry) {
    Call call(on(), Operation::ReadDir, handleOf(dir), 0, {});
    const int result = inner().readDir(dir, entry);
    const bool found = result >= 0 && *entry != nullptr;
    call.setCode(found ? (*entry)->d_type : 0);
    call.end(result, textBlock(found ? (*entry)->d_name : nullptr));
    return result;
}

int RecordKernel::closeDir(DIR* dir) {
    Call call(on(), Operation::CloseDir, handleOf(dir), 0, {});
    const int result = inner().closeDir(dir);
    call.end(result, {});
    return result;
}

int RecordKernel::stat(const char* path, struct stat* info) {
    Call call(on(), Operation::Stat, 0, 0, textBlock(path));
    const int result = inner().stat(path, info);
    Blocks after;
    StatRecord told{};
    if (result >= 0) {
        told = {info->st_mode,        major(info->st_rdev),
                minor(info->st_rdev), 0,
                info->st_ino,         static_cast<uint64_t>(info->st_size)};
        after.add(&told, sizeof(told), kStat);
    }
    call.end(result, after);
    return result;
}

int RecordKernel::readLink(const char* path, char* buffer, size_t size) {
    Call call(on(), Operation::ReadLink, 0, 0, textBlock(path));
    const int result = inner().readLink(path, buffer, size);
    Blocks after;
    if (result > 0)
        after.add(buffer, static_cast<size_t>(result), kArgument);
    call.end(result, after);
    return result;
}

}  // namespace NSVista::NSCorvane::record
