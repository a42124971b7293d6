// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The table at the end of a run.
 */
#pragma once

#include <string>
#include <vector>

#include "Content.h"
#include "Runner.h"

namespace NSVista::NSCorvane::tools {

/** "12.5 us" or "3.40 ms". */
std::string durationText(LatencyHistogram::Duration duration);

/** Prints to stdout, a table or, where the options ask for it, JSON. @param session after its stop.
 */
void printReport(const Options& options, const std::vector<NodePort>& ports,
                 const client::SceneSession& session, const Content& content,
                 const RunResult& result);

}  // namespace NSVista::NSCorvane::tools
