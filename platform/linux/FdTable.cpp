// SPDX-License-Identifier: Apache-2.0
#include "FdTable.h"

#include <new>
#include <utility>

#include "Immortal.h"

namespace NSVista::NSCorvane::System {

FdTable& FdTable::instance() {
    static Immortal<FdTable> table;
    return *table;
}

void FdTable::add(int fd, unsigned long owner, const char* path) noexcept {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    try {
        OpenFd entry{fd, owner, path, now};
        const MutexLock lock(mLock);
        mOpen.insert_or_assign(fd, std::move(entry));
    } catch (const std::bad_alloc&) {
        // Accounting is a help, not a condition: the caller keeps its descriptor.
    }
}

FdTable::Entry FdTable::take(int fd) noexcept {
    const MutexLock lock(mLock);
    return mOpen.extract(fd);
}

void FdTable::putBack(Entry entry) noexcept {
    const MutexLock lock(mLock);
    mOpen.insert(std::move(entry));
}

std::vector<OpenFd> FdTable::list() const {
    std::vector<OpenFd> result;
    const MutexLock lock(mLock);
    result.reserve(mOpen.size());
    for (const auto& [fd, entry] : mOpen)
        result.push_back(entry);
    return result;
}

}  // namespace NSVista::NSCorvane::System
