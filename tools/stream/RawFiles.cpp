// SPDX-License-Identifier: Apache-2.0
#include "RawFiles.h"

#include <corvane/V4L2.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "Console.h"
#include "NodeFormats.h"

namespace NSVista::NSCorvane::tools {

namespace {

bool writeHeader(const std::string& path, const NodePort& port, const PixelFormat& format) {
    const File file(fopen(path.c_str(), "we"));
    if (!file) {
        say("%s: %s", path.c_str(), strerror(errno));
        return false;
    }
    fprintf(file.get(), "entity %s\nformat %s\nsize %s\nframe %zu bytes\n", port.entity.c_str(),
            v4l2::formatName(format.format).c_str(), sizeText(format).c_str(), frameBytes(format));
    for (uint32_t i = 0; i < format.planeCount; ++i)
        fprintf(file.get(), "plane %u: %u bytes, %u a line\n", i, format.planes[i].size,
                format.planes[i].stride);
    return fflush(file.get()) == 0;
}

}  // namespace

size_t frameBytes(const PixelFormat& format) {
    size_t bytes = 0;
    for (uint32_t i = 0; i < std::min(format.planeCount, PixelFormat::kMaxPlanes); ++i)
        bytes += format.planes[i].size;
    return bytes;
}

bool FrameSaver::open(const std::string& folder, bool split, const std::vector<NodePort>& ports,
                      const client::SceneSession& session) {
    if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
        say("%s: %s", folder.c_str(), strerror(errno));
        return false;
    }
    for (size_t port = 0; port < ports.size(); ++port) {
        if (ports[port].node.isOutput())
            continue;
        Output output{port, folder + "/" + ports[port].entity, nullptr};
        if (!writeHeader(output.base + ".txt", ports[port], session.format(port)))
            return false;
        const std::string path = output.base + ".raw";
        if (!split)
            output.file.reset(fopen(path.c_str(), "we"));
        if (!split && !output.file) {
            say("%s: %s", path.c_str(), strerror(errno));
            return false;
        }
        mOutputs.push_back(std::move(output));
    }
    return true;
}

bool FrameSaver::save(client::SessionRequest& request) {
    for (const Output& output : mOutputs)
        if (errno = 0; !save(output, request) && mError == 0)
            mError = errno != 0 ? errno : EIO;
    return mError == 0;
}

bool FrameSaver::save(const Output& output, client::SessionRequest& request) {
    File own;
    if (!output.file) {
        char number[32];
        snprintf(number, sizeof(number), "-%06" PRIu64 ".raw", request.number());
        own.reset(fopen((output.base + number).c_str(), "we"));
    }
    FILE* const file = own ? own.get() : output.file.get();
    const client::FrameMapping planes = request.frame(output.port).map(client::CpuAccess::Read);
    bool isWritten = file != nullptr && planes;
    for (size_t i = 0; isWritten && i < planes.planeCount(); ++i)
        isWritten = fwrite(planes.plane(i).data(), 1, planes.plane(i).size(), file) ==
                    planes.plane(i).size();
    return isWritten && (!own || fflush(file) == 0);
}

bool FrameSaver::finish() {
    for (const Output& output : mOutputs)
        if (output.file && fflush(output.file.get()) != 0 && mError == 0)
            mError = errno;
    if (mError != 0)
        say("frames were not saved: %s", strerror(mError));
    return mError == 0;
}

bool FrameReader::open(const std::string& path, const NodePort& port, const PixelFormat& format) {
    mFile.reset(fopen(path.c_str(), "re"));
    struct stat info {};
    if (!mFile || fstat(fileno(mFile.get()), &info) != 0) {
        say("%s: %s", path.c_str(), strerror(errno));
        return false;
    }
    mFrameBytes = frameBytes(format);
    const auto size = static_cast<size_t>(info.st_size);
    if (size != 0 && mFrameBytes != 0 && size % mFrameBytes == 0)
        return true;
    say("%s: %zu bytes are no whole frames of %s: %s %s takes %zu", path.c_str(), size,
        port.entity.c_str(), v4l2::formatName(format.format).c_str(), sizeText(format).c_str(),
        mFrameBytes);
    return false;
}

bool FrameReader::read(const client::FrameMapping& planes) {
    if (const int next = fgetc(mFile.get()); next == EOF)
        rewind(mFile.get());
    else
        ungetc(next, mFile.get());
    for (size_t i = 0; i < planes.planeCount(); ++i)
        if (fread(planes.plane(i).data(), 1, planes.plane(i).size(), mFile.get()) !=
            planes.plane(i).size())
            return false;
    return true;
}

}  // namespace NSVista::NSCorvane::tools
