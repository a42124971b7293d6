/**
 * @file
 * The table at the end of a run.
 */
#pragma once

#include <vector>

#include "Content.h"
#include "Runner.h"

namespace NSVista::NSCorvane::tools {

/** Prints to stdout. @param session after its stop. */
void printReport(const Options& options, const std::vector<NodePort>& ports,
                 const client::SceneSession& session, const Content& content,
                 const RunResult& result);

}  // namespace NSVista::NSCorvane::tools
