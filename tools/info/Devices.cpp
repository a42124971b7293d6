#include "Devices.h"

#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>

#include <algorithm>

namespace corvane::info {

namespace mc = NSVista::NSCorvane::mc;

namespace {

Entity readEntity(const mc::MediaTopology& topology, const media_entity_desc& desc) {
    Entity entity = {desc, textOf(desc.name), {}, {}};
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

void readTopology(Device& device, const mc::MediaTopology& topology) {
    for (const auto& desc : topology.entityDescs())
        device.entities.push_back(readEntity(topology, desc));
    for (const auto& link : topology.linkDescs()) {
        const auto same = [&](const media_link_desc& other) { return sameEnds(link, other); };
        if (std::none_of(device.links.begin(), device.links.end(), same))
            device.links.push_back(link);
    }
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
    for (const Entity& entity : entities) {
        if (entity.name == name)
            return &entity;
    }
    return nullptr;
}

const Entity* Device::find(unsigned id) const {
    for (const Entity& entity : entities) {
        if (entity.desc.id == id)
            return &entity;
    }
    return nullptr;
}

std::vector<Device> findDevices(const std::string& model) {
    std::vector<Device> devices;
    mc::enumerateMediaDevices([&](const media_device_info& info, const std::string& path) {
        if (model.empty() || model == textOf(info.model))
            devices.push_back({path, textOf(info.model), info, {}, {}});
        return false;
    });
    for (Device& device : devices) {
        if (const auto topology = mc::enumMediaTopology(device.path))
            readTopology(device, *topology);
    }
    return devices;
}

}  // namespace corvane::info
