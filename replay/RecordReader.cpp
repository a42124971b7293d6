// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/RecordReader.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <utility>

namespace NSVista::NSCorvane::replay {

namespace {

using Bytes = std::span<const uint8_t>;
using record::ChunkHead;
using record::EventHead;
using record::FileHead;

/** Results below its negative are no kernel's. */
constexpr int kMostErrno = 4095;

struct Aligned {
    char c;
    uint64_t word;
};

std::string fixedText(Bytes bytes) {
    const auto end = std::find(bytes.begin(), bytes.end(), 0);
    std::string text(bytes.begin(), end);
    // What was damaged must not reach a terminal.
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return text;
}

/** A chunk that was found whole. */
struct Chunk {
    uint64_t sequence;
    uint64_t lost;
    uint32_t thread;
    int tid;
    std::string name;
    Bytes events;
};

class Reader {
public:
    explicit Reader(Record& record) : mRecord(record), mBytes(record.bytes) {}

    void read() {
        if (!readHead())
            return;
        findChunks();
        std::sort(mChunks.begin(), mChunks.end(),
                  [](const Chunk& a, const Chunk& b) { return a.sequence < b.sequence; });
        checkSequence();
        for (const Chunk& chunk : mChunks)
            readEvents(chunk);
        for (const RecordedThread& thread : mRecord.threads)
            if (thread.lost != 0)
                miss(std::to_string(thread.lost) + " calls of the thread " + thread.name +
                     " found no room and are missing");
        finishOpenCalls();
        std::stable_sort(mRecord.calls.begin(), mRecord.calls.end(),
                         [](const Call& a, const Call& b) { return a.begin < b.begin; });
    }

private:
    uint64_t number(size_t at, size_t size) const { return mRecord.machine.read(mBytes, at, size); }

    void miss(std::string problem) {
        mRecord.problems.push_back(std::move(problem));
        mRecord.isWhole = false;
    }

    bool readHead() {
        const auto isMagic = [&] {
            return std::equal(std::begin(record::kMagic), std::end(record::kMagic), mBytes.begin());
        };
        if (mBytes.size() < sizeof(record::kMagic) || !isMagic())
            return refuse("this is no record of corvane");
        if (mBytes.size() < sizeof(FileHead))
            return refuse("the record ends within its head");
        const uint64_t order = number(offsetof(FileHead, byteOrder), 4);
        if (order != record::kByteOrder && order != __builtin_bswap32(record::kByteOrder))
            return refuse("the record's head is damaged");
        Machine& machine = mRecord.machine;
        machine.swapped = order != record::kByteOrder;
        machine.longSize = mBytes[offsetof(FileHead, longSize)];
        machine.alignOf64 = mBytes[offsetof(FileHead, alignOf64)];
        mRecord.major = static_cast<uint16_t>(number(offsetof(FileHead, major), 2));
        mRecord.minor = static_cast<uint16_t>(number(offsetof(FileHead, minor), 2));
        mRecord.pid = static_cast<int>(number(offsetof(FileHead, pid), 4));
        mRecord.monotonicNs = static_cast<int64_t>(number(offsetof(FileHead, monotonicNs), 8));
        mRecord.realtimeNs = static_cast<int64_t>(number(offsetof(FileHead, realtimeNs), 8));
        mRecord.program = fixedText(mBytes.subspan(offsetof(FileHead, program), 32));
        mRecord.architecture = fixedText(mBytes.subspan(offsetof(FileHead, machine), 16));
        mRecord.release = fixedText(mBytes.subspan(offsetof(FileHead, release), 32));
        if (mRecord.major > record::kMajor)
            return refuse("the record has version " + std::to_string(mRecord.major) + "." +
                          std::to_string(mRecord.minor) + ", newer than this program's " +
                          std::to_string(record::kMajor) + "." + std::to_string(record::kMinor));
        const auto isSize = [](uint8_t size) { return size == 4 || size == 8; };
        if (!isSize(machine.longSize) || !isSize(machine.alignOf64))
            return refuse("the record's head is damaged");
        const uint64_t size = number(offsetof(FileHead, size), 4);
        const uint64_t noteSize = number(offsetof(FileHead, noteSize), 4);
        if (size < sizeof(FileHead) || size > mBytes.size() || noteSize > size - sizeof(FileHead))
            return refuse("the record ends within its head");
        const Bytes note = mBytes.subspan(sizeof(FileHead), noteSize);
        mRecord.note.assign(note.begin(), note.end());
        mBegin = size;
        mRecord.isRecord = true;
        return true;
    }

