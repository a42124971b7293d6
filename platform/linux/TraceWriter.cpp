// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Properties.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstring>
#include <string>
#include <string_view>

#include "BackgroundWriter.h"
#include "TraceBackend.h"
#include "TraceFile.h"
#include "TraceRing.h"

CORVANE_LOG_UNIT("corvane-Trace")

namespace NSVista::NSCorvane::trace {

namespace {

constexpr size_t kPiece = size_t{256} * 1024;
constexpr uint64_t kDefaultLimit = uint64_t{1} << 30;

/** Events as text. */
class EventText {
public:
    const std::string& text() const { return mText; }
    size_t size() const { return mText.size(); }
    void clear() { mText.clear(); }

    /** The file's beginning. */
    void head(int pid) {
        mPid = pid;
        mText = R"({"displayTimeUnit":"ns","traceEvents":[)"
                "\n"
                R"({"ph":"M","name":"process_name")";
        field(R"(,"pid":)", pid);
        mText += R"(,"args":{"name":)";
        quote(program_invocation_short_name);
        mText += "}}";
    }
    void event(int tid, const Record& record, const char* name) {
        switch (record.kind) {
            case Kind::Begin:
                begin('B', tid, record.ns);
                named(R"(,"name":)", record, name);
                break;
            case Kind::End:
                begin('E', tid, record.ns);
                break;
            case Kind::AsyncBegin:
            case Kind::AsyncEnd:
                begin(record.kind == Kind::AsyncBegin ? 'b' : 'e', tid, record.ns);
                named(R"(,"name":)", record, name);
                // Sections are told apart by category and id, so cookies of different names may be
                // equal.
                named(R"(,"cat":)", record, name);
                field(R"(,"id":")", record.value);
                mText += '"';
                break;
            case Kind::Counter:
                begin('C', tid, record.ns);
                named(R"(,"name":)", record, name);
                field(R"(,"args":{"value":)", record.value);
                mText += '}';
                break;
        }
        mText += '}';
    }
    void end(int tid, int64_t ns) {
        begin('E', tid, ns);
        mText += '}';
    }
    void threadName(int tid, std::string_view name) {
        mText +=
            ",\n"
            R"({"ph":"M","name":"thread_name")";
        field(R"(,"pid":)", mPid);
        field(R"(,"tid":)", tid);
        mText += R"(,"args":{"name":)";
        quote(name);
        mText += "}}";
    }
    /** A mark of the whole trace. */
    void mark(int64_t ns, std::string_view text) {
        begin('i', mPid, ns);
        mText += R"(,"s":"g","name":)";
        quote(text);
        mText += '}';
    }

private:
    void number(int64_t value) {
        char digits[24];
        mText.append(digits, std::to_chars(digits, digits + sizeof(digits), value).ptr);
    }
    void field(std::string_view key, int64_t value) {
        mText += key;
        number(value);
    }
    void named(std::string_view key, const Record& record, const char* name) {
        mText += key;
        quote({name, record.length});
    }
    /** What all events begin with; the caller appends the rest and the brace. */
    void begin(char phase, int tid, int64_t ns) {
        mText +=
            ",\n"
            R"({"ph":")";
        mText += phase;
        field(R"(","pid":)", mPid);
        field(R"(,"tid":)", tid);
        field(R"(,"ts":)", ns / 1000);
        mText += '.';
        mText += static_cast<char>('0' + ns / 100 % 10);
        mText += static_cast<char>('0' + ns / 10 % 10);
        mText += static_cast<char>('0' + ns % 10);
    }
    /** A JSON string; every byte beyond ASCII is escaped, so that the file is always valid. */
    void quote(std::string_view text) {
        mText += '"';
        for (const char character : text) {
            const auto c = static_cast<unsigned char>(character);
            if (c == '"' || c == '\\')
                mText += '\\';
            if (c >= 0x20 && c < 0x7f) {
                mText += character;
                continue;
            }
            static constexpr char kDigits[] = "0123456789abcdef";
            mText += "\\u00";
            mText += kDigits[c >> 4];
            mText += kDigits[c & 15];
        }
        mText += '"';
    }

    std::string mText;
    int mPid = 0;
};

/** Puts events into rings; a thread of its own makes them text and writes the file. */
class FileBackend final : public Backend {
public:
    /** @param parents the one of the process that this one was forked from; kept, not used. */
    explicit FileBackend(const FileBackend* parents) : mParents(parents) {}

    int start(const std::string& path);

    void event(Kind kind, const char* name, int32_t value) override {
        gRings.put(kind, name, value);
    }
    void nameThread(const char* name) override { gRings.nameThread(name); }
    void flush() override { mWriter.flush(); }
    void finish() override { mWriter.stop(); }

private:
    /** What the writer knows of the thread behind a ring. */
    struct Thread {
        int tid = 0;
        size_t depth = 0;  ///< open sections
    };

    using Turn = BackgroundWriter::Turn;

