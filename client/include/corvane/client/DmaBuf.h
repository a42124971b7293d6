// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * DMA-bufs that a client allocates, and where they come from.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <corvane/platform/Export.h>
#include <corvane/platform/UniqueFd.h>

namespace NSVista::NSCorvane::client {

/** What the processor does with a mapping; values are those of DMA_BUF_IOCTL_SYNC. */
enum class CpuAccess : uint64_t { Read = 1, Write = 2, ReadWrite = 3 };

/** Processor access to a DMA-buf, bracketed by DMA_BUF_IOCTL_SYNC, from construction to end. */
class CORVANE_EXPORT DmaBufMapping {
public:
    DmaBufMapping() = default;
    DmaBufMapping(DmaBufMapping&& other) noexcept;
    DmaBufMapping& operator=(DmaBufMapping&& other) noexcept;
    /** Ends the access. */
    ~DmaBufMapping();

    /** Null when the DMA-buf cannot be mapped or is not to be had at the moment. */
    uint8_t* data() const { return mData; }
    explicit operator bool() const { return mData != nullptr; }

private:
    friend class DmaBuf;

    uint8_t* mData = nullptr;
    int mSyncFd = -1;  ///< -1 when there is nothing to end
    CpuAccess mAccess = CpuAccess::Read;
};

/**
 * Owns the descriptor of a DMA-buf, or of a memory file in its place, and its mapping.
 *
 * Not locked. Mappings must end before their DMA-buf does.
 */
class CORVANE_EXPORT DmaBuf {
public:
    DmaBuf() = default;
    /** @param fd taken over. @param size in bytes. */
    DmaBuf(int fd, size_t size) : mFd(fd), mSize(size) {}
    DmaBuf(DmaBuf&& other) noexcept;
    DmaBuf& operator=(DmaBuf&& other) noexcept;
    /** Unmaps and closes. */
    ~DmaBuf();

    int fd() const { return mFd.get(); }
    size_t size() const { return mSize; }
    explicit operator bool() const { return static_cast<bool>(mFd); }

    /**
     * Begins processor access. The pages are mapped at the first call and stay so; a memory file,
     * which has nothing to synchronise, costs no system call from the second one on.
     * @return null data on failure; errno tells why.
     */
    DmaBufMapping map(CpuAccess access);

private:
    UniqueFd mFd;
    size_t mSize = 0;
    uint8_t* mData = nullptr;
    bool mSynchronised = true;
};

/** Where DMA-bufs come from. Allocated buffers do not depend on their source's life. */
class CORVANE_EXPORT IDmaBufSource {
public:
    virtual ~IDmaBufSource();
    /**
     * Allocates one buffer.
     * @param size in bytes, above 0; the buffer may be larger.
     * @param[out] buffer replaced on success.
     * @return 0 or the negated errno.
     */
    virtual int allocate(size_t size, DmaBuf& buffer) = 0;
    /** For messages. */
    virtual std::string toString() const = 0;
};

/** Memory files (memfd_create): for the virtual engine, which maps what it imports. */
CORVANE_EXPORT std::unique_ptr<IDmaBufSource> makeMemoryFileSource();

/**
 * A dma-heap (DMA_HEAP_IOCTL_ALLOC).
 * @return null when there is none to be opened; errno tells why.
 */
CORVANE_EXPORT std::unique_ptr<IDmaBufSource> openDmaHeapSource(
    const char* path = "/dev/dma_heap/system");

/**
 * Buffers that a V4L2 driver allocates and exports (VIDIOC_CREATE_BUFS, VIDIOC_EXPBUF). The node is
 * open during an allocation only, and must have no other owner of its buffers then.
 * @param nodePath a video or metadata node.
 */
CORVANE_EXPORT std::unique_ptr<IDmaBufSource> makeVideoNodeSource(std::string nodePath);

}  // namespace NSVista::NSCorvane::client