    bool refuse(const char* problem) { return refuse(std::string(problem)); }
    bool refuse(std::string problem) {
        miss(std::move(problem));
        return false;
    }

    /** Steps over what is no whole chunk: the rest of an overwritten one, or damage. */
    void findChunks() {
        uint64_t skipped = 0;
        for (size_t at = mBegin; at < mBytes.size();) {
            if (const size_t size = chunkAt(at); size != 0) {
                at += size;
                continue;
            }
            skipped += std::min(record::kAlignment, mBytes.size() - at);
            at += record::kAlignment;
        }
        // Missing chunks are told by their numbers; without a gap it is but the end that is cut
        // off.
        if (skipped != 0)
            mRecord.problems.push_back(std::to_string(skipped) +
                                       " bytes hold no whole chunk: cut off, damaged, or "
                                       "overwritten at the limit");
    }

    /** @return the size of the chunk there, 0 when there is none. */
    size_t chunkAt(size_t at) {
        if (mBytes.size() - at < sizeof(ChunkHead) ||
            number(at + offsetof(ChunkHead, magic), 4) != record::kChunkMagic)
            return 0;
        const uint64_t size = number(at + offsetof(ChunkHead, size), 4);
        if (size % record::kAlignment != 0 || size > record::kChunkMost ||
            size > mBytes.size() - at - sizeof(ChunkHead))
            return 0;
        const size_t whole = sizeof(ChunkHead) + size;
        record::Checksum check;
        for (size_t word = 0; word < whole; word += 8)
            check.add(word == offsetof(ChunkHead, check) ? 0 : number(at + word, 8));
        if (check.value() != number(at + offsetof(ChunkHead, check), 8))
            return 0;
        mChunks.push_back({number(at + offsetof(ChunkHead, sequence), 8),
                           number(at + offsetof(ChunkHead, lost), 8),
                           static_cast<uint32_t>(number(at + offsetof(ChunkHead, thread), 4)),
                           static_cast<int>(number(at + offsetof(ChunkHead, tid), 4)),
                           fixedText(mBytes.subspan(at + offsetof(ChunkHead, name), 16)),
                           mBytes.subspan(at + sizeof(ChunkHead), size)});
        return whole;
    }

    void checkSequence() {
        uint64_t missing = 0;
        uint64_t next = 0;
        for (const Chunk& chunk : mChunks) {
            missing += chunk.sequence - next;
            next = chunk.sequence + 1;
        }
        if (missing != 0)
            miss(std::to_string(missing) + " chunks are missing before the last one");
    }

    struct Thread {
        size_t index;
        std::optional<Call> open;
    };

    Thread& threadOf(const Chunk& chunk) {
        const auto [found, isNew] = mThreads.try_emplace(chunk.thread);
        Thread& thread = found->second;
        if (isNew) {
            thread.index = mRecord.threads.size();
            mRecord.threads.push_back({chunk.tid, {}, 0});
        }
        RecordedThread& told = mRecord.threads[thread.index];
        told.name = chunk.name;
        told.lost = chunk.lost;
        return thread;
    }

    void readEvents(const Chunk& chunk) {
        Thread& thread = threadOf(chunk);
        const auto at = [&](size_t offset, size_t size) {
            return mRecord.machine.read(chunk.events, offset, size);
        };
        for (size_t begin = 0; begin + sizeof(EventHead) <= chunk.events.size();) {
            const uint64_t size = at(begin + offsetof(EventHead, size), 4);
            if (size < sizeof(EventHead) || size % record::kAlignment != 0 ||
                size > chunk.events.size() - begin) {
                miss("a chunk holds what is no event");
                return;
            }
            readEvent(thread, chunk.events.subspan(begin, size));
            begin += size;
        }
    }

