// SPDX-License-Identifier: Apache-2.0
// Records of calls: read, told as a story, each call as a line.
#include <corvane/replay/Decode.h>
#include <corvane/replay/RecordReader.h>
#include <corvane/replay/Story.h>

#include <cstring>
#include <vector>

using namespace NSVista::NSCorvane;

namespace {

/** The chunk that would begin at @p at gets the checksum that fits it, or nothing happens. */
void mend(std::vector<uint8_t>& bytes, size_t at) {
    record::ChunkHead head{};
    if (bytes.size() < at + sizeof(head))
        return;
    memcpy(&head, bytes.data() + at, sizeof(head));
    if (head.magic != record::kChunkMagic || head.size > bytes.size() - at - sizeof(head))
        return;
    head.check = 0;
    memcpy(bytes.data() + at, &head, sizeof(head));
    record::Checksum check;
    for (size_t word = 0; word + 8 <= sizeof(head) + head.size; word += 8) {
        uint64_t value = 0;
        memcpy(&value, bytes.data() + at + word, sizeof(value));
        check.add(value);
    }
    head.check = check.value();
    memcpy(bytes.data() + at, &head, sizeof(head));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    for (size_t at = 0; at < size; at += record::kAlignment)
        mend(bytes, at);
    const replay::Record record = replay::readRecord(std::move(bytes));
    replay::tellStory(record);
    for (const replay::Call& call : record.calls)
        replay::callText(call, record.machine);
    return 0;
}
