#include "Progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

namespace NSVista::NSCorvane::tools {

Progress::Progress(bool quiet, uint64_t total)
    : mQuiet(quiet), mTerminal(isatty(STDERR_FILENO) == 1), mTotal(total) {
}

Progress::~Progress() {
    if (mLineShown && mTerminal)
        fputs("\r\033[K", stderr);
}

void Progress::update(uint64_t done, uint64_t failed) {
    using namespace std::chrono_literals;
    if (mQuiet)
        return;
    const auto now = Clock::now();
    const auto age = now - mShownAt;
    if (age < (mTerminal ? 200ms : 1000ms))
        return;
    print(done, failed,
          static_cast<double>(done - mShown) / std::chrono::duration<double>(age).count());
    mShownAt = now;
    mShown = done;
    mLineShown = true;
}

void Progress::print(uint64_t done, uint64_t failed, double perSecond) const {
    constexpr uint64_t kWidth = 24;
    if (mTerminal)
        fputc('\r', stderr);
    if (mTerminal && mTotal != 0) {
        fputc('[', stderr);
        for (uint64_t i = 0; i < kWidth; ++i)
            fputc(i < done * kWidth / mTotal ? '#' : '.', stderr);
        fputs("] ", stderr);
    }
    fprintf(stderr, "%" PRIu64, done);
    if (mTotal != 0)
        fprintf(stderr, " of %" PRIu64, mTotal);
    fprintf(stderr, " requests, %.0f a second", perSecond);
    if (failed != 0)
        fprintf(stderr, ", %" PRIu64 " failed", failed);
    fputs(mTerminal ? "\033[K" : "\n", stderr);
}

}  // namespace NSVista::NSCorvane::tools
