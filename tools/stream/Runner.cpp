// SPDX-License-Identifier: Apache-2.0
#include "Runner.h"

#include <corvane/platform/Trace.h>

#include <cerrno>
#include <cstring>

#include "Progress.h"

namespace NSVista::NSCorvane::tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kTraceArea = 4;
/** How often the wishes to end are looked at while nothing completes. */
constexpr std::chrono::milliseconds kLook{100};
/** A run ends this much after the watch has told of its stall. */
constexpr std::chrono::seconds kToTell{1};

}  // namespace

void Runner::run(RunResult& result) {
    const auto begin = Clock::now();
    auto lastProgress = begin;
    const std::chrono::seconds stall(mOptions.stallAfter);
    Progress progress(mOptions, mPorts, mSession);
    while (result.trouble.empty()) {
        submitWhatFits(result);
        if (mayEnd(result) || !result.trouble.empty())
            break;
        const int waited = mSession.wait(
            kLook, [&](client::SessionRequest& request) { inspect(request, result); });
        const auto now = Clock::now();
        if (waited == 0) {
            lastProgress = now;
            mWatch.progress();
        } else if (now - lastProgress > stall + kToTell) {
            result.trouble = "no request completed for " + std::to_string(stall.count()) + " s";
        }
        progress.update(result, mContent.errors());
    }
    // After a refusal those that are under way still complete, as a rule.
    while (!result.trouble.empty() && !mWish.terminated &&
           mSession.wait(kLook, [&](client::SessionRequest& r) { inspect(r, result); }) == 0) {
    }
    if (mWish.terminated)
        result.trouble = "the driver refused a call that must not fail (see the log)";
    result.seconds = Clock::now() - begin;
    const uint64_t under = mSubmitted - result.completed;
    result.lost = under > mLeftOver ? under - mLeftOver : 0;
}

bool Runner::mayEnd(const RunResult& result) const {
    if (mWish.terminated)
        return true;
    const bool all = mOptions.requests != 0 && result.completed >= mOptions.requests;
    return all || (mWish.interrupted && mSubmitted - result.completed <= mLeftOver);
}

void Runner::submitWhatFits(RunResult& result) {
    while (!mWish.interrupted && !mWish.terminated &&
           (mOptions.requests == 0 || mSubmitted < mOptions.requests + mLeftOver) &&
           mSubmitted - result.completed < mOptions.inFlight) {
        bool filled = false;
        const int submitted =
            mSession.submit([&](client::SessionRequest& request) { filled = prepare(request); });
        if (submitted == -EAGAIN)
            return;  // Requests that lost a frame are not used again.
        if (submitted == 0)
            ++mSubmitted;
        if (submitted != 0 || !filled) {
            result.trouble = submitted != 0
                                 ? std::string("a request was refused: ") + strerror(-submitted)
                                 : "a request cannot be filled";
            return;
        }
    }
}

bool Runner::prepare(client::SessionRequest& request) {
    const TraceSection section(kTraceArea, "fill request");
    return mContent.fill(request) && mControls.apply(request) == 0;
}

void Runner::inspect(client::SessionRequest& request, RunResult& result) {
    const TraceSection section(kTraceArea, "check request");
    ++result.completed;
    if (request.number() < mOptions.skip)
        return;
    const client::RequestTimes times = request.times();
    result.total.add(times.total);
    result.buffers.add(times.buffers);
    result.queue.add(times.queue);
    result.driver.add(times.driver);
    result.report.add(times.report);
    if (!mContent.check(request))
        ++result.failed;
    if (mSnapshot != nullptr)
        mSnapshot->take(mPorts, request);
    if (mSaver != nullptr && !mSaver->save(request))
        result.trouble = "frames cannot be saved";
}

}  // namespace NSVista::NSCorvane::tools
