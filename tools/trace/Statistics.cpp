// SPDX-License-Identifier: Apache-2.0
#include "Statistics.h"

#include <corvane/replay/Decode.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace NSVista::NSCorvane::tools {

namespace {

using replay::BufferUse;
using replay::Call;
using replay::Cycle;

constexpr size_t kSlowest = 12;

void countCycle(const Cycle& cycle, Statistics& all) {
    if (!cycle.wasQueued) {
        all.refused += cycle.queue || cycle.isFlawed() ? 1 : 0;
        return;
    }
    ++all.queued;
    all.flawed += cycle.isFlawed() ? 1 : 0;
    all.lost += cycle.readyNs ? 0 : 1;
    if (!cycle.isDone() || !cycle.readyNs)
        return;
    ++all.done;
    all.queueing.push_back(cycle.queuedNs - cycle.beginNs);
    all.device.push_back(*cycle.readyNs - cycle.queuedNs);
    all.dequeueing.push_back(std::max<int64_t>(cycle.doneNs - *cycle.readyNs, 0));
    all.whole.push_back(cycle.doneNs - cycle.beginNs);
}

void countBuffer(const BufferUse& use, PortCounts& port) {
    port.queued += use.queued ? 1 : 0;
    port.refused += use.queued ? 0 : 1;
    port.dequeued += use.dequeue ? 1 : 0;
    port.flawed += use.flawed ? 1 : 0;
    port.remapped += use.remapped ? 1 : 0;
}

void countPorts(const replay::Story& story, Statistics& all) {
    std::map<std::string, PortCounts> ports;
    for (const Cycle& cycle : story.cycles)
        for (const BufferUse& use : cycle.buffers) {
            const replay::Object& node = story.objects[use.node];
            PortCounts& port = ports[node.path];
            port.path = node.path;
            port.label = node.label();
            countBuffer(use, port);
        }
    for (auto& [path, port] : ports)
        all.ports.push_back(std::move(port));
}

void countCall(const Evidence& evidence, size_t i, Statistics& all) {
    const Call& call = evidence.record.calls[i];
    const std::string name = replay::callName(call, evidence.record.machine);
    CallCounts& counts = all.calls[name];
    ++counts.count;
    counts.total += call.duration();
    counts.longest = std::max(counts.longest, call.duration());
    if (call.returned && call.result >= 0)
        return;
    const std::string label = evidence.labelOf(i);
    const std::string error = call.returned ? replay::errorName(call.result) : "never returned";
    const auto [found, isNew] =
        all.failures.try_emplace(name + (label.empty() ? "" : " on " + label) + ": " + error);
    found->second.first = isNew ? i : found->second.first;
    ++found->second.count;
}

void findSlowest(const replay::Story& story, Statistics& all) {
    const auto timeOf = [&](size_t i) {
        const Cycle& cycle = story.cycles[i];
        return cycle.isDone() ? cycle.doneNs - cycle.beginNs : std::numeric_limits<int64_t>::max();
    };
    for (size_t i = 0; i < story.cycles.size(); ++i)
        if (story.cycles[i].wasQueued)
            all.slowest.push_back(i);
    const size_t kept = std::min(kSlowest, all.slowest.size());
    std::partial_sort(all.slowest.begin(), all.slowest.begin() + static_cast<ptrdiff_t>(kept),
                      all.slowest.end(), [&](size_t a, size_t b) { return timeOf(a) > timeOf(b); });
    all.slowest.resize(kept);
}

}  // namespace

Durations::Durations(std::vector<int64_t> ns) : mNs(std::move(ns)) {
    std::sort(mNs.begin(), mNs.end());
}

int64_t Durations::quantile(double share) const {
    if (mNs.empty())
        return 0;
    const double place = std::ceil(share * static_cast<double>(mNs.size()));
    return mNs[std::clamp<size_t>(static_cast<size_t>(place), 1, mNs.size()) - 1];
}

Statistics countAll(const Evidence& evidence) {
    Statistics all;
    int64_t first = std::numeric_limits<int64_t>::max();
    int64_t last = 0;
    for (const Cycle& cycle : evidence.story.cycles) {
        countCycle(cycle, all);
        if (cycle.isDone()) {
            first = std::min(first, cycle.beginNs);
            last = std::max(last, cycle.doneNs);
        }
    }
    if (last > first)
        all.perSecond = static_cast<double>(all.done) * 1e9 / static_cast<double>(last - first);
    countPorts(evidence.story, all);
    for (size_t i = 0; i < evidence.record.calls.size(); ++i)
        countCall(evidence, i, all);
    findSlowest(evidence.story, all);
    return all;
}

}  // namespace NSVista::NSCorvane::tools
