// SPDX-License-Identifier: Apache-2.0
#include "JsonReport.h"

#include <corvane/V4L2.h>
#include <corvane/client/Controls.h>

#include <algorithm>

#include "Json.h"
#include "NodeFormats.h"

namespace NSVista::NSCorvane::tools {

namespace {

void addQueue(Json& json, const QueueFormat& queue) {
    json.object();
    json.text("type", queue.type->inWords);
    json.text("format", v4l2::formatName(queue.format.format));
    json.number("width", queue.format.width);
    json.number("height", queue.format.height);
    json.array("planes");
    for (uint32_t i = 0; i < std::min(queue.format.planeCount, PixelFormat::kMaxPlanes); ++i) {
        json.object();
        json.number("stride", queue.format.planes[i].stride);
        json.number("size", queue.format.planes[i].size);
        json.end();
    }
    json.end();
    json.array("offered");
    for (const OfferedFormat& offer : queue.offered) {
        json.object();
        json.text("format", v4l2::formatName(offer.fourcc));
        json.text("sizes", offer.sizes);
        json.end();
    }
    json.end();
    json.text("rates", queue.rates);
    json.end();
}

void addControls(Json& json, const std::string& devnode) {
    client::ControlNode node(devnode);
    json.array("controls");
    for (const client::Control& control : node ? node.list() : std::vector<client::Control>()) {
        int64_t value = 0;
        json.object();
        json.text("name", control.name);
        json.number("id", control.id);
        if (node.get(control, value) == 0)
            json.number("value", value);
        json.number("minimum", control.minimum);
        json.number("maximum", control.maximum);
        json.number("step", control.step);
        json.number("default", control.defaultValue);
        json.array("menu");
        for (const auto& [number, name] : control.menu) {
            json.object();
            json.number("value", number);
            json.text("name", name);
            json.end();
        }
        json.end();
        json.end();
    }
    json.end();
}

void addEntity(Json& json, const Device& device, const Entity& entity) {
    json.object();
    json.text("name", entity.name);
    json.text("kind", entity.kind());
    json.text("node", entity.devnode);
    for (const NodePort& port : device.ports)
        if (port.entity == entity.name)
            json.number("port", port.index);
    json.number("pads", static_cast<int64_t>(entity.pads.size()));
    if (!entity.devnode.empty()) {
        json.array("queues");
        if (entity.isVideoNode())
            for (const QueueFormat& queue : readFormats(entity.devnode).queues)
                addQueue(json, queue);
        json.end();
        addControls(json, entity.devnode);
    }
    json.end();
}

}  // namespace

std::string makeJson(const std::vector<Device>& devices) {
    Json json;
    json.array();
    for (const Device& device : devices) {
        json.object();
        json.text("model", device.model);
        json.text("path", device.path);
        json.text("driver", device.driver);
        json.text("bus", v4l2::fixedText(device.info.bus_info));
        json.array("entities");
        for (const Entity& entity : device.entities)
            addEntity(json, device, entity);
        json.end();
        json.array("links");
        for (const media_link_desc& link : device.links) {
            json.object();
            json.text("source", device.endText(link.source));
            json.text("sink", device.endText(link.sink));
            json.flag("enabled", (link.flags & MEDIA_LNK_FL_ENABLED) != 0);
            json.flag("immutable", (link.flags & MEDIA_LNK_FL_IMMUTABLE) != 0);
            json.end();
        }
        json.end();
        json.end();
    }
    json.end();
    return json.result();
}

}  // namespace NSVista::NSCorvane::tools
