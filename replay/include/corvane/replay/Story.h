// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the calls of a record were about: nodes, requests and buffers.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>
#include <corvane/replay/RecordReader.h>

namespace NSVista::NSCorvane::replay {

/** What a descriptor or a directory stood for while it was open. */
struct CORVANE_EXPORT Object {
    enum class Kind { Node, Request, Export, Directory };
    Kind kind;
    std::string path;    ///< of a node or a directory
    std::string entity;  ///< of a node, as far as the record tells
    int64_t handle;
    std::optional<size_t> maker;  ///< the call that opened it
    std::vector<size_t> calls;    ///< on it, its close included

    /** The entity, else the path, else "request 12" and the like. */
    std::string label() const;
};

/** A buffer on its way through a node. */
struct BufferUse {
    size_t node;  ///< index into Story::objects
    uint32_t index;
    size_t queue;                   ///< call; the last one where several failed
    std::optional<size_t> dequeue;  ///< the call that gave it back
    bool queued = false;            ///< its call succeeded
    bool flawed = false;            ///< given back with the error flag
    bool remapped = false;          ///< another dma-buf than at its index before
};

/** A request from its first buffer to its reinitialisation. */
struct CORVANE_EXPORT Cycle {
    size_t request;  ///< index into Story::objects
    std::vector<BufferUse> buffers;
    std::vector<size_t> calls;       ///< on the request, and those that bound buffers to it
    std::optional<size_t> queue;     ///< MEDIA_REQUEST_IOC_QUEUE
    std::optional<size_t> reinit;    ///< MEDIA_REQUEST_IOC_REINIT
    std::optional<int64_t> readyNs;  ///< when the client was seen to know of the completion
    int64_t beginNs = 0;             ///< of its first call
    int64_t queuedNs = 0;            ///< when its queueing returned, 0 while it has not
    int64_t doneNs = 0;              ///< when its last buffer was dequeued, 0 while one is out
    bool wasQueued = false;

    bool isDone() const { return wasQueued && doneNs != 0; }
    bool isFlawed() const;
};

/** What a record tells. It does not keep the record. */
struct CORVANE_EXPORT Story {
    static constexpr size_t kNone = ~size_t{0};

    std::vector<Object> objects;
    std::vector<size_t> objectOf;  ///< by call; #kNone: on none that is known
    std::vector<Cycle> cycles;     ///< as they began
    std::vector<size_t> cycleOf;   ///< by call; #kNone: of none
};

/**
 * A request counts as ready when the client did the first thing that only a completed one allows:
 * it reinitialised it, or dequeued one of its buffers. What a poll told it the record does not
 * show.
 */
CORVANE_EXPORT Story tellStory(const Record& record);

}  // namespace NSVista::NSCorvane::replay
