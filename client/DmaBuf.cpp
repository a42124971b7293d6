// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/DmaBuf.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <cerrno>
#include <utility>

namespace NSVista::NSCorvane::client {

namespace {

/** @return 0 or the negated errno. */
int synchronise(int fd, uint64_t flags) {
    dma_buf_sync sync{flags};
    int result = 0;
    do {
        result = ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync);
    } while (result != 0 && (errno == EINTR || errno == EAGAIN));
    return result == 0 ? 0 : -errno;
}

}  // namespace

IDmaBufSource::~IDmaBufSource() = default;

DmaBufMapping::DmaBufMapping(DmaBufMapping&& other) noexcept {
    *this = std::move(other);
}

DmaBufMapping& DmaBufMapping::operator=(DmaBufMapping&& other) noexcept {
    std::swap(mData, other.mData);
    std::swap(mSyncFd, other.mSyncFd);
    std::swap(mAccess, other.mAccess);
    return *this;
}

DmaBufMapping::~DmaBufMapping() {
    if (mSyncFd >= 0)
        synchronise(mSyncFd, DMA_BUF_SYNC_END | static_cast<uint64_t>(mAccess));
}

DmaBuf::DmaBuf(DmaBuf&& other) noexcept {
    *this = std::move(other);
}

DmaBuf& DmaBuf::operator=(DmaBuf&& other) noexcept {
    std::swap(mFd, other.mFd);
    std::swap(mSize, other.mSize);
    std::swap(mData, other.mData);
    std::swap(mSynchronised, other.mSynchronised);
    return *this;
}

DmaBuf::~DmaBuf() {
    if (mData != nullptr)
        munmap(mData, mSize);
}

DmaBufMapping DmaBuf::map(CpuAccess access) {
    DmaBufMapping mapping;
    if (mData == nullptr) {
        void* const pages = mmap(nullptr, mSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd(), 0);
        if (pages == MAP_FAILED)
            return mapping;
        mData = static_cast<uint8_t*>(pages);
    }
    if (mSynchronised) {
        const int result = synchronise(fd(), DMA_BUF_SYNC_START | static_cast<uint64_t>(access));
        if (result == 0)
            mapping.mSyncFd = fd();
        else if (result == -ENOTTY || result == -ENOSYS)
            mSynchronised = false;  // A memory file, or a kernel that emulates none of this.
        else
            return mapping;
    }
    mapping.mData = mData;
    mapping.mAccess = access;
    return mapping;
}

}  // namespace NSVista::NSCorvane::client
