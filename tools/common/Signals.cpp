// SPDX-License-Identifier: Apache-2.0
#include "Signals.h"

#include <corvane/V4L2.h>
#include <linux/v4l2-subdev.h>

#include <cstdio>

#include "NodeFormats.h"

namespace NSVista::NSCorvane::tools {

namespace {

using sim::ConnectorDesc;
using sim::PadCodeDesc;
using sim::PadDesc;

/** No enumeration is longer; it ends one that a driver never ends. */
constexpr uint32_t kMostItems = 4096, kMostConnectors = 64;

/** What inputs and outputs have under the same names. */
template <class Connector>
ConnectorDesc& addConnector(const Connector& from, sim::ConnectorsDesc& to) {
    ConnectorDesc& desc = to.list.emplace_back();
    desc.name = v4l2::fixedText(from.name);
    desc.type = from.type;
    desc.audioset = from.audioset;
    desc.capabilities = from.capabilities;
    desc.standards = from.std;
    return desc;
}

/** @param current asks which one it is. */
std::optional<sim::ConnectorsDesc> chosen(client::NodeFd& node, unsigned long current,
                                          sim::ConnectorsDesc connectors) {
    if (connectors.list.empty() || node.ioctl(current, &connectors.current) < 0 ||
        connectors.current >= connectors.list.size())
        return std::nullopt;
    return connectors;
}

std::optional<sim::ConnectorsDesc> readInputs(client::NodeFd& node) {
    sim::ConnectorsDesc inputs;
    v4l2_input input = {};
    for (; input.index < kMostConnectors && node.ioctl(VIDIOC_ENUMINPUT, &input) >= 0;
         ++input.index) {
        ConnectorDesc& desc = addConnector(input, inputs);
        desc.tuner = input.tuner;
        desc.status = input.status;
    }
    return chosen(node, VIDIOC_G_INPUT, inputs);
}

std::optional<sim::ConnectorsDesc> readOutputs(client::NodeFd& node) {
    sim::ConnectorsDesc outputs;
    v4l2_output output = {};
    for (; output.index < kMostConnectors && node.ioctl(VIDIOC_ENUMOUTPUT, &output) >= 0;
         ++output.index)
        addConnector(output, outputs).tuner = output.modulator;
    return chosen(node, VIDIOC_G_OUTPUT, outputs);
}

void readSizes(client::NodeFd& node, uint32_t pad, PadCodeDesc& code) {
    v4l2_subdev_frame_size_enum size = {};
    size.pad = pad;
    size.code = code.code;
    size.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    for (; size.index < kMostItems && node.ioctl(VIDIOC_SUBDEV_ENUM_FRAME_SIZE, &size) >= 0;
         ++size.index)
        code.sizes.push_back({size.min_width, size.max_width, size.min_height, size.max_height});
}

std::string standardText(uint64_t standard) {
    const std::pair<uint64_t, const char*> names[] = {
        {V4L2_STD_NTSC, "NTSC"}, {V4L2_STD_PAL, "PAL"}, {V4L2_STD_SECAM, "SECAM"}};
    for (const auto& [all, name] : names)
        if ((standard & all) != 0 && (standard & ~all) == 0)
            return name;
    char number[32];
    snprintf(number, sizeof(number), "standard 0x%llx", static_cast<unsigned long long>(standard));
    return number;
}

std::string timingsText(const v4l2_bt_timings& bt) {
    const uint64_t pixels =
        uint64_t{V4L2_DV_BT_FRAME_WIDTH(&bt)} * uint64_t{V4L2_DV_BT_FRAME_HEIGHT(&bt)};
    const double fields = bt.interlaced != 0 ? 2 : 1;
    char rate[32] = "";
    if (pixels != 0)
        snprintf(rate, sizeof(rate), " %.4g",
                 fields * static_cast<double>(bt.pixelclock) / static_cast<double>(pixels));
    return pairText(bt.width, bt.height) + (bt.interlaced != 0 ? "i" : "p") + rate;
}

}  // namespace

sim::SignalDesc readSignal(client::NodeFd& node) {
    sim::SignalDesc signal;
    signal.inputs = readInputs(node);
    signal.outputs = readOutputs(node);
    v4l2_std_id standard = 0;
    if (node.ioctl(VIDIOC_G_STD, &standard) >= 0)
        signal.standard = standard;
    v4l2_dv_timings timings = {};
    if (node.ioctl(VIDIOC_G_DV_TIMINGS, &timings) >= 0 && timings.type == V4L2_DV_BT_656_1120)
        signal.timings = timings.bt;
    v4l2_enum_dv_timings offer = {};
    for (; offer.index < kMostItems && node.ioctl(VIDIOC_ENUM_DV_TIMINGS, &offer) >= 0;
         ++offer.index)
        if (offer.timings.type == V4L2_DV_BT_656_1120)
            signal.timingsOffered.push_back(offer.timings.bt);
    return signal;
}

std::vector<PadDesc> readPadFormats(client::NodeFd& node, size_t count) {
    std::vector<PadDesc> pads;
    for (uint32_t number = 0; number < count; ++number) {
        v4l2_subdev_format format = {};
        format.pad = number;
        format.which = V4L2_SUBDEV_FORMAT_ACTIVE;
        if (node.ioctl(VIDIOC_SUBDEV_G_FMT, &format) < 0)
            continue;
        PadDesc& pad = pads.emplace_back();
        pad.pad = number;
        pad.format = format.format;
        v4l2_subdev_mbus_code_enum code = {};
        code.pad = number;
        code.which = V4L2_SUBDEV_FORMAT_ACTIVE;
        for (; code.index < kMostItems && node.ioctl(VIDIOC_SUBDEV_ENUM_MBUS_CODE, &code) >= 0;
             ++code.index) {
            pad.codes.push_back({code.code, code.flags, {}});
            readSizes(node, number, pad.codes.back());
        }
    }
    return pads;
}

std::string signalText(const sim::SignalDesc& signal) {
    if (signal.standard)
        return standardText(*signal.standard);
    return signal.timings ? timingsText(*signal.timings) : std::string();
}

std::string rangeText(const PadCodeDesc::Range& range) {
    const std::string least = pairText(range.minWidth, range.minHeight);
    const std::string most = pairText(range.maxWidth, range.maxHeight);
    return least == most ? least : least + " to " + most;
}

}  // namespace NSVista::NSCorvane::tools
