// SPDX-License-Identifier: Apache-2.0
#include "PrivateFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace NSVista::NSCorvane {

namespace {

template <class Write>
int writeWhole(size_t length, Write write) {
    size_t done = 0;
    while (done < length) {
        const ssize_t written = write(done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? -errno : -EIO;
        done += static_cast<size_t>(written);
    }
    return 0;
}

}  // namespace

UniqueFd openPrivate(const char* path, int flags) noexcept {
    return UniqueFd(::open(path, flags | O_CLOEXEC | O_NOFOLLOW, 0600));
}

int writeAll(int fd, const char* text, size_t length) noexcept {
    return writeWhole(length, [=](size_t done) { return ::write(fd, text + done, length - done); });
}

int writeAllAt(int fd, const char* text, size_t length, off_t offset) noexcept {
    return writeWhole(length, [=](size_t done) {
        return ::pwrite(fd, text + done, length - done, offset + static_cast<off_t>(done));
    });
}

}  // namespace NSVista::NSCorvane
