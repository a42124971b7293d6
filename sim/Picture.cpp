// SPDX-License-Identifier: Apache-2.0
#include "Picture.h"

#include <cstring>

#include <algorithm>
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

/** A buffer of metadata that is large enough for a record. */
bool holds(const BufferQueue& queue, size_t bytes) {
    return v4l2::isMeta(queue.video().bufType) && queue.layout().planes[0].size >= bytes;
}

Inputs gatherInputs(const Job& job) {
    Inputs inputs;
    for (const auto& [queue, index, unused] : job.buffers) {
        if (queue->ordinal() < 32)
            inputs.ports |= 1u << queue->ordinal();
        if (queue->capture() || queue->role() == kPlainRole)
            continue;
        if (holds(*queue, sizeof(vengine_tuning))) {
            memcpy(&inputs.tuning.emplace(), queue->planeData(index, 0), sizeof(vengine_tuning));
            continue;
        }
        const vengine_picture picture = queue->picture(index);
        if (picture.width == 0)
            continue;
        if (queue->role() == VENGINE_ROLE_MASK)
            inputs.mask = picture;
        else
            inputs.input = picture;
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

/**
 * What a plain node captures: the test picture where its format can be drawn. Every byte is new in
 * each frame, those between and behind the lines and those of other formats as a ramp that moves.
 */
void drawPlain(const BufferQueue& queue, uint32_t index, const vengine_picture& out,
               const vengine_source& source) {
    const LayoutDesc& layout = queue.layout();
    for (uint32_t i = 0; i < layout.planes.size(); ++i) {
        uint8_t* const plane = queue.planeData(index, i);
        const uint32_t stride = std::max(1u, layout.planes[i].stride);
        for (uint32_t at = 0; at < layout.planes[i].size; ++at)
            plane[at] = static_cast<uint8_t>(at % stride + at / stride + source.frame);
    }
    if (out.width != 0)
        vengine_capture(&source, VENGINE_ROLE_MAIN, &out);
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
        const vengine_picture out = queue->picture(index);
        if (queue->role() != kPlainRole && holds(*queue, sizeof(vengine_stats))) {
            vengine_stats stats = gatherStats(job, inputs);
            memcpy(queue->planeData(index, 0), &stats, sizeof(stats));
        } else if (queue->role() == kPlainRole || out.width == 0) {
            drawPlain(*queue, index, out, {nullptr, nullptr, job.frame, brightness});
        } else {
            source.brightness = common + brightness;
            vengine_capture(&source, queue->role(), &out);
        }
    }
    return true;
}

}  // namespace NSVista::NSCorvane::sim
