// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <nlohmann/json.hpp>

#include <corvane/sim/DescriptionFile.h>

#include "DescriptionWords.h"
#include "EngineDefaults.h"
#include "SignalText.h"

namespace NSVista::NSCorvane::sim {

namespace {

using Json = nlohmann::ordered_json;

/** A list without doubles, which formats name by index. */
class Shared {
public:
    size_t indexOf(Json item) {
        const auto found = std::find(mItems.begin(), mItems.end(), item);
        const auto index = static_cast<size_t>(found - mItems.begin());
        if (found == mItems.end())
            mItems.push_back(std::move(item));
        return index;
    }
    Json take() { return std::move(mItems); }

private:
    Json mItems = Json::array();
};

Json fraction(const v4l2_fract& value) {
    return Json::array({value.numerator, value.denominator});
}

const char* kindWord(uint32_t kind, uint32_t continuous) {
    return kind == continuous ? "continuous" : "stepwise";
}

Json interval(const IntervalDesc& desc) {
    if (desc.isDiscrete())
        return {{"discrete", fraction(desc.range.min)}};
    return {{kindWord(desc.kind, V4L2_FRMIVAL_TYPE_CONTINUOUS),
             {fraction(desc.range.min), fraction(desc.range.max), fraction(desc.range.step)}}};
}

Json sizes(const std::vector<SizeDesc>& list) {
    Json all = Json::array();
    for (const SizeDesc& size : list) {
        const v4l2_frmsize_stepwise& r = size.range;
        Json& item = all.emplace_back(Json::object());
        if (size.isDiscrete())
            item["discrete"] = {r.min_width, r.min_height};
        else
            item[kindWord(size.kind, V4L2_FRMSIZE_TYPE_CONTINUOUS)] = {
                r.min_width, r.max_width, r.step_width, r.min_height, r.max_height, r.step_height};
        for (const IntervalDesc& each : size.intervals)
            item["intervals"].push_back(interval(each));
    }
    return all;
}

void addLayout(Json& list, const LayoutDesc& layout) {
    list.push_back(layout.width);
    list.push_back(layout.height);
    for (const LayoutDesc::Plane& plane : layout.planes) {
        list.push_back(plane.stride);
        list.push_back(plane.size);
    }
}

Json answers(const std::vector<AnswerDesc>& list) {
    Json all = Json::array();
    for (const AnswerDesc& answer : list) {
        Json& item = all.emplace_back(Json::array({answer.askedWidth, answer.askedHeight}));
        addLayout(item, answer.layout);
    }
    return all;
}

Json colour(const ColourDesc& desc) {
    return {desc.field,    desc.colorspace,   desc.flags,
            desc.encoding, desc.quantization, desc.transfer};
}

void addFormats(Json& queue, const std::vector<FormatDesc>& list) {
    Shared colours, allSizes, allAnswers;
    Json formats = Json::array();
    for (const FormatDesc& desc : list) {
        Json& format = formats.emplace_back(Json::object());
        format["format"] = fourccWord(desc.fourcc);
        format["description"] = desc.description;
        if (desc.flags != 0)
            format["flags"] = desc.flags;
        format["colour"] = colours.indexOf(colour(desc.colour));
        format["sizes"] = allSizes.indexOf(sizes(desc.sizes));
        format["answers"] = allAnswers.indexOf(answers(desc.answers));
    }
    queue["formats"] = std::move(formats);
    queue["colours"] = colours.take();
    queue["sizes"] = allSizes.take();
    queue["answers"] = allAnswers.take();
}

Json queue(const VideoDesc& video) {
    Json json;
    json["type"] = v4l2::findBufferType(video.bufType)->name;
    json["format"] = fourccWord(video.format);
    json["layout"] = Json::array();
    addLayout(json["layout"], *video.layout);
    if (video.unknownFormat < 0)
        json["unknownFormat"]["error"] = -video.unknownFormat;
    else if (video.fallback != 0)
        json["unknownFormat"]["becomes"] = fourccWord(video.fallback);
    if (!video.enumeratesSizes)
        json["enumeratesSizes"] = false;
    if (video.interval)
        json["interval"] = fraction(*video.interval);
    Json& buffers = json["buffers"];
    buffers["minimum"] = video.minBuffers;
    buffers["maximum"] = video.maxBuffers;
    if (video.queueCapabilities)
        buffers["capabilities"] = *video.queueCapabilities;
    buffers["requests"] = kRequestUses[static_cast<int>(video.requests)];
    addFormats(json, video.formats);
    return json;
}

Json controls(const std::vector<ControlDesc>& list) {
    Json all = Json::array();
    for (const ControlDesc& control : list) {
        Json& json = all.emplace_back(Json::object());
        json["id"] = control.id;
        json["name"] = control.name;
        json["type"] = control.type;
        const std::pair<const char*, int64_t> numbers[] = {{"minimum", control.minimum},
                                                           {"maximum", control.maximum},
                                                           {"step", control.step},
                                                           {"default", control.defaultValue},
                                                           {"flags", control.flags}};
        for (const auto& [name, value] : numbers)
            if (value != 0)
                json[name] = value;
        if (control.value)
            json["value"] = *control.value;
        if (control.elementSize != 4)
            json["elementSize"] = control.elementSize;
        if (control.elements != 1)
            json["elements"] = control.elements;
        if (!control.dimensions.empty())
            json["dimensions"] = control.dimensions;
        for (const auto& [value, text] : control.menu)
            json["menu"].push_back(Json::array({value, text}));
    }
    return all;
}

Json video(const VideoDesc& given) {
    const VideoDesc desc = completed(given);
    Json json;
    if (!desc.driver.empty())
        json["driver"] = desc.driver;
    if (!desc.card.empty())
        json["card"] = desc.card;
    if (!desc.bus.empty())
        json["bus"] = desc.bus;
    if (desc.version != 0)
        json["version"] = desc.version;
    json["capabilities"] = *desc.capabilities;
    json["deviceCapabilities"] = *desc.deviceCaps;
    if (desc.bufType != 0)
        json["queue"] = queue(desc);
    if (!desc.secondQueue.empty())
        json["secondQueue"] = queue(desc.secondQueue.front());
    writeSignal(desc.signal, json);
    if (!desc.controls->empty())
        json["controls"] = controls(*desc.controls);
    return json;
}

Json subDevice(const SubDeviceDesc& desc) {
    Json json;
    json["version"] = desc.version;
    json["capabilities"] = desc.capabilities;
    json["frameSync"] = desc.sendsFrameSync;
    if (desc.privateControls) {
        json["privateControls"] = Json::array();
        for (const PrivateControlDesc& control : *desc.privateControls)
            json["privateControls"].push_back({{"id", control.id},
                                               {"minimum", control.minimum},
                                               {"maximum", control.maximum},
                                               {"value", control.value}});
    }
    if (!desc.controls.empty())
        json["controls"] = controls(desc.controls);
    if (!desc.pads.empty())
        json["pads"] = writePads(desc.pads);
    return json;
}

Json pads(const DeviceDesc& device, const EntityDesc& entity) {
    Json all = Json::array();
    for (uint32_t pad = 0; pad < entity.padFlags.size(); ++pad) {
        Json& json = all.emplace_back(Json::object());
        const uint32_t flags = entity.padFlags[pad];
        json["direction"] = (flags & MEDIA_PAD_FL_SOURCE) != 0 ? "source" : "sink";
        if ((flags & MEDIA_PAD_FL_MUST_CONNECT) != 0)
            json["mustConnect"] = true;
        for (const GraphLinkDesc& link : device.links) {
            if (link.source != entity.name || link.sourcePad != pad)
                continue;
            Json& item =
                json["links"].emplace_back(Json{{"entity", link.sink}, {"pad", link.sinkPad}});
            const std::pair<const char*, uint32_t> words[] = {
                {"enabled", MEDIA_LNK_FL_ENABLED},
                {"immutable", MEDIA_LNK_FL_IMMUTABLE},
                {"dynamic", MEDIA_LNK_FL_DYNAMIC},
            };
            for (const auto& [word, flag] : words)
                if ((link.flags & flag) != 0)
                    item[word] = true;
        }
    }
    return all;
}

Json entities(const DeviceDesc& device) {
    Json all = Json::array();
    uint32_t next = 1;
    for (const EntityDesc& entity : device.entities) {
        Json& json = all.emplace_back(Json::object());
        const uint32_t id = entity.id != 0 ? entity.id : next;
        const bool hasNode = entity.video || entity.subDevice;
        next = id + 1 + static_cast<uint32_t>(entity.padFlags.size()) + (hasNode ? 1 : 0);
        json["id"] = id;
        json["name"] = entity.name;
        json["function"] = entity.function;
        if (entity.type != 0)
            json["type"] = entity.type;
        if (entity.flags != 0)
            json["flags"] = entity.flags;
        json["pads"] = pads(device, entity);
        if (!entity.node.name.empty())
            json["node"]["name"] = entity.node.name;
        if (entity.node.number) {
            json["node"]["major"] = entity.node.number->first;
            json["node"]["minor"] = entity.node.number->second;
        }
        if (!entity.nodeOf.empty())
            json["nodeOf"] = entity.nodeOf;
        if (entity.video)
            json["video"] = video(*entity.video);
        else if (entity.subDevice)
            json["subdevice"] = subDevice(*entity.subDevice);
    }
    return all;
}

Json info(const DeviceDesc& device) {
    const media_device_info& from = device.info;
    Json json;
    json["driver"] = v4l2::fixedText(from.driver);
    json["model"] = v4l2::fixedText(from.model);
    if (from.serial[0] != 0)
        json["serial"] = v4l2::fixedText(from.serial);
    json["bus"] = v4l2::fixedText(from.bus_info);
    json["hardwareRevision"] = from.hw_revision;
    json["driverVersion"] = from.driver_version;
    json["mediaVersion"] = from.media_version;
    if (!device.mediaNode.empty())
        json["node"] = device.mediaNode;
    return json;
}

std::string inLine(const Json& json) {
    // Texts come from drivers, which may say anything.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/** What fits into a line stands in one, so that people can read and compare the text. */
void print(const Json& json, const std::string& indent, std::string& text) {
    constexpr size_t kLine = 100;
    const std::string line = inLine(json);
    if (line.size() + indent.size() <= kLine || !json.is_structured()) {
        text += line;
        return;
    }
    const std::string inner = indent + " ";
    text += json.is_object() ? "{" : "[";
    const char* separator = "\n";
    for (const auto& item : json.items()) {
        text += separator + inner;
        if (json.is_object())
            text += inLine(item.key()) + ": ";
        print(item.value(), inner, text);
        separator = ",\n";
    }
    text += "\n" + indent + (json.is_object() ? "}" : "]");
}

}  // namespace

std::string writeDescription(const DeviceDesc& device) {
    Json json;
    json["what"] = kDescriptionWhat;
    json["version"] = kDescriptionVersion;
    json["device"] = info(device);
    json["entities"] = entities(device);
    std::string text;
    print(json, {}, text);
    return text + "\n";
}

}  // namespace NSVista::NSCorvane::sim
