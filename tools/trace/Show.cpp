// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/replay/Decode.h>

#include <cinttypes>
#include <string_view>

#include "Json.h"
#include "Prints.h"

namespace NSVista::NSCorvane::tools {

namespace {

using replay::Call;
using replay::Value;

void put(Json& json, std::string_view name, const Value& value) {
    switch (value.kind) {
        case Value::Kind::Group: {
            const bool isList = !value.parts.empty() && value.parts.front().name.empty();
            if (isList)
                json.array(name);
            else
                json.object(name);
            for (const Value& part : value.parts)
                put(json, part.name, part);
            json.end();
            break;
        }
        case Value::Kind::Handle:
            json.number(name, value.number);
            break;
        case Value::Kind::Number:
            if (value.text.find_first_not_of("-0123456789") == std::string::npos) {
                json.number(name, value.number);
                break;
            }
            [[fallthrough]];
        default:
            // Texts are quoted for people; JSON quotes by itself.
            json.text(name, value.kind == Value::Kind::Text && value.text.size() >= 2 &&
                                    value.text.front() == '"'
                                ? std::string_view(value.text).substr(1, value.text.size() - 2)
                                : std::string_view(value.text));
            break;
    }
}

void putPieces(Json& json, const char* name, const Call& call, bool isAfter,
               const replay::Machine& machine) {
    if ((isAfter ? call.after : call.before).empty())
        return;
    if (call.operation == record::Operation::Ioctl)
        put(json, name,
            replay::decodeArgument(call.code, isAfter ? call.after : call.before, machine));
    else if (call.operation != record::Operation::Stat || !isAfter)
        json.text(name, call.text(isAfter));
}

void putCall(Json& json, const Evidence& evidence, size_t i) {
    const Call& call = evidence.record.calls[i];
    const replay::Machine& machine = evidence.record.machine;
    json.object();
    json.number("ns", call.begin - evidence.record.monotonicNs);
    json.number("duration", call.duration());
    json.number("thread", evidence.record.threads[call.thread].tid);
    json.text("call", replay::callName(call, machine));
    json.number("on", call.handle);
    if (const std::string label = evidence.labelOf(i); !label.empty())
        json.text("label", label);
    if (evidence.story.cycleOf[i] != replay::Story::kNone)
        json.number("cycle", static_cast<int64_t>(evidence.story.cycleOf[i]));
    json.flag("returned", call.returned);
    json.number("result", call.result);
    if (call.failed())
        json.text("error", replay::errorName(call.result));
    putPieces(json, "in", call, false, machine);
    putPieces(json, "out", call, true, machine);
    json.end();
}

}  // namespace

std::string Evidence::labelOf(size_t call) const {
    const size_t object = story.objectOf[call];
    return object != replay::Story::kNone ? story.objects[object].label() : std::string();
}

std::string Evidence::startText() const {
    return convertToFormattedLogTime({static_cast<time_t>(record.realtimeNs / 1000000000),
                                      static_cast<long>(record.realtimeNs % 1000000000)});
}

void show(const Evidence& evidence, const Selection& selection, FILE* out) {
    const replay::Record& record = evidence.record;
    if (!record.program.empty())
        fprintf(out, "# %s[%d] on %s, Linux %s, from %s\n", record.program.c_str(), record.pid,
                record.architecture.c_str(), record.release.c_str(), evidence.startText().c_str());
    for (size_t i = 0; i < record.calls.size(); ++i) {
        if (!selection.takes(record, evidence.story, i))
            continue;
        const Call& call = record.calls[i];
        fprintf(out, "%12.6f %-15s %s <%.6f>\n", evidence.secondsOf(call.begin),
                record.threads[call.thread].name.c_str(),
                replay::callText(call, record.machine, evidence.labelOf(i)).c_str(),
                static_cast<double>(call.duration()) / 1e9);
    }
}

void printJson(const Evidence& evidence, const Selection& selection, FILE* out) {
    const replay::Record& record = evidence.record;
    Json json;
    json.object();
    json.text("program", record.program);
    json.number("pid", record.pid);
    json.text("machine", record.architecture);
    json.text("release", record.release);
    json.number("start", record.realtimeNs);
    json.text("note", record.note);
    json.flag("whole", record.isWhole);
    json.array("problems");
    for (const std::string& problem : record.problems)
        json.text({}, problem);
    json.end();
    json.array("threads");
    for (const auto& thread : record.threads) {
        json.object();
        json.number("tid", thread.tid);
        json.text("name", thread.name);
        json.number("lost", static_cast<int64_t>(thread.lost));
        json.end();
    }
    json.end();
    json.array("calls");
    for (size_t i = 0; i < record.calls.size(); ++i)
        if (selection.takes(record, evidence.story, i))
            putCall(json, evidence, i);
    json.end();
    json.end();
    fprintf(out, "%s\n", json.result().c_str());
}

}  // namespace NSVista::NSCorvane::tools
