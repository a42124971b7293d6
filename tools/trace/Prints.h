// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The forms in which a record is shown.
 */
#pragma once

#include <cstdio>
#include <string>

#include <corvane/replay/RecordReader.h>
#include <corvane/replay/Story.h>

#include "Selection.h"

namespace NSVista::NSCorvane::tools {

/** A record with all that is known of it. */
struct Evidence {
    replay::Record record;
    replay::Story story;

    double secondsOf(int64_t ns) const {
        return static_cast<double>(ns - record.monotonicNs) / 1e9;
    }
    /** What a call was made on; empty where that is not known. */
    std::string labelOf(size_t call) const;
    /** When the record began, in local time. */
    std::string startText() const;
};

/** A line a call, as strace writes it. */
void show(const Evidence& evidence, const Selection& selection, FILE* out);
/** The same for machines. */
void printJson(const Evidence& evidence, const Selection& selection, FILE* out);
/** A timeline in the Chrome trace event format: a track a thread, a buffer of a node, a request. */
void printTimeline(const Evidence& evidence, FILE* out);
/** One page of HTML without outside parts. */
void printReport(const Evidence& evidence, FILE* out);

}  // namespace NSVista::NSCorvane::tools
