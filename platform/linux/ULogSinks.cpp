#include <corvane/platform/Service.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/ULog.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace NSVista::Utils::ULog {

namespace {

char levelLetter(int level) {
    static constexpr char kLetters[] = {'?', 'E', 'W', 'I', 'K', 'D', 'V'};
    return level >= kError && level <= kVerbose ? kLetters[level] : kLetters[0];
}

/** Writes one line with one call, which stdio keeps whole among threads. */
void writeLine(FILE* stream, const char* tag, int level, const char* text, size_t length) {
    struct timespec now {};
    NSCorvane::getCurrentLogTime(now);
    char line[1280];
    const int result = snprintf(line, sizeof(line), "%s %d %d %c %.128s: %.*s\n",
                                NSCorvane::convertToFormattedLogTime(now).c_str(), getpid(),
                                Thread::getThisThread(), levelLetter(level), tag,
                                static_cast<int>(std::min<size_t>(length, 1023)), text);
    if (result > 0)
        fwrite(line, 1, std::min(static_cast<size_t>(result), sizeof(line) - 1), stream);
}

int syslogPriority(int level) {
    switch (level) {
        case kError:
            return LOG_ERR;
        case kWarning:
            return LOG_WARNING;
        case kInfo:
            return LOG_INFO;
        case kKeyEvent:
            return LOG_NOTICE;
        default:
            return LOG_DEBUG;
    }
}

}  // namespace

void StreamULogger::log(uint32_t /*module*/, const char* tag, int level, const char* text,
                        size_t length) {
    writeLine(mStream, tag, level, text, length);
}

void StreamULogger::flush(int /*wait*/) {
    fflush(mStream);
}

std::unique_ptr<FileULogger> FileULogger::open(const char* path) {
    FILE* const file = fopen(path, "ae");
    if (file == nullptr)
        return nullptr;
    return std::unique_ptr<FileULogger>(new FileULogger(file));
}

FileULogger::FileULogger(FILE* file) : mFile(file) {
}

FileULogger::~FileULogger() {
    fclose(mFile);
}

void FileULogger::log(uint32_t /*module*/, const char* tag, int level, const char* text,
                      size_t length) {
    writeLine(mFile, tag, level, text, length);
}

void FileULogger::flush(int wait) {
    fflush(mFile);
    if (wait != 0)
        fdatasync(fileno(mFile));
}

void SyslogULogger::log(uint32_t /*module*/, const char* tag, int level, const char* text,
                        size_t length) {
    syslog(syslogPriority(level), "%s: %.*s", tag, static_cast<int>(length), text);
}

RingULogger::RingULogger(size_t capacity) : mCapacity(std::max<size_t>(capacity, 1)) {
}

void RingULogger::log(uint32_t module, const char* tag, int level, const char* text,
                      size_t length) {
    Line line{module, level, tag, std::string(text, length)};
    NSCorvane::MutexLock lock(mLock);
    if (mLines.size() < mCapacity) {
        mLines.push_back(std::move(line));
        return;
    }
    mLines[mNext] = std::move(line);
    mNext = (mNext + 1) % mCapacity;
}

std::vector<RingULogger::Line> RingULogger::take() {
    std::vector<Line> lines;
    NSCorvane::MutexLock lock(mLock);
    lines.swap(mLines);
    std::rotate(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(mNext), lines.end());
    mNext = 0;
    return lines;
}

}  // namespace NSVista::Utils::ULog
