// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a record comes to.
 */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Prints.h"

namespace NSVista::NSCorvane::tools {

/** Times of many things, sorted. */
class Durations {
public:
    explicit Durations(std::vector<int64_t> ns);
    bool empty() const { return mNs.empty(); }
    size_t count() const { return mNs.size(); }
    /** @param share 0 to 1. */
    int64_t quantile(double share) const;
    const std::vector<int64_t>& sorted() const { return mNs; }

private:
    std::vector<int64_t> mNs;
};

/** What a node did for requests. */
struct PortCounts {
    std::string label, path;
    uint64_t queued = 0, dequeued = 0, refused = 0, flawed = 0, remapped = 0;
};

/** Calls of one name that failed in one way. */
struct FailureCounts {
    uint64_t count = 0;
    size_t first = 0;  ///< call
};

struct CallCounts {
    uint64_t count = 0;
    int64_t total = 0, longest = 0;
};

struct Statistics {
    uint64_t queued = 0, done = 0, flawed = 0, refused = 0, lost = 0;
    double perSecond = 0;  ///< done, from the first one's beginning to the last one's end
    std::vector<PortCounts> ports;
    /** By call, object and error; errors that are no failures, such as the end of a walk, too. */
    std::map<std::string, FailureCounts> failures;
    std::map<std::string, CallCounts> calls;  ///< by name
    /** Phases of the done requests: until queued, until ready, until dequeued; and all of it. */
    std::vector<int64_t> queueing, device, dequeueing, whole;
    std::vector<size_t> slowest;  ///< cycles, the slowest first
};

Statistics countAll(const Evidence& evidence);

}  // namespace NSVista::NSCorvane::tools
