// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The run: requests in, requests out.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include <corvane/client/SceneSession.h>

#include "Content.h"
#include "LatencyHistogram.h"
#include "Options.h"
#include "Snapshot.h"
#include "StallWatch.h"

namespace NSVista::NSCorvane::tools {

/** Requests to end the run; set from signal handlers and from the library's threads. */
struct EndWish {
    std::atomic<bool> interrupted{false};  ///< by the user: a clean end
    std::atomic<bool> terminated{false};   ///< the library asked for the end of the service
};

/** What a run brought. */
struct RunResult {
    uint64_t completed = 0;
    uint64_t failed = 0;  ///< of them, with a frame that was not as expected
    uint64_t lost = 0;    ///< queued, never completed, and not known for that
    std::string trouble;  ///< why the run ended early; empty for nothing
    std::chrono::duration<double> seconds{0};
    LatencyHistogram total, buffers, queue, driver, report;

    bool isGood() const { return failed == 0 && lost == 0 && trouble.empty(); }
};

class Runner {
public:
    /**
     * @param watch is told of each completed request.
     * @param leftOver requests that the device is known to keep for good when nothing follows them.
     * @param snapshot, saver may be null. All are referred to, not copied.
     */
    Runner(const Options& options, const std::vector<NodePort>& ports,
           client::SceneSession& session, Content& content, const EndWish& wish, StallWatch& watch,
           unsigned leftOver, Snapshot* snapshot, FrameSaver* saver, ControlPlan& controls)
        : mOptions(options),
          mPorts(ports),
          mSession(session),
          mContent(content),
          mWish(wish),
          mWatch(watch),
          mLeftOver(leftOver),
          mSnapshot(snapshot),
          mSaver(saver),
          mControls(controls) {}

    /** Streams until all requests are done or the end is wished for; the session goes on. */
    void run(RunResult& result);

private:
    bool mayEnd(const RunResult& result) const;
    void submitWhatFits(RunResult& result);
    bool prepare(client::SessionRequest& request);
    void inspect(client::SessionRequest& request, RunResult& result);

    const Options& mOptions;
    const std::vector<NodePort>& mPorts;
    client::SceneSession& mSession;
    Content& mContent;
    const EndWish& mWish;
    StallWatch& mWatch;
    const unsigned mLeftOver;
    Snapshot* const mSnapshot;
    FrameSaver* const mSaver;
    ControlPlan& mControls;
    uint64_t mSubmitted = 0;
};

}  // namespace NSVista::NSCorvane::tools
