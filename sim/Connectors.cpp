// SPDX-License-Identifier: Apache-2.0
#include "Connectors.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace NSVista::NSCorvane::sim {

namespace {

const ConnectorDesc* at(const std::optional<ConnectorsDesc>& connectors, uint32_t index) {
    return connectors && index < connectors->list.size() ? &connectors->list[index] : nullptr;
}

int get(const std::optional<ConnectorsDesc>& connectors, void* index) {
    if (!connectors)
        return -ENOTTY;
    *static_cast<uint32_t*>(index) = connectors->current;
    return 0;
}

int set(const std::optional<ConnectorsDesc>& connectors, const void* index) {
    if (!connectors)
        return -ENOTTY;
    const uint32_t wanted = *static_cast<const uint32_t*>(index);
    if (wanted >= connectors->list.size())
        return -EINVAL;
    return wanted == connectors->current ? 0 : -EBUSY;
}

/** What inputs and outputs have under the same names. */
template <class Connector>
int fill(const std::optional<ConnectorsDesc>& connectors, const std::string& name, Connector& to) {
    if (!connectors)
        return -ENOTTY;
    const ConnectorDesc* const desc = at(connectors, to.index);
    if (desc == nullptr)
        return -EINVAL;
    const uint32_t index = to.index;
    to = {};
    to.index = index;
    (desc->name.empty() ? name : desc->name)
        .copy(reinterpret_cast<char*>(to.name), sizeof(to.name) - 1);
    to.type = desc->type;
    to.audioset = desc->audioset;
    to.std = desc->standards;
    to.capabilities = desc->capabilities;
    return 0;
}

bool areSame(const v4l2_bt_timings& a, const v4l2_bt_timings& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

v4l2_dv_timings wrapped(const v4l2_bt_timings& bt) {
    v4l2_dv_timings timings = {};
    timings.type = V4L2_DV_BT_656_1120;
    timings.bt = bt;
    return timings;
}

}  // namespace

Connectors::Connectors(SignalDesc signal, std::string name)
    : mSignal(std::move(signal)), mName(std::move(name)) {
}

bool Connectors::isTheirs(uint32_t code) {
    constexpr unsigned long kCodes[] = {
        VIDIOC_ENUMINPUT,    VIDIOC_G_INPUT,      VIDIOC_S_INPUT,         VIDIOC_ENUMOUTPUT,
        VIDIOC_G_OUTPUT,     VIDIOC_S_OUTPUT,     VIDIOC_G_STD,           VIDIOC_S_STD,
        VIDIOC_G_DV_TIMINGS, VIDIOC_S_DV_TIMINGS, VIDIOC_ENUM_DV_TIMINGS,
    };
    return std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes);
}

int Connectors::ioctl(uint32_t code, void* arg) {
    switch (code) {
        case VIDIOC_ENUMINPUT:
            return enumerate(*static_cast<v4l2_input*>(arg));
        case VIDIOC_G_INPUT:
            return get(mSignal.inputs, arg);
        case VIDIOC_S_INPUT:
            return set(mSignal.inputs, arg);
        case VIDIOC_ENUMOUTPUT:
            return enumerate(*static_cast<v4l2_output*>(arg));
        case VIDIOC_G_OUTPUT:
            return get(mSignal.outputs, arg);
        case VIDIOC_S_OUTPUT:
            return set(mSignal.outputs, arg);
        case VIDIOC_G_STD:
            if (!mSignal.standard)
                return -ENODATA;
            memcpy(arg, &*mSignal.standard, sizeof(uint64_t));
            return 0;
        case VIDIOC_S_STD: {
            uint64_t standard;
            memcpy(&standard, arg, sizeof(standard));
            return setStandard(standard);
        }
        case VIDIOC_G_DV_TIMINGS:
            return getTimings(*static_cast<v4l2_dv_timings*>(arg));
        case VIDIOC_S_DV_TIMINGS:
            return setTimings(*static_cast<const v4l2_dv_timings*>(arg));
        default:
            return enumerate(*static_cast<v4l2_enum_dv_timings*>(arg));
    }
}

const ConnectorDesc* Connectors::currentConnector() const {
    const auto& connectors = mSignal.inputs ? mSignal.inputs : mSignal.outputs;
    return connectors ? at(connectors, connectors->current) : nullptr;
}

uint64_t Connectors::standards() const {
    const ConnectorDesc* const connector = currentConnector();
    return connector != nullptr ? connector->standards : 0;
}

int Connectors::enumerate(v4l2_input& input) const {
    const int result = fill(mSignal.inputs, mName, input);
    if (result == 0) {
        input.tuner = mSignal.inputs->list[input.index].tuner;
        input.status = mSignal.inputs->list[input.index].status;
    }
    return result;
}

int Connectors::enumerate(v4l2_output& output) const {
    const int result = fill(mSignal.outputs, mName, output);
    if (result == 0)
        output.modulator = mSignal.outputs->list[output.index].tuner;
    return result;
}

int Connectors::setStandard(uint64_t standard) {
    if (!mSignal.standard)
        return -ENODATA;
    if ((standard & standards()) == 0)
        return -EINVAL;
    mSignal.standard = standard & standards();
    return 0;
}

int Connectors::getTimings(v4l2_dv_timings& timings) const {
    if (!mSignal.timings)
        return -ENODATA;
    timings = wrapped(*mSignal.timings);
    return 0;
}

int Connectors::setTimings(const v4l2_dv_timings& timings) {
    if (!mSignal.timings)
        return -ENODATA;
    const auto isWanted = [&](const v4l2_bt_timings& each) { return areSame(each, timings.bt); };
    const auto& offered = mSignal.timingsOffered;
    if (timings.type != V4L2_DV_BT_656_1120 ||
        (!isWanted(*mSignal.timings) && std::none_of(offered.begin(), offered.end(), isWanted)))
        return -EINVAL;
    mSignal.timings = timings.bt;
    return 0;
}

int Connectors::enumerate(v4l2_enum_dv_timings& timings) const {
    if (mSignal.timingsOffered.empty())
        return -ENODATA;
    if (timings.index >= mSignal.timingsOffered.size())
        return -EINVAL;
    timings.timings = wrapped(mSignal.timingsOffered[timings.index]);
    return 0;
}

}  // namespace NSVista::NSCorvane::sim
