// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Recorded answers put into the memory of a caller.
 */
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <vector>

#include <corvane/replay/RecordReader.h>

namespace NSVista::NSCorvane::replay {

/** A buffer as the client of a replay queued it. */
struct LiveBuffer {
    uint32_t index = 0;
    int requestFd = -1;
    std::vector<int> dmaBufs;  ///< by plane
};

/** Which buffer a client queues. */
LiveBuffer readBuffer(const v4l2_buffer& buffer);

/**
 * Writes what a call answered; descriptors and addresses stay the caller's.
 * @param arg of the same code as the recorded call; may be null.
 */
void answer(const Call& recorded, void* arg);
/** The same for a buffer, with what the client queued in place of what the record's did. */
void answerBuffer(const Call& recorded, v4l2_buffer& buffer, const LiveBuffer& queued);

}  // namespace NSVista::NSCorvane::replay
