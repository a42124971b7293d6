// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Frames from and to files: the planes one after the other, as the format lays them out.
 */
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <corvane/client/SceneSession.h>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

/** Bytes of a frame in a file. */
size_t frameBytes(const PixelFormat& format);

/**
 * Writes the frames of capture ports to a folder: ENTITY.raw, or ENTITY-NUMBER.raw for each, and
 * ENTITY.txt that describes them.
 */
class FrameSaver {
public:
    /**
     * Makes the folder, unless it is there, and the files.
     * @param split a file for each frame, named with its request's number.
     * @return false with a line on stderr.
     */
    bool open(const std::string& folder, bool split, const std::vector<NodePort>& ports,
              const client::SceneSession& session);
    /** Appends a request's frames. @return false when they could not be written or mapped. */
    bool save(client::SessionRequest& request);
    /** Writes out what is buffered. @return false with a line on stderr when frames were lost. */
    bool finish();

private:
    struct Output {
        size_t port;
        std::string base;  ///< path without an end
        File file;         ///< null where each frame has its own
    };
    bool save(const Output& output, client::SessionRequest& request);

    std::vector<Output> mOutputs;
    int mError = 0;
};

/** The frames of one output port, from a file that begins anew at its end. */
class FrameReader {
public:
    /** @return false, with a line on stderr, for a file that holds no whole frame. */
    bool open(const std::string& path, const NodePort& port, const PixelFormat& format);
    /** Fills a frame. @return false when the file cannot be read. */
    bool read(const client::FrameMapping& planes);

private:
    File mFile;
    size_t mFrameBytes = 0;
};

}  // namespace NSVista::NSCorvane::tools
