#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/UniqueFd.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <string>
#include <unordered_map>

#include "TraceBackend.h"

CORVANE_LOG_UNIT("corvane-Trace")

namespace NSVista::NSCorvane::trace {

namespace {

constexpr size_t kFlushAt = 256 * 1024;
constexpr const char kTail[] = "\n]}\n";

/** Appends a JSON string; every byte beyond ASCII is escaped, so that the file is always valid. */
void appendString(std::string& out, const char* text) {
    out += '"';
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += *text;
        } else if (c < 0x20 || c >= 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += *text;
        }
    }
    out += '"';
}

/** Whole pwrite(2). @return 0 or the negated errno. */
int writeAt(int fd, const std::string& text, off_t offset) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written =
            pwrite(fd, text.data() + done, text.size() - done, offset + static_cast<off_t>(done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return -errno;
        done += static_cast<size_t>(written);
    }
    return 0;
}

/**
 * Writes the Chrome trace event format.
 *
 * Events are kept in memory and written in large pieces, each over the closing brackets of the one
 * before and with brackets of its own, so that the file is complete after every piece.
 */
class FileBackend final : public Backend {
public:
    explicit FileBackend(UniqueFd fd) : mFd(std::move(fd)) {}

    /** @return 0 or the negated errno. */
    int begin() CORVANE_EXCLUDES(mLock);
    void event(Kind kind, const char* name, int32_t value) override;
    void nameThread(const char* name) override;
    void flush() override;
    void finish() override;

private:
    int threadId() CORVANE_REQUIRES(mLock);
    void append(char phase, int tid, int64_t ns) CORVANE_REQUIRES(mLock);
    void appendThreadName(int tid, const char* name) CORVANE_REQUIRES(mLock);
    int writePending() CORVANE_REQUIRES(mLock);
    void report(int result) CORVANE_EXCLUDES(mLock);

    const UniqueFd mFd;
    const int mPid = getpid();
    Mutex mLock;
    std::string mPending CORVANE_GUARDED_BY(mLock);
    off_t mOffset CORVANE_GUARDED_BY(mLock) = 0;
    bool mClosed CORVANE_GUARDED_BY(mLock) = false;
    /** Open sections of every thread seen. */
    std::unordered_map<int, unsigned> mDepths CORVANE_GUARDED_BY(mLock);
};

int FileBackend::begin() {
    MutexLock lock(mLock);
    mPending.reserve(kFlushAt + 4096);
    mPending =
        "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n"
        "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":" +
        std::to_string(mPid) + ",\"args\":{\"name\":";
    appendString(mPending, program_invocation_short_name);
    mPending += "}}";
    return writePending();
}

void FileBackend::event(Kind kind, const char* name, int32_t value) {
    const int64_t now = monotonicInNs();
    MutexLock lock(mLock);
    if (mClosed)
        return;
    const int tid = threadId();
    unsigned& depth = mDepths[tid];
    switch (kind) {
        case Kind::Begin:
            ++depth;
            append('B', tid, now);
            mPending += ",\"name\":";
            appendString(mPending, name);
            break;
        case Kind::End:
            if (depth == 0)
                return;  // its section began before the trace
            --depth;
            append('E', tid, now);
            break;
        case Kind::AsyncBegin:
        case Kind::AsyncEnd:
            append(kind == Kind::AsyncBegin ? 'b' : 'e', tid, now);
            mPending += ",\"name\":";
            appendString(mPending, name);
            // Sections are told apart by category and id, so cookies of different names may be
            // equal.
            mPending += ",\"cat\":";
            appendString(mPending, name);
            mPending += ",\"id\":\"" + std::to_string(value) + '"';
            break;
        case Kind::Counter:
            append('C', tid, now);
            mPending += ",\"name\":";
            appendString(mPending, name);
            mPending += ",\"args\":{\"value\":" + std::to_string(value) + '}';
            break;
    }
    mPending += '}';
    const int result = mPending.size() >= kFlushAt ? writePending() : 0;
    lock.unlock();
    report(result);
}

void FileBackend::nameThread(const char* name) {
    MutexLock lock(mLock);
    if (!mClosed)
        appendThreadName(threadId(), name);
}

void FileBackend::flush() {
    MutexLock lock(mLock);
    const int result = mClosed ? 0 : writePending();
    lock.unlock();
    report(result);
}

void FileBackend::finish() {
    const int64_t now = monotonicInNs();
    MutexLock lock(mLock);
    if (mClosed)
        return;
    for (const auto& [tid, depth] : mDepths) {
        for (unsigned open = depth; open > 0; --open) {
            append('E', tid, now);
            mPending += '}';
        }
    }
    const int result = writePending();
    mClosed = true;
    lock.unlock();
    report(result);
}

/** The calling thread's id, which is named when it is met first. */
int FileBackend::threadId() {
    static thread_local const int tid = Thread::getThisThread();
    if (mDepths.emplace(tid, 0).second) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        appendThreadName(tid, name);
    }
    return tid;
}

/** Appends what all events begin with; the caller appends the rest and the brace. */
void FileBackend::append(char phase, int tid, int64_t ns) {
    char text[128];
    snprintf(text, sizeof(text), ",\n{\"ph\":\"%c\",\"pid\":%d,\"tid\":%d,\"ts\":%" PRId64 ".%03u",
             phase, mPid, tid, ns / 1000, static_cast<unsigned>(ns % 1000));
    mPending += text;
}

void FileBackend::appendThreadName(int tid, const char* name) {
    mPending += ",\n{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":" + std::to_string(mPid) +
                ",\"tid\":" + std::to_string(tid) + ",\"args\":{\"name\":";
    appendString(mPending, name);
    mPending += "}}";
}

/** @return 0, or the negated errno; the trace has then ended. */
int FileBackend::writePending() {
    if (getpid() != mPid) {
        mClosed = true;  // a forked child leaves the file to its parent
        return 0;
    }
    const size_t length = mPending.size();
    mPending += kTail;
    const int result = writeAt(mFd.get(), mPending, mOffset);
    mPending.clear();
    mOffset += static_cast<off_t>(length);
    if (result != 0)
        mClosed = true;
    return result;
}

/** Logs with no lock held: a log sink may trace. */
void FileBackend::report(int result) {
    if (result != 0)
        CORVANE_LOGE("Failed to write the trace: %d(%s)", result, strerror(-result));
}

}  // namespace

std::shared_ptr<Backend> makeFileBackend(const char* path, int& error) {
    UniqueFd fd(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) {
        error = -errno;
        return nullptr;
    }
    auto backend = std::make_shared<FileBackend>(std::move(fd));
    error = backend->begin();
    return error == 0 ? backend : nullptr;
}

}  // namespace NSVista::NSCorvane::trace
