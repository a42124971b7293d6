// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/ULog.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <string_view>

#include "LineWriter.h"
#include "PrivateFile.h"
#include "ULogSink.h"

CORVANE_LOG_UNIT("corvane-ULog")

namespace NSVista::Utils::ULog {

namespace {

char levelLetter(int level) {
    static constexpr char kLetters[] = {'?', 'E', 'W', 'I', 'K', 'D', 'V'};
    return level >= kError && level <= kVerbose ? kLetters[level] : kLetters[0];
}

/** Appends to a line that is cut at its end. */
class LineText {
public:
    void add(const char* text, size_t length) {
        length = std::min(length, static_cast<size_t>(mText + kMost - mEnd));
        memcpy(mEnd, text, length);
        mEnd += length;
    }
    void add(char c) { add(&c, 1); }
    void number(long value) {
        char text[24];
        add(text, static_cast<size_t>(std::to_chars(text, text + sizeof(text), value).ptr - text));
    }
    /** @return the line with its line feed. */
    std::string_view finish() {
        *mEnd = '\n';
        return {mText, static_cast<size_t>(mEnd + 1 - mText)};
    }

private:
    static constexpr size_t kMost = 1279;
    char mText[kMost + 1];
    char* mEnd = mText;
};

}  // namespace

std::unique_ptr<FileULogger> FileULogger::open(const char* path) try {
    NSCorvane::UniqueFd fd = NSCorvane::openPrivate(path, O_WRONLY | O_CREAT | O_APPEND);
    if (!fd)
        return nullptr;
    auto logger = std::make_unique<FileULogger>(fd.get());
    logger->mOwned = std::move(fd);
    return logger;
}
CORVANE_NO_THROW

FileULogger::FileULogger(int fd) : mFd(fd), mWriter(std::make_unique<NSCorvane::LineWriter>(fd)) {
}

FileULogger::~FileULogger() = default;

void FileULogger::log(uint32_t /*module*/, const char* tag, int level, const char* text,
                      size_t length) {
    struct timespec now {};
    NSCorvane::getCurrentLogTime(now);
    LineText line;
    char time[NSCorvane::kLogTimeSize];
    line.add(time, NSCorvane::formatLogTime(now, time));
    line.add(' ');
    line.number(getpid());
    line.add(' ');
    line.number(Thread::getThisThread());
    line.add(' ');
    line.add(levelLetter(level));
    line.add(' ');
    line.add(tag, strnlen(tag, 128));
    line.add(": ", 2);
    line.add(text, std::min(length, kTextMax));
    const std::string_view whole = line.finish();
    mWriter->write(whole.data(), whole.size());
}

void FileULogger::flush(int wait) {
    if (wait != 0 && mOwned)
        fdatasync(mFd);
}

RingULogger::RingULogger(size_t capacity) : mCapacity(std::max<size_t>(capacity, 1)) {
}

void RingULogger::log(uint32_t module, const char* tag, int level, const char* text,
                      size_t length) try {
    Line line{module, level, tag, std::string(text, length)};
    NSCorvane::MutexLock lock(mLock);
    if (mLines.size() < mCapacity) {
        mLines.push_back(std::move(line));
        return;
    }
    mLines[mNext] = std::move(line);
    mNext = (mNext + 1) % mCapacity;
} catch (const std::bad_alloc&) {
    // The line is lost: a fatal one would come here again.
}

std::vector<RingULogger::Line> RingULogger::take() try {
    std::vector<Line> lines;
    NSCorvane::MutexLock lock(mLock);
    lines.swap(mLines);
    std::rotate(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(mNext), lines.end());
    mNext = 0;
    return lines;
}
CORVANE_NO_THROW

}  // namespace NSVista::Utils::ULog
