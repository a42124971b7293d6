/**
 * @file
 * A descriptor that closes with its owner.
 */
#pragma once

#include <unistd.h>

#include <utility>

namespace NSVista::NSCorvane::sim {

class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : mFd(fd) {}
    OwnedFd(OwnedFd&& other) noexcept : mFd(other.release()) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~OwnedFd() { reset(); }

    int get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    void reset(int fd = -1) {
        if (mFd >= 0)
            ::close(mFd);
        mFd = fd;
    }
    [[nodiscard]] int release() { return std::exchange(mFd, -1); }

private:
    int mFd = -1;
};

}  // namespace NSVista::NSCorvane::sim