    void work(Turn turn);
    void drain();
    void take(Thread& thread, const Record& record, const char* name);
    void closeSections(Thread& thread, int64_t ns);
    bool limitReached() const;
    void writePiece();
    void end(const char* mark);
    void tellLost();

    [[maybe_unused]] const FileBackend* const mParents;
    BackgroundWriter mWriter;

    // The writer's own from here on; start() sets it up before the writer runs.
    TraceFile mFile;
    EventText mPending;
    Thread mThreads[Rings::kCount];
    size_t mOpen = 0;  ///< open sections of all threads
    uint64_t mLimit = 0;
    uint64_t mLostBefore = 0;
    bool mEnded = false;
};

int FileBackend::start(const std::string& path) {
    if (!gRings.prepare())
        return -ENOMEM;
    if (const int result = mFile.open(path); result != 0)
        return result;
    mLimit = Utils::Properties::property_get_uint64("persist.vendor.camera.corvane.tracelimit",
                                                    kDefaultLimit);
    mPending.head(getpid());
    const int result = mFile.append(mPending.text());
    mPending.clear();
    if (result != 0) {
        mFile.close();
        return result;
    }
    gRings.begin();
    mLostBefore = gRings.lost();
    std::fill(std::begin(mThreads), std::end(mThreads), Thread{});
    mOpen = 0;
    mEnded = false;
    const int started = mWriter.start("TraceWriter", [this](Turn turn) { work(turn); });
    if (started != 0)
        mFile.close();
    return started;
}

void FileBackend::work(Turn turn) {
    drain();
    if (turn == Turn::Flush)
        writePiece();
    if (turn == Turn::Last) {
        end(nullptr);
        mFile.close();
    }
}

void FileBackend::drain() {
    gRings.forEach([this](size_t index, Ring& ring, bool left) {
        Thread& thread = mThreads[index];
        ring.drain([&](const Record& record, const char* name) {
            if (!mEnded)
                take(thread, record, name);
        });
        if (left) {
            closeSections(thread, monotonicInNs());
            thread = Thread{};
        }
    });
}

void FileBackend::take(Thread& thread, const Record& record, const char* name) {
    if (record.kind == kThreadName) {
        thread.tid = record.value;
        mPending.threadName(thread.tid, {name, record.length});
    } else if (record.kind == kGap) {
        // What was lost may have been ends.
        closeSections(thread, record.ns);
        mPending.mark(record.ns, "events of a thread are missing here");
    } else if (record.kind == Kind::End && thread.depth == 0) {
        return;  // its section began before the trace, or before a gap
    } else {
        thread.depth += record.kind == Kind::Begin ? 1 : 0;
        mOpen += record.kind == Kind::Begin ? 1 : 0;
        thread.depth -= record.kind == Kind::End ? 1 : 0;
        mOpen -= record.kind == Kind::End ? 1 : 0;
        mPending.event(thread.tid, record, name);
    }
    if (limitReached())
        end("the trace ends here: its limit is reached");
    else if (mPending.size() >= kPiece)
        writePiece();
}

void FileBackend::closeSections(Thread& thread, int64_t ns) {
    for (; thread.depth > 0 && !mEnded; --thread.depth, --mOpen)
        mPending.end(thread.tid, ns);
}

/** Leaves room for what the end brings. */
bool FileBackend::limitReached() const {
    constexpr uint64_t kEvent = 256;
    return mFile.size() + mPending.size() + (mOpen + 4) * kEvent > mLimit;
}

void FileBackend::writePiece() {
    if (mEnded || mPending.size() == 0)
        return;
    const int result = mFile.append(mPending.text());
    mPending.clear();
    if (result == 0)
        return;
    mEnded = true;
    disable();
    CORVANE_LOGE("Failed to write the trace: %d(%s)", result, strerror(-result));
}

/** Completes the file. @param mark why, when nobody asked for it. */
void FileBackend::end(const char* mark) {
    if (mEnded)
        return;
    const int64_t now = monotonicInNs();
    for (Thread& thread : mThreads)
        closeSections(thread, now);
    tellLost();
    if (mark != nullptr)
        mPending.mark(now, mark);
    writePiece();
    if (mark != nullptr && !mEnded) {
        disable();
        CORVANE_LOGW("%s: %" PRIu64 " bytes", mark, mLimit);
    }
    mEnded = true;
}

void FileBackend::tellLost() {
    const uint64_t lost = gRings.lost() - mLostBefore;
    if (lost == 0)
        return;
    const std::string text = std::to_string(lost) + " events did not fit and are missing";
    mPending.mark(monotonicInNs(), text);
    CORVANE_LOGW("%s", text.c_str());
}

}  // namespace

Backend* startFileBackend(const char* path, int& error) {
    // A forked child cannot use its parent's: the writer is not there, and who knows which locks
    // are held.
    static FileBackend* backend = nullptr;
    static pid_t owner = 0;
    if (owner != getpid())
        backend = new FileBackend(backend);
    owner = getpid();
    error = backend->start(path);
    return error == 0 ? backend : nullptr;
}

}  // namespace NSVista::NSCorvane::trace
