// SPDX-License-Identifier: Apache-2.0
#include "JsonReport.h"

#include <corvane/V4L2.h>
#include <corvane/client/Controls.h>
#include <fcntl.h>

#include <algorithm>

#include "Json.h"
#include "NodeFormats.h"
#include "Signals.h"

namespace NSVista::NSCorvane::tools {

namespace {

Json queueJson(const QueueFormat& queue) {
    Json json = {{"type", queue.type->inWords}, {"format", v4l2::formatName(queue.format.format)},
                 {"width", queue.format.width}, {"height", queue.format.height},
                 {"planes", Json::array()},     {"offered", Json::array()},
                 {"rates", queue.rates}};
    for (uint32_t i = 0; i < std::min(queue.format.planeCount, PixelFormat::kMaxPlanes); ++i) {
        const PixelFormat::Plane& plane = queue.format.planes[i];
        json["planes"].push_back({{"stride", plane.stride}, {"size", plane.size}});
    }
    for (const OfferedFormat& offer : queue.offered)
        json["offered"].push_back(
            {{"format", v4l2::formatName(offer.fourcc)}, {"sizes", offer.sizes}});
    return json;
}

Json controlJson(const client::Control& control, client::ControlNode& node) {
    int64_t value = 0;
    Json json = {{"name", control.name}, {"id", control.id}};
    if (node.get(control, value) == 0)
        json["value"] = value;
    json["minimum"] = control.minimum;
    json["maximum"] = control.maximum;
    json["step"] = control.step;
    json["default"] = control.defaultValue;
    json["menu"] = Json::array();
    for (const auto& [number, name] : control.menu)
        json["menu"].push_back({{"value", number}, {"name", name}});
    return json;
}

Json connectorsJson(const std::optional<sim::ConnectorsDesc>& connectors) {
    Json json = Json::array();
    for (uint32_t i = 0; connectors && i < connectors->list.size(); ++i)
        json.push_back({{"name", connectors->list[i].name}, {"chosen", i == connectors->current}});
    return json;
}

Json padFormatJson(const sim::PadDesc& pad) {
    Json json = {{"pad", pad.pad},
                 {"code", pad.format.code},
                 {"width", pad.format.width},
                 {"height", pad.format.height},
                 {"offered", Json::array()}};
    for (const sim::PadCodeDesc& code : pad.codes) {
        Json& offer =
            json["offered"].emplace_back(Json{{"code", code.code}, {"sizes", Json::array()}});
        for (const sim::PadCodeDesc::Range& range : code.sizes)
            offer["sizes"].push_back(rangeText(range));
    }
    return json;
}

/** What a video node is connected to, or what a sub-device's pads carry. */
void addSignals(const Entity& entity, Json& json) {
    client::NodeFd node(entity.devnode.c_str(), O_RDWR | O_NONBLOCK);
    if (!node)
        return;
    if (!entity.isVideoNode()) {
        json["padFormats"] = Json::array();
        for (const sim::PadDesc& pad : readPadFormats(node, entity.pads.size()))
            json["padFormats"].push_back(padFormatJson(pad));
        return;
    }
    const sim::SignalDesc signal = readSignal(node);
    json["inputs"] = connectorsJson(signal.inputs);
    json["outputs"] = connectorsJson(signal.outputs);
    json["signal"] = signalText(signal);
}

Json entityJson(const Device& device, const Entity& entity) {
    Json json = {{"name", entity.name}, {"kind", entity.kind()}, {"node", entity.devnode}};
    for (const NodePort& port : device.ports)
        if (port.entity == entity.name)
            json["port"] = port.index;
    json["pads"] = entity.pads.size();
    if (entity.devnode.empty())
        return json;
    json["queues"] = Json::array();
    if (entity.isVideoNode())
        for (const QueueFormat& queue : readFormats(entity.devnode).queues)
            json["queues"].push_back(queueJson(queue));
    addSignals(entity, json);
    client::ControlNode node(entity.devnode);
    json["controls"] = Json::array();
    for (const client::Control& control : node ? node.list() : std::vector<client::Control>())
        json["controls"].push_back(controlJson(control, node));
    return json;
}

}  // namespace

std::string makeJson(const std::vector<Device>& devices) {
    Json all = Json::array();
    for (const Device& device : devices) {
        Json& json = all.emplace_back(Json{{"model", device.model},
                                           {"path", device.path},
                                           {"driver", device.driver},
                                           {"bus", v4l2::fixedText(device.info.bus_info)},
                                           {"entities", Json::array()},
                                           {"links", Json::array()}});
        for (const Entity& entity : device.entities)
            json["entities"].push_back(entityJson(device, entity));
        for (const media_link_desc& link : device.links)
            json["links"].push_back({{"source", device.endText(link.source)},
                                     {"sink", device.endText(link.sink)},
                                     {"enabled", (link.flags & MEDIA_LNK_FL_ENABLED) != 0},
                                     {"immutable", (link.flags & MEDIA_LNK_FL_IMMUTABLE) != 0}});
    }
    return jsonText(all);
}

}  // namespace NSVista::NSCorvane::tools
