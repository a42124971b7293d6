// SPDX-License-Identifier: Apache-2.0
#include "Capture.h"

#include <corvane/V4L2.h>
#include <corvane/client/NodeFd.h>
#include <fcntl.h>
#include <linux/v4l2-subdev.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "NodeCapture.h"
#include "Signals.h"

namespace NSVista::NSCorvane::tools {

namespace {

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/** What MEDIA_IOC_ENUM_ENTITIES does not tell: the functions that came after it. */
std::vector<media_v2_entity> readFunctions(const Device& device) {
    client::NodeFd media(device.path.c_str(), O_RDWR);
    media_v2_topology topology = {};
    if (!media || media.ioctl(MEDIA_IOC_G_TOPOLOGY, &topology) < 0)
        return {};
    std::vector<media_v2_entity> entities(topology.num_entities);
    topology = {};
    topology.num_entities = static_cast<uint32_t>(entities.size());
    topology.ptr_entities = reinterpret_cast<uintptr_t>(entities.data());
    if (media.ioctl(MEDIA_IOC_G_TOPOLOGY, &topology) < 0)
        return {};
    return entities;
}

bool takesFrameSync(client::NodeFd& node) {
    v4l2_event_subscription subscription = {};
    subscription.type = V4L2_EVENT_FRAME_SYNC;
    return node.ioctl(VIDIOC_SUBSCRIBE_EVENT, &subscription) >= 0 &&
           node.ioctl(VIDIOC_UNSUBSCRIBE_EVENT, &subscription) >= 0;
}

/** Ranges are not told by the driver: without one that is known every number is taken. */
std::vector<sim::PrivateControlDesc> readPrivateControls(const CaptureWish& wish) {
    std::vector<ControlValue> values;
    std::vector<sim::PrivateControlDesc> controls;
    if (readControls(*wish.subDevice, wish.controls, values) < 0)
        return {};
    for (const ControlValue& value : values)
        if (value.error == 0)
            controls.push_back(
                {value.control.id, value.control.minimum, value.control.maximum, value.value});
    return controls;
}

sim::SubDeviceDesc captureSubDevice(client::NodeFd& node, const Entity& entity,
                                    const CaptureWish& wish) {
    sim::SubDeviceDesc desc;
    v4l2_subdev_capability capability = {};
    node.ioctl(VIDIOC_SUBDEV_QUERYCAP, &capability);
    desc.version = capability.version;
    desc.capabilities = capability.capabilities;
    desc.sendsFrameSync = takesFrameSync(node);
    desc.controls = captureControls(node);
    desc.pads = readPadFormats(node, entity.pads.size());
    if (wish.subDevice == &entity)
        desc.privateControls = readPrivateControls(wish);
    return desc;
}

void captureNode(const Entity& entity, const CaptureWish& wish, sim::EntityDesc& desc,
                 std::vector<std::string>& remarks) {
    desc.node.name = fileName(entity.devnode);
    desc.node.number = {entity.desc.dev.major, entity.desc.dev.minor};
    client::NodeFd node(entity.devnode.c_str(), O_RDWR | O_NONBLOCK);
    std::vector<std::string> own;
    if (!node)
        own.push_back(entity.devnode + ": " + strerror(-node.error()));
    if (entity.isVideoNode())
        desc.video = node ? captureVideoNode(node, own) : sim::VideoDesc();
    else
        desc.subDevice = node ? captureSubDevice(node, entity, wish) : sim::SubDeviceDesc();
    for (const std::string& remark : own)
        remarks.push_back(entity.name + ": " + remark);
}

}  // namespace

sim::DeviceDesc captureDevice(const Device& device, const CaptureWish& wish,
                              std::vector<std::string>& remarks) {
    sim::DeviceDesc desc;
    desc.info = device.info;
    if (!wish.withIdentity)
        memset(desc.info.serial, 0, sizeof(desc.info.serial));
    desc.mediaNode = fileName(device.path);
    const std::vector<media_v2_entity> functions = readFunctions(device);
    for (const Entity& entity : device.entities) {
        sim::EntityDesc& to = desc.entities.emplace_back();
        to.id = entity.desc.id;
        to.name = entity.name;
        to.function = to.type = entity.desc.type;
        to.flags = entity.desc.flags;
        for (const media_v2_entity& other : functions)
            if (other.id == to.id)
                to.function = other.function;
        for (const media_pad_desc& pad : entity.pads)
            to.padFlags.push_back(pad.flags);
        const auto owner =
            std::find_if(device.entities.begin(), device.entities.end(),
                         [&](const Entity& other) { return other.devnode == entity.devnode; });
        if (!entity.devnode.empty() && owner->name != entity.name)
            to.nodeOf = owner->name;
        else if (!entity.devnode.empty())
            captureNode(entity, wish, to, remarks);
    }
    for (const media_link_desc& link : device.links) {
        const Entity* const source = device.find(link.source.entity);
        const Entity* const sink = device.find(link.sink.entity);
        if (source != nullptr && sink != nullptr)
            desc.links.push_back(
                {source->name, link.source.index, sink->name, link.sink.index, link.flags});
    }
    return desc;
}

}  // namespace NSVista::NSCorvane::tools
