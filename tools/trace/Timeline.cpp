// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/Decode.h>

#include <map>
#include <string_view>

#include "Json.h"
#include "Prints.h"

namespace NSVista::NSCorvane::tools {

namespace {

using replay::Cycle;
using replay::Object;

constexpr int kThreads = 1;
constexpr int kRequests = 2;
constexpr int kFirstNode = 100;  ///< each node is a process of its own: its buffers are tracks

class TimelineWriter {
public:
    TimelineWriter(const Evidence& evidence, FILE* out) : mEvidence(evidence), mOut(out) {}

    void write() {
        fputs(R"({"displayTimeUnit":"ns","traceEvents":[)", mOut);
        name("process_name", kThreads, 0, "threads of " + mEvidence.record.program);
        for (const auto& thread : mEvidence.record.threads)
            name("thread_name", kThreads, thread.tid, thread.name);
        for (size_t i = 0; i < mEvidence.record.calls.size(); ++i)
            writeCall(i);
        writeObjects();
        for (size_t i = 0; i < mEvidence.story.cycles.size(); ++i)
            writeCycle(i);
        fputs("\n]}\n", mOut);
    }

private:
    void event(const Json& json) {
        fprintf(mOut, "%s\n%s", mIsFirst ? "" : ",", jsonText(json).c_str());
        mIsFirst = false;
    }

    void name(const char* what, int process, int64_t track, std::string_view text) {
        event({{"ph", "M"},
               {"name", what},
               {"pid", process},
               {"tid", track},
               {"args", {{"name", text}}}});
    }

    /** Begins an event; the caller may add to it. */
    Json begin(const char* phase, int process, int64_t track, std::string_view text,
               int64_t ns) const {
        return {{"ph", phase},
                {"name", text},
                {"pid", process},
                {"tid", track},
                {"ts", static_cast<double>(ns - mEvidence.record.monotonicNs) / 1e3}};
    }

    void slice(int process, int64_t track, std::string_view text, int64_t from, int64_t to,
               std::string_view detail = {}) {
        Json json = begin("X", process, track, text, from);
        json["dur"] = static_cast<double>(to - from) / 1e3;
        if (!detail.empty())
            json["args"] = {{"call", detail}};
        event(json);
    }

    void writeCall(size_t i) {
        const replay::Call& call = mEvidence.record.calls[i];
        const replay::Machine& machine = mEvidence.record.machine;
        const std::string label = mEvidence.labelOf(i);
        std::string text = replay::callName(call, machine) + (label.empty() ? "" : " " + label);
        if (!call.returned)
            text += " (never returned)";
        else if (call.result < 0)
            text += " " + replay::errorName(call.result);
        slice(kThreads, mEvidence.record.threads[call.thread].tid, text, call.begin, call.end,
              replay::callText(call, machine, label));
    }

    void writeObjects() {
        name("process_name", kRequests, 0, "requests");
        for (size_t i = 0; i < mEvidence.story.objects.size(); ++i) {
            const Object& object = mEvidence.story.objects[i];
            if (object.kind == Object::Kind::Request)
                name("thread_name", kRequests, static_cast<int64_t>(i), object.label());
            else if (object.kind == Object::Kind::Node)
                name(
                    "process_name", kFirstNode + static_cast<int>(i), 0,
                    object.entity.empty() ? object.path : object.entity + " (" + object.path + ")");
        }
    }

    void writeCycle(size_t i) {
        const Cycle& cycle = mEvidence.story.cycles[i];
        const auto track = static_cast<int64_t>(cycle.request);
        const int64_t end = mEvidence.record.endNs();
        const int64_t ready = cycle.readyNs.value_or(end);
        const int64_t done = cycle.doneNs != 0 ? cycle.doneNs : end;
        const int64_t queued = cycle.queuedNs != 0 ? cycle.queuedNs : cycle.beginNs;
        std::string text = "cycle " + std::to_string(i);
        if (cycle.isFlawed())
            text += " (flawed)";
        // A slice ends where the request is used again, whatever its buffers still do.
        const int64_t whole =
            cycle.reinit ? std::max(ready, mEvidence.record.calls[*cycle.reinit].end) : done;
        slice(kRequests, track, text, cycle.beginNs, whole);
        slice(kRequests, track, "queueing", cycle.beginNs, queued);
        if (cycle.wasQueued)
            slice(kRequests, track, "device", queued, ready);
        for (const replay::BufferUse& use : cycle.buffers)
            if (use.queued)
                writeBuffer(use, i, end);
    }

    void writeBuffer(const replay::BufferUse& use, size_t cycle, int64_t end) {
        const int process = kFirstNode + static_cast<int>(use.node);
        const std::string track = "buffer " + std::to_string(use.index);
        const int64_t from = mEvidence.record.calls[use.queue].begin;
        const int64_t to = use.dequeue ? mEvidence.record.calls[*use.dequeue].end : end;
        for (const bool isEnd : {false, true}) {
            Json json = begin(isEnd ? "e" : "b", process, 0, track, isEnd ? to : from);
            json["cat"] = "buffers";
            json["id"] = std::to_string(use.node) + "-" + std::to_string(use.index);
            json["args"] = {{"cycle", cycle}, {"error", use.flawed}};
            event(json);
        }
    }

    const Evidence& mEvidence;
    FILE* const mOut;
    bool mIsFirst = true;
};

}  // namespace

void printTimeline(const Evidence& evidence, FILE* out) {
    TimelineWriter(evidence, out).write();
}

}  // namespace NSVista::NSCorvane::tools
