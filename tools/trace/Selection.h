// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Which calls of a record are wanted.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <corvane/replay/RecordReader.h>
#include <corvane/replay/Story.h>

namespace NSVista::NSCorvane::tools {

/** What was asked for; what is empty selects everything. */
struct Selection {
    std::vector<std::string> ports;  ///< entities or paths of nodes
    std::vector<int64_t> requests;   ///< descriptors
    std::vector<std::string> calls;  ///< parts of names
    std::vector<std::string> threads;
    std::optional<double> from, to;  ///< seconds since the record's start
    double slowerUs = 0;
    bool failed = false;

    /** @param i index of a call. */
    bool takes(const replay::Record& record, const replay::Story& story, size_t i) const;
};

}  // namespace NSVista::NSCorvane::tools
