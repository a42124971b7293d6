// SPDX-License-Identifier: Apache-2.0
#include "TraceFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "PrivateFile.h"

namespace NSVista::NSCorvane::trace {

namespace {
constexpr std::string_view kTail = "\n]}\n";
}  // namespace

int TraceFile::open(const std::string& path) {
    // O_NONBLOCK: a pipe without a reader is refused instead of waited for.
    UniqueFd fd = openPrivate(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK);
    if (!fd)
        return -errno;
    // The lock goes with the open file: with the process at the latest. Some file systems have
    // none.
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return -EBUSY;
    if (ftruncate(fd.get(), 0) != 0)
        return -errno;
    mFd = std::move(fd);
    mOffset = 0;
    return 0;
}

int TraceFile::append(const std::string& piece) {
    const std::string whole = piece + std::string(kTail);
    const int result = writeAllAt(mFd.get(), whole.data(), whole.size(), mOffset);
    if (result == 0) {
        mOffset += static_cast<off_t>(piece.size());
        return 0;
    }
    // Where the brackets stood there is room for them; only then cut what follows.
    const int restored = writeAllAt(mFd.get(), kTail.data(), kTail.size(), mOffset);
    if (restored == 0) [[maybe_unused]]
        const int cut = ftruncate(mFd.get(), mOffset + off_t{kTail.size()});
    return result;
}

uint64_t TraceFile::size() const {
    return static_cast<uint64_t>(mOffset) + kTail.size();
}

}  // namespace NSVista::NSCorvane::trace
