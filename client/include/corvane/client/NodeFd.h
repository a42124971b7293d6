// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A device node that is open for as long as a scope.
 */
#pragma once

#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::client {

/** Owns a descriptor of the system layer. */
class NodeFd {
public:
    NodeFd(const char* path, int flags) : mFd(System::Open(path, flags, owner())) {}
    ~NodeFd() {
        if (*this)
            System::Close(mFd, owner());
    }
    NodeFd(const NodeFd&) = delete;
    NodeFd& operator=(const NodeFd&) = delete;

    explicit operator bool() const { return mFd >= 0; }
    /** The negated errno of a failed open. */
    int error() const { return mFd; }
    /** @return the kernel's answer, or the negated errno. */
    int ioctl(unsigned long request, void* arg) {
        return System::Ioctl(mFd, static_cast<int>(request), arg, 0);
    }

private:
    unsigned long owner() const { return reinterpret_cast<unsigned long>(this); }

    int mFd;
};

}  // namespace NSVista::NSCorvane::client