    void readEvent(Thread& thread, Bytes event) {
        const auto at = [&](size_t offset, size_t size) {
            return mRecord.machine.read(event, offset, size);
        };
        const auto kind = static_cast<record::EventKind>(at(offsetof(EventHead, kind), 1));
        const auto ns = static_cast<int64_t>(at(offsetof(EventHead, ns), 8));
        const auto code = static_cast<uint32_t>(at(offsetof(EventHead, code), 4));
        const auto handle = static_cast<int64_t>(at(offsetof(EventHead, handle), 8));
        mLast = std::max(mLast, ns);
        if (kind == record::EventKind::Enter) {
            if (thread.open)
                mRecord.calls.push_back(std::move(*thread.open));
            Call& call = thread.open.emplace();
            call.thread = thread.index;
            call.operation = static_cast<record::Operation>(at(offsetof(EventHead, operation), 1));
            call.code = code;
            call.handle = handle;
            call.begin = ns;
            call.before = readPieces(event);
        } else if (kind == record::EventKind::Exit && thread.open) {
            const auto result = static_cast<int32_t>(at(offsetof(EventHead, result), 4));
            if (result < -kMostErrno)
                return miss("a call returned what is no errno");
            Call& call = *thread.open;
            call.returned = true;
            call.end = std::max(ns, call.begin);
            call.handle = handle;
            call.code = code;
            call.result = result;
            call.after = readPieces(event);
            mRecord.calls.push_back(std::move(call));
            thread.open.reset();
        }
    }

    std::vector<Piece> readPieces(Bytes event) const {
        std::vector<Piece> pieces;
        const auto at = [&](size_t offset, size_t size) {
            return mRecord.machine.read(event, offset, size);
        };
        size_t begin = sizeof(EventHead);
        for (uint64_t left = at(offsetof(EventHead, blocks), 2); left != 0; --left) {
            if (event.size() - begin < sizeof(record::BlockHead))
                break;
            const uint64_t size = at(begin + offsetof(record::BlockHead, size), 4);
            const auto what =
                static_cast<uint32_t>(at(begin + offsetof(record::BlockHead, what), 4));
            begin += sizeof(record::BlockHead);
            if (size > event.size() - begin)
                break;
            pieces.push_back({what, event.subspan(begin, size)});
            begin += std::min<size_t>((size + 7) / 8 * 8, event.size() - begin);
        }
        return pieces;
    }

    void finishOpenCalls() {
        for (auto& [number, thread] : mThreads)
            if (thread.open)
                mRecord.calls.push_back(std::move(*thread.open));
        for (Call& call : mRecord.calls)
            if (!call.returned)
                call.end = std::max(mLast, call.begin);
    }

    Record& mRecord;
    const Bytes mBytes;
    size_t mBegin = 0;
    int64_t mLast = 0;
    std::vector<Chunk> mChunks;
    std::map<uint32_t, Thread> mThreads;
};

struct Closer {
    void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

bool Machine::isNative() const {
    return !swapped && longSize == sizeof(long) && alignOf64 == offsetof(Aligned, word);
}

uint64_t Machine::read(std::span<const uint8_t> bytes, size_t at, size_t size) const {
    if (at > bytes.size() || size > bytes.size() - at)
        return 0;
    uint64_t value = 0;
    const bool isLittle = (std::endian::native == std::endian::little) != swapped;
    for (size_t i = 0; i < size; ++i)
        value |= uint64_t{bytes[at + i]} << 8 * (isLittle ? i : size - 1 - i);
    return value;
}

bool Call::isIoctl(unsigned long request) const {
    // Type and number stand where they do on every machine; direction and size do not.
    return operation == record::Operation::Ioctl && (code & 0xffff) == (request & 0xffff);
}

std::span<const uint8_t> Call::piece(uint32_t what, bool isAfter) const {
    for (const Piece& piece : isAfter ? after : before)
        if (piece.what == what)
            return piece.bytes;
    return {};
}

std::string Call::text(bool isAfter) const {
    const Bytes bytes = piece(record::kArgument, isAfter);
    return {bytes.begin(), bytes.end()};
}

int64_t Record::endNs() const {
    int64_t last = monotonicNs;
    for (const Call& call : calls)
        last = std::max(last, call.end);
    return last;
}

Record readRecord(std::vector<uint8_t> bytes) {
    Record record;
    record.bytes = std::move(bytes);
    Reader(record).read();
    return record;
}

Record loadRecord(const std::string& path) {
    Record failed;
    failed.isWhole = false;
    const std::unique_ptr<FILE, Closer> file(fopen(path.c_str(), "rbe"));
    std::vector<uint8_t> bytes;
    uint8_t part[65536];
    size_t count = 0;
    while (file != nullptr && (count = fread(part, 1, sizeof(part), file.get())) != 0)
        bytes.insert(bytes.end(), part, part + count);
    if (file != nullptr && ferror(file.get()) == 0)
        return readRecord(std::move(bytes));
    failed.problems.emplace_back(strerror(errno));
    return failed;
}

}  // namespace NSVista::NSCorvane::replay
