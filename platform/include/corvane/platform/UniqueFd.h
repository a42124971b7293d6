// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A descriptor that is closed with its owner.
 */
#pragma once

#include <unistd.h>

#include <utility>

namespace NSVista::NSCorvane {

/**
 * Move-only owner of a descriptor of the real kernel, closed by close(2). Descriptors that were
 * opened through the system layer are given back with System::Close() instead.
 *
 * Thread-bound.
 */
class UniqueFd {
public:
    UniqueFd() = default;
    /** @param fd owned from now on; a negative value owns nothing and is kept as it is. */
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    /** The descriptor, which stays owned; negative when there is none. */
    int get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    /** Hands the descriptor over to the caller. */
    [[nodiscard]] int release() { return std::exchange(mFd, -1); }
    /** Closes what is owned, then owns @p fd. */
    void reset(int fd = -1) {
        if (const int old = std::exchange(mFd, fd); old >= 0)
            ::close(old);
    }

private:
    int mFd = -1;
};

}  // namespace NSVista::NSCorvane
