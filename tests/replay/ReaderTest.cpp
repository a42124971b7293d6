// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/Decode.h>
#include <corvane/replay/RecordReader.h>
#include <gmock/gmock.h>
#include <linux/ioctl.h>
#include <linux/videodev2.h>

#include <string>
#include <utility>
#include <vector>

using namespace NSVista::NSCorvane;
using namespace NSVista::NSCorvane::replay;
using namespace testing;

namespace {

class Writer {
public:
    explicit Writer(bool swapped) : mSwapped(swapped) {}
    Writer& put(uint64_t value, size_t size) {
        for (size_t i = 0; i < size; ++i)
            bytes.push_back(static_cast<uint8_t>(value >> 8 * (mSwapped ? size - 1 - i : i)));
        return *this;
    }
    Writer& text(const std::string& value, size_t size) {
        for (size_t i = 0; i < size; ++i)
            bytes.push_back(i < value.size() ? static_cast<uint8_t>(value[i]) : 0);
        return *this;
    }
    void append(const std::vector<uint8_t>& other) {
        bytes.insert(bytes.end(), other.begin(), other.end());
    }
    std::vector<uint8_t> bytes;

private:
    bool mSwapped;
};

/** A record of another machine, put together by hand from the format's description. */
class RecordMaker {
public:
    RecordMaker(bool swapped, uint8_t longSize, uint8_t alignOf64, uint16_t major = record::kMajor)
        : mSwapped(swapped), mFile(swapped) {
        mFile.text({record::kMagic, 8}, 8).put(record::kByteOrder, 4).put(major, 2).put(0, 2);
        mFile.put(longSize, 1).put(alignOf64, 1).put(0, 2).put(77, 4).put(1000, 8).put(0, 8);
        mFile.put(sizeof(record::FileHead), 4).put(0, 4).text("prog", 32).text("box", 16);
        mFile.text("6.1", 32);
    }
    /** One half of a call to descriptor 6. */
    RecordMaker& event(record::EventKind kind, uint64_t ns, uint32_t code, int result,
                       const std::vector<uint8_t>& argument) {
        Writer block(mSwapped);
        if (!argument.empty()) {
            block.put(argument.size(), 4).put(record::kArgument, 4).append(argument);
            block.text("", (8 - argument.size() % 8) % 8);
        }
        block.text("", (16 - block.bytes.size() % 16) % 16);
        mEvents.put(ns, 8).put(32 + block.bytes.size(), 4).put(static_cast<uint8_t>(kind), 1);
        mEvents.put(static_cast<uint8_t>(record::Operation::Ioctl), 1);
        mEvents.put(argument.empty() ? 0 : 1, 2).put(6, 8);
        mEvents.put(code, 4).put(static_cast<uint32_t>(result), 4).append(block.bytes);
        return *this;
    }
    RecordMaker& chunk(uint64_t sequence) {
        const Writer events = std::exchange(mEvents, Writer(mSwapped));
        const auto head = [&](uint64_t check) {
            Writer made(mSwapped);
            made.put(record::kChunkMagic, 4).put(events.bytes.size(), 4).put(sequence, 8);
            made.put(check, 8).put(0, 8).put(1, 4).put(78, 4).text("worker", 16).put(0, 8);
            return made.bytes;
        };
        Machine machine;
        machine.swapped = mSwapped;
        record::Checksum check;
        for (const auto& bytes : {head(0), events.bytes})
            for (size_t at = 0; at < bytes.size(); at += 8)
                check.add(machine.read(bytes, at, 8));
        mFile.append(head(check.value()));
        mFile.append(events.bytes);
        return *this;
    }
    const std::vector<uint8_t>& bytes() const { return mFile.bytes; }

private:
    bool mSwapped;
    Writer mFile;
    Writer mEvents{mSwapped};
};

constexpr auto kEnter = record::EventKind::Enter;
constexpr auto kExit = record::EventKind::Exit;

TEST(Decoder, LaysEveryKnownArgumentOutAsThisMachineDoes) {
    for (const IoctlInfo& info : knownIoctls()) {
        EXPECT_EQ(info.argument != nullptr ? sizeOf(*info.argument, Machine{}, sizeof(long)) : 0,
                  _IOC_SIZE(info.code))
            << info.name;
        EXPECT_EQ(findIoctl(info.code, Machine{}), &info) << info.name;
    }
}

/** Where the fields of a queued buffer are depends on all that differs between machines. */
TEST(Reader, ReadsRecordsOfOtherMachinesByNameAndField) {
    struct {
        const char* what;
        bool swapped;
        uint8_t longSize, alignOf64;
        size_t timeSize, size;
    } const machines[] = {
        {"this", false, 8, 8, 8, 88},
        {"big-endian", true, 8, 8, 8, 88},
        {"32 bits", false, 4, 4, 4, 68},
        {"32 bits, long times", false, 4, 8, 8, 80},
        {"32 bits, big-endian", true, 4, 8, 4, 68},
    };
    for (const auto& machine : machines) {
        SCOPED_TRACE(machine.what);
        Writer buffer(machine.swapped);
        const auto align = [&](size_t to) {
            buffer.text("", (to - buffer.bytes.size() % to) % to);
        };
        buffer.put(3, 4).put(V4L2_BUF_TYPE_VIDEO_CAPTURE, 4).put(512, 4);
        buffer.put(V4L2_BUF_FLAG_ERROR | V4L2_BUF_FLAG_REQUEST_FD, 4).put(V4L2_FIELD_NONE, 4);
        align(machine.timeSize == 8 ? machine.alignOf64 : 4);
        buffer.put(12, machine.timeSize).put(34, machine.timeSize).text("", 16).put(9, 4);
        buffer.put(V4L2_MEMORY_DMABUF, 4);
        align(machine.longSize);
        buffer.put(5, 4);
        if (machine.longSize == 8)
            buffer.put(0, 4);  // a union: the descriptor in its first four bytes
        buffer.put(4096, 4).put(0, 4).put(21, 4);
        align(machine.timeSize == 8 || machine.longSize == 8 ? machine.alignOf64 : 4);
        ASSERT_EQ(buffer.bytes.size(), machine.size);
        const uint32_t code = _IOC(_IOC_READ | _IOC_WRITE, 'V', 17, machine.size);
        RecordMaker maker(machine.swapped, machine.longSize, machine.alignOf64);
        maker.event(kEnter, 2000, code, 0, {}).event(kExit, 2500, code, 0, buffer.bytes);
        const Record record = readRecord(maker.chunk(0).bytes());
        EXPECT_THAT(record.problems, IsEmpty());
        EXPECT_EQ(record.machine.isNative(), std::string(machine.what) == "this");
        ASSERT_EQ(record.calls.size(), 1U);
        EXPECT_EQ(
            callText(record.calls[0], record.machine, "cam"),
            "VIDIOC_DQBUF(6<cam>) = 0 {index=3, type=VIDEO_CAPTURE, bytesused=512, "
            "flags=ERROR|REQUEST_FD, field=NONE, timestamp={12, 34}, sequence=9, memory=DMABUF, "
            "fd=5, length=4096, request_fd=21}");
    }
}

std::vector<uint8_t> threeCalls() {
    RecordMaker maker(false, 8, 8);
    const uint32_t code = static_cast<uint32_t>(VIDIOC_STREAMON);
    const std::vector<uint8_t> type = {1, 0, 0, 0};
    for (uint64_t i = 0; i < 2; ++i)
        maker.event(kEnter, 2000 + 100 * i, code, 0, type)
            .event(kExit, 2050 + 100 * i, code, i == 0 ? 0 : -5, {})
            .chunk(i);
    return maker.event(kEnter, 2300, code, 0, type).chunk(2).bytes();
}

TEST(Reader, ShowsWhatItCanOfADamagedRecord) {
    const std::vector<uint8_t> whole = threeCalls();
    const Record good = readRecord(whole);
    EXPECT_THAT(good.problems, IsEmpty());
    ASSERT_EQ(good.calls.size(), 3U);
    EXPECT_EQ(callText(good.calls[1], good.machine),
              "VIDIOC_STREAMON(6, {type=VIDEO_CAPTURE}) = -5 EIO (Input/output error)");
    EXPECT_THAT(callText(good.calls[2], good.machine), HasSubstr("<unfinished ...>"));

    // Cut off anywhere, nothing is made up, and what came before is there.
    for (size_t size = 0; size < whole.size(); ++size) {
        const Record cut = readRecord({whole.begin(), whole.begin() + static_cast<long>(size)});
        EXPECT_LE(cut.calls.size(), 2U);
        EXPECT_EQ(cut.isWhole, cut.isRecord) << size;
    }
    std::vector<uint8_t> broken = whole;
    broken[sizeof(record::FileHead) + sizeof(record::ChunkHead) + 70] ^= 1;
    const Record damaged = readRecord(broken);
    EXPECT_EQ(damaged.calls.size(), 2U);
    EXPECT_FALSE(damaged.isWhole);
    EXPECT_THAT(damaged.problems,
                ElementsAre(HasSubstr("no whole chunk"), HasSubstr("1 chunks are missing")));

    RecordMaker odd(false, 8, 8);
    odd.event(kEnter, 1, VIDIOC_STREAMON, 0, {}).event(kExit, 2, VIDIOC_STREAMON, INT_MIN, {});
    const Record beyond = readRecord(odd.chunk(0).bytes());
    EXPECT_THAT(beyond.problems, ElementsAre("a call returned what is no errno"));
    EXPECT_THAT(callText(beyond.calls.at(0), beyond.machine), HasSubstr("<unfinished ...>"));
}

TEST(Reader, TellsForeignAndNewerFilesApart) {
    EXPECT_THAT(readRecord({'P', 'K', 3, 4}).problems, ElementsAre("this is no record of corvane"));
    EXPECT_THAT(loadRecord("/nonexistent/file").problems, ElementsAre("No such file or directory"));
    const Record newer = readRecord(RecordMaker(false, 8, 8, 2).chunk(0).bytes());
    EXPECT_THAT(newer.problems, ElementsAre(HasSubstr("version 2.0, newer than")));
    EXPECT_EQ(newer.program, "prog");
    EXPECT_FALSE(newer.isRecord);

    record::Checksum check;
    check.add(1);
    EXPECT_EQ(check.value(), 0x83097e57e277906fU) << "of files that are out there";
}

}  // namespace
