// SPDX-License-Identifier: Apache-2.0
#include "RecordFile.h"

#include <corvane/platform/Clock.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "PrivateFile.h"

namespace NSVista::NSCorvane::record {

namespace {

constexpr uint64_t kLeastLimit = uint64_t{4} << 20;
/** Descriptors of a recorded process have the numbers that they have without a record. */
constexpr int kFirstNumber = 200;

UniqueFd moveUp(UniqueFd fd) {
    UniqueFd high(fcntl(fd.get(), F_DUPFD_CLOEXEC, kFirstNumber));
    return high ? std::move(high) : std::move(fd);
}

/** Into a zeroed field, whose last byte stays zero. */
template <size_t N>
void copyText(char (&to)[N], const char* from) {
    memcpy(to, from, strnlen(from, N - 1));
}

FileHead makeHead(size_t noteSize) {
    struct Aligned {
        char c;
        uint64_t word;
    };
    FileHead head{};
    std::copy(std::begin(kMagic), std::end(kMagic), head.magic);
    head.byteOrder = kByteOrder;
    head.major = kMajor;
    head.minor = kMinor;
    head.longSize = sizeof(long);
    head.alignOf64 = offsetof(Aligned, word);
    head.pid = getpid();
    head.monotonicNs = monotonicInNs();
    head.realtimeNs = clockInNs(CLOCK_REALTIME);
    head.noteSize = static_cast<uint32_t>(noteSize);
    head.size =
        static_cast<uint32_t>((sizeof(head) + noteSize + kAlignment - 1) & ~(kAlignment - 1));
    copyText(head.program, program_invocation_short_name);
    struct utsname system {};
    if (uname(&system) == 0) {
        copyText(head.machine, system.machine);
        copyText(head.release, system.release);
    }
    return head;
}

void addWords(Checksum& check, const char* bytes, size_t size) {
    for (size_t at = 0; at + sizeof(uint64_t) <= size; at += sizeof(uint64_t)) {
        uint64_t word = 0;
        memcpy(&word, bytes + at, sizeof(word));
        check.add(word);
    }
}

}  // namespace

int RecordFile::open(const std::string& path, const std::string& note, uint64_t limit) {
    // O_NONBLOCK: a pipe without a reader is refused instead of waited for.
    UniqueFd fd = openPrivate(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK);
    if (!fd)
        return -errno;
    // Before the lock, which goes with the open file: some file systems have none.
    fd = moveUp(std::move(fd));
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return -EBUSY;
    if (ftruncate(fd.get(), 0) != 0)
        return -errno;
    const FileHead head = makeHead(note.size());
    std::string text(reinterpret_cast<const char*>(&head), sizeof(head));
    text += note;
    text.resize(head.size);
    if (const int result = writeAllAt(fd.get(), text.data(), text.size(), 0); result != 0)
        return result;
    mFd = std::move(fd);
    mLimit = std::max(limit, kLeastLimit);
    mKept = 0;
    mOffset = text.size();
    mSequence = 0;
    mWentRound = false;
    return 0;
}

int RecordFile::append(ChunkHead head, const char* events) {
    head.magic = kChunkMagic;
    head.sequence = mSequence;
    head.check = 0;
    Checksum check;
    addWords(check, reinterpret_cast<const char*>(&head), sizeof(head));
    addWords(check, events, head.size);
    head.check = check.value();
    const size_t size = sizeof(head) + head.size;
    if (mKept == 0 && mOffset + size > mLimit / 4)
        mKept = mOffset;
    if (mOffset + size > mLimit) {
        mOffset = mKept;
        mWentRound = true;
    }
    const auto at = static_cast<off_t>(mOffset);
    int result = writeAllAt(mFd.get(), reinterpret_cast<const char*>(&head), sizeof(head), at);
    if (result == 0)
        result = writeAllAt(mFd.get(), events, head.size, at + off_t{sizeof(head)});
    if (result != 0)
        return result;
    mOffset += size;
    ++mSequence;
    return 0;
}

}  // namespace NSVista::NSCorvane::record
