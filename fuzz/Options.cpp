// SPDX-License-Identifier: Apache-2.0
// The command line of corvane-stream, and the raw frames that it reads.
#include <sys/mman.h>
#include <unistd.h>

#include "Options.h"
#include "RawFiles.h"
#include "World.h"

using namespace NSVista::NSCorvane;

namespace {

/** Frames from a file of any size, into a frame of any format. */
void readFrames(fuzz::Bytes& bytes) {
    tools::NodePort port{};
    PixelFormat format{bytes.take<uint32_t>(), 64, 16, bytes.take() % 9U, {}};
    for (auto& plane : format.planes)
        plane = {bytes.take() * 4U, bytes.take<uint16_t>() % 5000U};
    const std::string content = bytes.takeText();
    client::Frame frame;
    const auto source = client::makeMemoryFileSource();
    const client::FrameLayout layout{bytes.take() * 64U, bytes.take()};
    if (frame.allocate(format, layout, *source) != 0)
        return;
    client::DmaBuf file;
    source->allocate(1 + bytes.take<uint16_t>() % 20000U, file);
    if (pwrite(file.fd(), content.data(), content.size(), 0) < 0)
        return;
    tools::FrameReader reader;
    if (!reader.open("/proc/self/fd/" + std::to_string(file.fd()), port, format))
        return;
    const client::FrameMapping planes = frame.map(client::CpuAccess::Write);
    for (int i = 0; i < 5 && reader.read(planes); ++i) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Bytes bytes(data, size);
    if (bytes.take() % 4 == 0) {
        readFrames(bytes);
        return 0;
    }
    // Words apart by line ends; an option file is what the reader of options does not know.
    std::string text(reinterpret_cast<const char*>(data) + (size != 0), size - (size != 0));
    std::vector<char*> words{const_cast<char*>("corvane-stream")};
    for (char* word = strtok(text.data(), "\n"); word != nullptr; word = strtok(nullptr, "\n"))
        words.push_back(word);
    const int count = static_cast<int>(words.size());
    words.push_back(nullptr);
    tools::Options options;
    tools::parseOptions(count, words.data(), options);
    return 0;
}
