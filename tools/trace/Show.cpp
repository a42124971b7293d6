// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/replay/Decode.h>

#include <cinttypes>

#include "Json.h"
#include "Prints.h"

namespace NSVista::NSCorvane::tools {

namespace {

using replay::Call;
using replay::Value;

Json valueJson(const Value& value) {
    switch (value.kind) {
        case Value::Kind::Group: {
            const bool isList = !value.parts.empty() && value.parts.front().name.empty();
            Json json = isList ? Json::array() : Json::object();
            for (const Value& part : value.parts)
                if (isList)
                    json.push_back(valueJson(part));
                else
                    json[part.name] = valueJson(part);
            return json;
        }
        case Value::Kind::Handle:
            return value.number;
        case Value::Kind::Number:
            if (value.text.find_first_not_of("-0123456789") == std::string::npos)
                return value.number;
            [[fallthrough]];
        default:
            // Texts are quoted for people; JSON quotes by itself.
            return value.kind == Value::Kind::Text && value.text.size() >= 2 &&
                           value.text.front() == '"'
                       ? value.text.substr(1, value.text.size() - 2)
                       : value.text;
    }
}

void putPieces(Json& json, const char* name, const Call& call, bool isAfter,
               const replay::Machine& machine) {
    if ((isAfter ? call.after : call.before).empty())
        return;
    if (call.operation == record::Operation::Ioctl)
        json[name] = valueJson(
            replay::decodeArgument(call.code, isAfter ? call.after : call.before, machine));
    else if (call.operation != record::Operation::Stat || !isAfter)
        json[name] = call.text(isAfter);
}

Json callJson(const Evidence& evidence, size_t i) {
    const Call& call = evidence.record.calls[i];
    const replay::Machine& machine = evidence.record.machine;
    Json json = {{"ns", call.begin - evidence.record.monotonicNs},
                 {"duration", call.duration()},
                 {"thread", evidence.record.threads[call.thread].tid},
                 {"call", replay::callName(call, machine)},
                 {"on", call.handle}};
    if (const std::string label = evidence.labelOf(i); !label.empty())
        json["label"] = label;
    if (evidence.story.cycleOf[i] != replay::Story::kNone)
        json["cycle"] = evidence.story.cycleOf[i];
    json["returned"] = call.returned;
    json["result"] = call.result;
    if (call.failed())
        json["error"] = replay::errorName(call.result);
    putPieces(json, "in", call, false, machine);
    putPieces(json, "out", call, true, machine);
    return json;
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
    Json json = {{"program", record.program},      {"pid", record.pid},
                 {"machine", record.architecture}, {"release", record.release},
                 {"start", record.realtimeNs},     {"note", record.note},
                 {"whole", record.isWhole},        {"problems", record.problems},
                 {"threads", Json::array()},       {"calls", Json::array()}};
    for (const auto& thread : record.threads)
        json["threads"].push_back(
            {{"tid", thread.tid}, {"name", thread.name}, {"lost", thread.lost}});
    Json& calls = json["calls"];
    for (size_t i = 0; i < record.calls.size(); ++i)
        if (selection.takes(record, evidence.story, i))
            calls.push_back(callJson(evidence, i));
    fprintf(out, "%s\n", jsonText(json).c_str());
}

}  // namespace NSVista::NSCorvane::tools
