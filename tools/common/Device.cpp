// SPDX-License-Identifier: Apache-2.0
#include "Device.h"

#include <corvane/V4L2.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>

#include <algorithm>

namespace NSVista::NSCorvane::tools {

namespace {

Entity readEntity(const mc::MediaTopology& topology, const media_entity_desc& desc) {
    Entity entity = {desc, v4l2::fixedText(desc.name), {}, {}};
    const auto found = topology.findEntity(entity.name.c_str());
    if (!found)
        return entity;
    entity.pads = found->pads();
    if (desc.dev.major != 0)
        entity.devnode = found->determineDevnodePath();
    return entity;
}

bool sameEnds(const media_link_desc& a, const media_link_desc& b) {
    return a.source.entity == b.source.entity && a.source.index == b.source.index &&
           a.sink.entity == b.sink.entity && a.sink.index == b.sink.index;
}

void readPorts(Device& device) {
    for (const Entity& entity : device.entities) {
        client::VideoNode node{};
        if (entity.isVideoNode() && !entity.devnode.empty() &&
            client::queryVideoNode(entity.devnode, node) == 0 && node.takesRequests)
            device.ports.push_back(
                {static_cast<int>(device.ports.size()), entity.name, entity.devnode, node});
    }
}

void readTopology(Device& device, const mc::MediaTopology& topology) {
    for (const auto& desc : topology.entityDescs())
        device.entities.push_back(readEntity(topology, desc));
    for (const auto& link : topology.linkDescs()) {
        const auto same = [&](const media_link_desc& other) { return sameEnds(link, other); };
        if (std::none_of(device.links.begin(), device.links.end(), same))
            device.links.push_back(link);
    }
    readPorts(device);
}

}  // namespace

const char* Entity::kind() const {
    switch (desc.type) {
        case MEDIA_ENT_F_IO_V4L:
            return "video node";
        case MEDIA_ENT_F_V4L2_SUBDEV_UNKNOWN:
            return "sub-device";
        case MEDIA_ENT_F_CAM_SENSOR:
            return "sensor";
        case MEDIA_ENT_F_FLASH:
            return "flash";
        case MEDIA_ENT_F_LENS:
            return "lens";
        case MEDIA_ENT_F_ATV_DECODER:
            return "decoder";
        case MEDIA_ENT_F_TUNER:
            return "tuner";
        default:
            return "internal";
    }
}

const Entity* Device::find(const std::string& name) const {
    const auto found = std::find_if(entities.begin(), entities.end(),
                                    [&](const Entity& entity) { return entity.name == name; });
    return found != entities.end() ? &*found : nullptr;
}

const Entity* Device::find(unsigned id) const {
    const auto found = std::find_if(entities.begin(), entities.end(),
                                    [&](const Entity& entity) { return entity.desc.id == id; });
    return found != entities.end() ? &*found : nullptr;
}

std::string Device::endText(const media_pad_desc& pad) const {
    const Entity* const entity = find(pad.entity);
    return (entity != nullptr ? entity->name : "#" + std::to_string(pad.entity)) + ":" +
           std::to_string(pad.index);
}

const Entity* Device::subDevice() const {
    const auto found = std::find_if(entities.begin(), entities.end(), [](const Entity& entity) {
        return !entity.isVideoNode() && !entity.devnode.empty();
    });
    return found != entities.end() ? &*found : nullptr;
}

std::vector<client::SessionLink> Device::linksOf(const std::vector<NodePort>& chosen) const {
    std::vector<client::SessionLink> result;
    for (const media_link_desc& link : links) {
        const Entity* const source = find(link.source.entity);
        const Entity* const sink = find(link.sink.entity);
        const bool touches = std::any_of(chosen.begin(), chosen.end(), [&](const NodePort& port) {
            return (source != nullptr && port.entity == source->name) ||
                   (sink != nullptr && port.entity == sink->name);
        });
        if (touches && source != nullptr && sink != nullptr &&
            (link.flags & MEDIA_LNK_FL_IMMUTABLE) == 0)
            result.push_back({source->name, link.source.index, sink->name, link.sink.index});
    }
    return result;
}

std::vector<Device> findDevices(const std::string& model) {
    std::vector<Device> devices;
    mc::enumerateMediaDevices([&](const media_device_info& info, const std::string& path) {
        if (model.empty() || model == v4l2::fixedText(info.model))
            devices.push_back({path,
                               v4l2::fixedText(info.model),
                               v4l2::fixedText(info.driver),
                               info,
                               {},
                               {},
                               {}});
        return false;
    });
    for (Device& device : devices) {
        if (const auto topology = mc::enumMediaTopology(device.path))
            readTopology(device, *topology);
    }
    return devices;
}

std::vector<std::string> findModels() {
    std::vector<std::string> models;
    mc::enumerateMediaDevices([&](const media_device_info& info, const std::string&) {
        models.push_back(v4l2::fixedText(info.model));
        return false;
    });
    return models;
}

}  // namespace NSVista::NSCorvane::tools
