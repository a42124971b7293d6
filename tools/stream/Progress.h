// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a run tells while it goes on, on stderr.
 */
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <corvane/client/SceneSession.h>

#include "Device.h"
#include "Options.h"

namespace NSVista::NSCorvane::tools {

struct RunResult;

/**
 * On a terminal a live view, several times a second: a bar and a line a port. Elsewhere a line each
 * second.
 */
class Progress {
public:
    /** All are referred to. */
    Progress(const Options& options, const std::vector<NodePort>& ports,
             const client::SceneSession& session);
    /** Takes the view away. */
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /** @param errors frames that were not as expected, per port. */
    void update(const RunResult& result, const std::vector<uint64_t>& errors);

private:
    using Clock = std::chrono::steady_clock;

    std::string summary(const RunResult& result, double perSecond) const;
    std::string view(const RunResult& result, const std::vector<uint64_t>& errors,
                     double perSecond) const;

    const Options& mOptions;
    const std::vector<NodePort>& mPorts;
    const client::SceneSession& mSession;
    const bool mTerminal;
    Clock::time_point mShownAt = Clock::now();
    uint64_t mShown = 0;
    bool mIsViewShown = false;
};

}  // namespace NSVista::NSCorvane::tools
