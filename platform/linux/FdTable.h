// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Who owns which descriptor.
 */
#pragma once

#include <map>
#include <vector>

#include <corvane/platform/Mutex.h>
#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::System {

/** The descriptors that were opened through the system layer and not closed yet. Any thread. */
class FdTable {
public:
    using Entry = std::map<int, OpenFd>::node_type;

    /** The process's table. Never destroyed: descriptors are closed until the very end. */
    static FdTable& instance();

    void add(int fd, unsigned long owner, const char* path) noexcept;
    /**
     * Takes an entry out before its descriptor is closed: the moment the kernel has it back,
     * another thread may be given the same number and account it.
     */
    Entry take(int fd) noexcept;
    /** Gives back what take() took, after a failed close. */
    void putBack(Entry entry) noexcept;
    std::vector<OpenFd> list() const;

private:
    mutable Mutex mLock;
    std::map<int, OpenFd> mOpen CORVANE_GUARDED_BY(mLock);
};

}  // namespace NSVista::NSCorvane::System
