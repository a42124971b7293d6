// SPDX-License-Identifier: Apache-2.0
#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "Console.h"
#include "Report.h"
#include "Runner.h"

namespace NSVista::NSCorvane::tools {

namespace {

template <class... Args>
std::string textOf(const char* format, Args... args) {
    char text[160];
    snprintf(text, sizeof(text), format, args...);
    return text;
}

/** A line that does not wrap: the view goes back by lines. */
std::string viewLine(std::string text, size_t columns) {
    if (columns != 0 && text.size() >= columns)
        text.resize(columns - 1);
    return text + "\033[K\n";
}

}  // namespace

Progress::Progress(const Options& options, const std::vector<NodePort>& ports,
                   const client::SceneSession& session)
    : mOptions(options), mPorts(ports), mSession(session), mTerminal(isatty(STDERR_FILENO) == 1) {
}

Progress::~Progress() {
    if (mIsViewShown)
        fprintf(stderr, "\r\033[%zuA\033[J", mPorts.size() + 1);
}

void Progress::update(const RunResult& result, const std::vector<uint64_t>& errors) {
    using namespace std::chrono_literals;
    const auto now = Clock::now();
    const auto age = now - mShownAt;
    if (mOptions.quiet || age < (mTerminal ? 200ms : 1000ms))
        return;
    const double perSecond =
        static_cast<double>(result.completed - mShown) / std::chrono::duration<double>(age).count();
    if (mTerminal) {
        const std::string up = textOf("\r\033[%zuA", mPorts.size() + 1);
        fputs(((mIsViewShown ? up : "") + view(result, errors, perSecond)).c_str(), stderr);
        mIsViewShown = true;
    } else {
        fprintf(stderr, "%s\n", summary(result, perSecond).c_str());
    }
    mShownAt = now;
    mShown = result.completed;
}

std::string Progress::summary(const RunResult& result, double perSecond) const {
    std::string text = textOf("%" PRIu64, result.completed);
    if (mOptions.requests != 0)
        text += textOf(" of %" PRIu64, mOptions.requests);
    text += textOf(" requests, %.0f a second", perSecond);
    return result.failed == 0 ? text : text + textOf(", %" PRIu64 " failed", result.failed);
}

std::string Progress::view(const RunResult& result, const std::vector<uint64_t>& errors,
                           double perSecond) const {
    constexpr uint64_t kWidth = 16;
    std::string head;
    if (mOptions.requests != 0) {
        const uint64_t done = std::min(kWidth, result.completed * kWidth / mOptions.requests);
        head = "[" + std::string(done, '#') + std::string(kWidth - done, '.') + "] ";
    }
    const size_t columns = terminalWidth(STDERR_FILENO);
    std::string text = viewLine(
        head + summary(result, perSecond) + ", latency " + durationText(result.total.quantile(0.5)),
        columns);
    const auto statistics = mSession.statistics();
    for (size_t i = 0; i < mPorts.size(); ++i) {
        const client::PortStatistics& port = statistics[i];
        text += viewLine(
            textOf("  %-16.16s %6.0f/s %2" PRIu64 " in flight %3" PRIu64 " bad %3" PRIu64 " remaps",
                   port.name.c_str(), perSecond,
                   port.queued - std::min(port.queued, port.dequeued + port.lost), errors[i],
                   port.remapped),
            columns);
    }
    return text;
}

}  // namespace NSVista::NSCorvane::tools
