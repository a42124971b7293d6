// SPDX-License-Identifier: Apache-2.0
#include "Mapping.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <cerrno>

namespace NSVista::NSCorvane::sim {

int identifyBuffer(int fd, BufferId& id) {
    struct stat info;
    if (fstat(fd, &info) < 0 || info.st_size <= 0)
        return -EINVAL;
    // The inode of a dma-buf has no type.
    if (!S_ISREG(info.st_mode) && (info.st_mode & S_IFMT) != 0)
        return -EINVAL;
    id = {info.st_dev, info.st_ino, static_cast<size_t>(info.st_size)};
    return 0;
}

int Mapping::map(int fd, const BufferId& id, bool writable) {
    reset();
    void* base = mmap(nullptr, id.size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, fd, 0);
    if (base == MAP_FAILED)
        return -errno;
    mBase = static_cast<uint8_t*>(base);
    mId = id;
    return 0;
}

void Mapping::reset() {
    if (mBase)
        munmap(mBase, mId.size);
    mBase = nullptr;
}

}  // namespace NSVista::NSCorvane::sim
