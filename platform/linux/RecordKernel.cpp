// SPDX-License-Identifier: Apache-2.0
#include "RecordKernel.h"

#include <corvane/platform/Clock.h>
#include <linux/media.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Format.h"
#include "RecordArgument.h"
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

/** The copies of buffers and planes are short: the compiler does them in place. */
inline void copy(char* to, const void* from, size_t size) {
    const char* source = static_cast<const char*>(from);
    for (; size >= 16; size -= 16, to += 16, source += 16)
        memcpy(to, source, 16);
    if (size >= 8) {
        memcpy(to, source, 8);
        to += 8;
        source += 8;
        size -= 8;
    }
    for (; size != 0; --size)
        *to++ = *source++;
}

bool put(Lane& lane, EventHead head, const Blocks& blocks, size_t room) {
    const size_t size = sizeOf(blocks);
    char* const begin = lane.reserve(size, room);
    if (begin == nullptr)
        return false;
    head.size = static_cast<uint32_t>(size);
    head.blocks = static_cast<uint16_t>(blocks.count);
    memcpy(begin, &head, sizeof(head));
    char* at = begin + sizeof(head);
    for (uint32_t i = 0; i < blocks.count; ++i) {
        const Block& block = blocks.list[i];
        const BlockHead blockHead{block.size, block.what};
        memcpy(at, &blockHead, sizeof(blockHead));
        copy(at + sizeof(blockHead), block.data, block.size);
        at += sizeof(blockHead) + rounded(block.size, 8);
    }
    lane.commit(size);
    return true;
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
        const EventHead head{monotonicInNs(), 0, EventKind::Enter, operation, 0, handle, code, 0};
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
        const EventHead head{monotonicInNs(), 0,     EventKind::Exit, mOperation, 0,
                             mHandle,         mCode, result};
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
    if (code == MEDIA_IOC_ENUM_LINKS && arg != nullptr)
        return ioctlLinks(fd, arg);
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
