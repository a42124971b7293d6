// SPDX-License-Identifier: Apache-2.0
#include "Picture.h"

#include <cstring>

#include <optional>

#include "BufferQueue.h"

namespace NSVista::NSCorvane::sim {

namespace {

/** The output buffers of a job; of several for one purpose the last counts. */
struct Inputs {
    std::optional<vengine_picture> input, mask;
    std::optional<vengine_tuning> tuning;
    uint32_t ports = 0;
};

Inputs gatherInputs(const Job& job) {
    Inputs inputs;
    for (const auto& [queue, index, unused] : job.buffers) {
        if (queue->ordinal() < 32)
            inputs.ports |= 1u << queue->ordinal();
        if (queue->capture())
            continue;
        if (v4l2::isMeta(queue->video().bufType)) {
            memcpy(&inputs.tuning.emplace(), queue->planeData(index, 0), sizeof(vengine_tuning));
        } else if (queue->role() == VENGINE_ROLE_MASK) {
            inputs.mask = queue->picture(index);
        } else {
            inputs.input = queue->picture(index);
        }
    }
    return inputs;
}

vengine_stats gatherStats(const Job& job, const Inputs& inputs) {
    vengine_stats stats = {};
    stats.magic = VENGINE_STATS_MAGIC;
    stats.frame = job.frame;
    stats.ports = inputs.ports;
    stats.tuning_serial = inputs.tuning ? inputs.tuning->serial : 0;
    stats.input_checksum = inputs.input ? vengine_checksum(&*inputs.input) : 0;
    return stats;
}

}  // namespace

bool render(const Job& job) {
    Inputs inputs = gatherInputs(job);
    if (inputs.tuning && inputs.tuning->magic != VENGINE_TUNING_MAGIC)
        return false;
    vengine_source source = {};
    source.input = inputs.input ? &*inputs.input : nullptr;
    source.mask = inputs.mask ? &*inputs.mask : nullptr;
    source.frame = job.frame;
    const int32_t common =
        vengine_brightness(job.brightness, inputs.tuning ? inputs.tuning->brightness : 0);
    for (const auto& [queue, index, brightness] : job.buffers) {
        if (!queue->capture())
            continue;
        if (v4l2::isMeta(queue->video().bufType)) {
            vengine_stats stats = gatherStats(job, inputs);
            memcpy(queue->planeData(index, 0), &stats, sizeof(stats));
        } else {
            vengine_picture out = queue->picture(index);
            source.brightness = common + brightness;
            vengine_capture(&source, queue->role(), &out);
        }
    }
    return true;
}

}  // namespace NSVista::NSCorvane::sim
