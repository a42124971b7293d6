// SPDX-License-Identifier: Apache-2.0
#include "Selection.h"

#include <corvane/replay/Decode.h>

#include <algorithm>

namespace NSVista::NSCorvane::tools {

namespace {

using replay::Call;
using replay::Story;

bool isAnyOf(const std::vector<std::string>& wanted, const std::string& name) {
    return std::find(wanted.begin(), wanted.end(), name) != wanted.end();
}

bool isPartOf(const std::vector<std::string>& wanted, const std::string& name) {
    return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& part) {
        return name.find(part) != std::string::npos;
    });
}

}  // namespace

bool Selection::takes(const replay::Record& record, const Story& story, size_t i) const {
    const Call& call = record.calls[i];
    const double seconds = static_cast<double>(call.begin - record.monotonicNs) / 1e9;
    if ((from && seconds < *from) || (to && seconds > *to) ||
        static_cast<double>(call.duration()) / 1e3 < slowerUs ||
        (failed && call.returned && call.result >= 0))
        return false;
    if (!calls.empty() && !isPartOf(calls, replay::callName(call, record.machine)))
        return false;
    if (!threads.empty() && !isAnyOf(threads, record.threads[call.thread].name))
        return false;
    const size_t on = story.objectOf[i];
    const replay::Object* const object = on != Story::kNone ? &story.objects[on] : nullptr;
    if (!ports.empty() &&
        (object == nullptr || (!isAnyOf(ports, object->entity) && !isAnyOf(ports, object->path))))
        return false;
    if (requests.empty())
        return true;
    const size_t cycle = story.cycleOf[i];
    const int64_t request =
        cycle != Story::kNone ? story.objects[story.cycles[cycle].request].handle
        : object != nullptr && object->kind == replay::Object::Kind::Request ? object->handle
                                                                             : -1;
    return std::find(requests.begin(), requests.end(), request) != requests.end();
}

}  // namespace NSVista::NSCorvane::tools
