// SPDX-License-Identifier: Apache-2.0
#include "LineWriter.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <optional>

#include "Immortal.h"

namespace NSVista::NSCorvane {

namespace {

/** What a pipe that is ready takes without blocking, and without mixing it with others' bytes. */
constexpr size_t kPiece = PIPE_BUF;

/** Keeps the SIGPIPE of a write from being delivered. */
class PipeSignalKeeper {
public:
    PipeSignalKeeper() {
        sigemptyset(&mSignal);
        sigaddset(&mSignal, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        mWasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &mSignal, &mBefore);
    }
    ~PipeSignalKeeper() {
        const struct timespec now {};
        if (!mWasPending)
            sigtimedwait(&mSignal, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }
    PipeSignalKeeper(const PipeSignalKeeper&) = delete;
    PipeSignalKeeper& operator=(const PipeSignalKeeper&) = delete;

private:
    sigset_t mSignal{};
    sigset_t mBefore{};
    bool mWasPending = false;
};

using Milliseconds = std::chrono::milliseconds;

/** @return whether the descriptor takes a piece within @p patience. */
bool ready(int fd, Milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    for (Milliseconds left = patience;;) {
        struct pollfd watched = {fd, POLLOUT, 0};
        const int result = ::poll(&watched, 1, static_cast<int>(left.count()));
        if (result >= 0 || errno != EINTR)
            return result > 0 && (watched.revents & POLLOUT) != 0;
        const auto rest = end - std::chrono::steady_clock::now();
        left = std::max(std::chrono::duration_cast<Milliseconds>(rest), Milliseconds::zero());
    }
}

bool isFile(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

/** @param patience how long to wait for room; files have it. @return whether all was written. */
bool put(int fd, bool file, Milliseconds patience, const char* text, size_t length) {
    while (length > 0) {
        if (!file && !ready(fd, patience))
            return false;
        const ssize_t written = ::write(fd, text, file ? length : std::min(length, kPiece));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

LineWriter& LineWriter::standardError() {
    static Immortal<LineWriter> writer(STDERR_FILENO);
    return *writer;
}

/** Waits for whoever writes, as long as for room. @return false when it takes longer. */
bool LineWriter::enter() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    MutexLock lock(mLock);
    while (mBusy) {
        if (mFree.wait_until(lock.native(), end) == std::cv_status::timeout && mBusy)
            return false;
    }
    return mBusy = true;
}

void LineWriter::leave() {
    const MutexLock lock(mLock);
    mBusy = false;
    mFree.notify_one();
}

void LineWriter::write(const char* line, size_t length) noexcept {
    if (!enter()) {
        ++mDropped;
        return;
    }
    writeAlone(line, length);
    leave();
}

void LineWriter::writeAlone(const char* line, size_t length) {
    const bool file = isFile(mFd);
    std::optional<PipeSignalKeeper> keeper;
    if (!file)
        keeper.emplace();
    const uint64_t dropped = mDropped;
    const Milliseconds patience = dropped == 0 ? kPatience : Milliseconds::zero();
    if (dropped != 0) {
        char notice[64];
        const int size =
            snprintf(notice, sizeof(notice), "(%" PRIu64 " log lines were dropped)\n", dropped);
        if (put(mFd, file, patience, notice, static_cast<size_t>(size)))
            mDropped -= dropped;
    }
    if (!put(mFd, file, patience, line, length))
        ++mDropped;
}

}  // namespace NSVista::NSCorvane
