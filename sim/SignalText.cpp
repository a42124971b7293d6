// SPDX-License-Identifier: Apache-2.0
#include "SignalText.h"

#include <set>

namespace NSVista::NSCorvane::sim {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kNameText = 31, kMostConnectors = 64, kMostItems = 4096;
constexpr size_t kTimingNumbers = 20, kFormatNumbers = 9;

ConnectorDesc readConnector(const JsonPlace& place) {
    place.withOnly({"name", "type", "audioset", "tuner", "status", "capabilities", "standards"});
    ConnectorDesc connector;
    connector.name = place.textOr("name", kNameText);
    connector.type = place.at("type").word();
    connector.audioset = place.wordOr("audioset", 0);
    connector.tuner = place.wordOr("tuner", 0);
    connector.status = place.wordOr("status", 0);
    connector.capabilities = place.wordOr("capabilities", 0);
    if (const auto standards = place.find("standards"))
        connector.standards = static_cast<uint64_t>(standards->number(0, INT64_MAX));
    return connector;
}

std::optional<ConnectorsDesc> readConnectors(const JsonPlace& video, const char* name) {
    const auto place = video.find(name);
    if (!place)
        return std::nullopt;
    place->withOnly({"list", "current"});
    ConnectorsDesc connectors;
    const JsonPlace list = place->at("list");
    for (size_t i = 0; i < list.length(1, kMostConnectors); ++i)
        connectors.list.push_back(readConnector(list.at(i)));
    connectors.current =
        place->at("current").word(0, static_cast<uint32_t>(connectors.list.size() - 1));
    return connectors;
}

v4l2_bt_timings readTimings(const JsonPlace& place) {
    place.length(kTimingNumbers, kTimingNumbers);
    size_t next = 0;
    const auto word = [&] { return place.at(next++).word(); };
    const auto byte = [&] { return static_cast<uint8_t>(place.at(next++).word(0, UINT8_MAX)); };
    v4l2_bt_timings timings = {};
    timings.width = word();
    timings.height = word();
    timings.interlaced = word();
    timings.polarities = word();
    timings.pixelclock = static_cast<uint64_t>(place.at(next++).number(0, INT64_MAX));
    timings.hfrontporch = word();
    timings.hsync = word();
    timings.hbackporch = word();
    timings.vfrontporch = word();
    timings.vsync = word();
    timings.vbackporch = word();
    timings.il_vfrontporch = word();
    timings.il_vsync = word();
    timings.il_vbackporch = word();
    timings.standards = word();
    timings.flags = word();
    timings.picture_aspect.numerator = word();
    timings.picture_aspect.denominator = word();
    timings.cea861_vic = byte();
    timings.hdmi_vic = byte();
    return timings;
}

Json writeTimings(const v4l2_bt_timings& t) {
    const uint64_t numbers[kTimingNumbers] = {t.width,
                                              t.height,
                                              t.interlaced,
                                              t.polarities,
                                              t.pixelclock,
                                              t.hfrontporch,
                                              t.hsync,
                                              t.hbackporch,
                                              t.vfrontporch,
                                              t.vsync,
                                              t.vbackporch,
                                              t.il_vfrontporch,
                                              t.il_vsync,
                                              t.il_vbackporch,
                                              t.standards,
                                              t.flags,
                                              t.picture_aspect.numerator,
                                              t.picture_aspect.denominator,
                                              t.cea861_vic,
                                              t.hdmi_vic};
    return numbers;
}

Json writeConnectors(const ConnectorsDesc& connectors) {
    Json json = {{"current", connectors.current}, {"list", Json::array()}};
    for (const ConnectorDesc& desc : connectors.list) {
        Json& item = json["list"].emplace_back(Json::object());
        if (!desc.name.empty())
            item["name"] = desc.name;
        item["type"] = desc.type;
        const std::pair<const char*, uint64_t> numbers[] = {{"audioset", desc.audioset},
                                                            {"tuner", desc.tuner},
                                                            {"status", desc.status},
                                                            {"capabilities", desc.capabilities},
                                                            {"standards", desc.standards}};
        for (const auto& [name, number] : numbers)
            if (number != 0)
                item[name] = number;
    }
    return json;
}

v4l2_mbus_framefmt readPadFormat(const JsonPlace& place) {
    place.length(kFormatNumbers, kFormatNumbers);
    const auto narrow = [&](size_t index) {
        return static_cast<uint16_t>(place.at(index).word(0, UINT16_MAX));
    };
    v4l2_mbus_framefmt format = {};
    format.width = place.at(size_t{0}).word();
    format.height = place.at(1).word();
    format.code = place.at(2).word();
    format.field = place.at(3).word();
    format.colorspace = place.at(4).word();
    format.ycbcr_enc = narrow(5);
    format.quantization = narrow(6);
    format.xfer_func = narrow(7);
    format.flags = narrow(8);
    return format;
}

PadCodeDesc readPadCode(const JsonPlace& place) {
    place.withOnly({"code", "flags", "sizes"});
    PadCodeDesc code;
    code.code = place.at("code").word();
    code.flags = place.wordOr("flags", 0);
    if (const auto sizes = place.find("sizes"))
        for (size_t i = 0; i < sizes->length(0, kMostItems); ++i) {
            const JsonPlace size = sizes->at(i);
            size.length(4, 4);
            code.sizes.push_back({size.at(size_t{0}).word(), size.at(1).word(), size.at(2).word(),
                                  size.at(3).word()});
            const PadCodeDesc::Range& range = code.sizes.back();
            if (range.minWidth > range.maxWidth || range.minHeight > range.maxHeight)
                size.refuse("has a minimum above its maximum");
        }
    return code;
}

}  // namespace

SignalDesc readSignal(const JsonPlace& video) {
    SignalDesc signal;
    signal.inputs = readConnectors(video, kInputs);
    signal.outputs = readConnectors(video, kOutputs);
    if (const auto standard = video.find(kStandard))
        signal.standard = static_cast<uint64_t>(standard->number(0, INT64_MAX));
    if (const auto timings = video.find(kTimings))
        signal.timings = readTimings(*timings);
    if (const auto list = video.find(kTimingsOffered))
        for (size_t i = 0; i < list->length(0, kMostItems); ++i)
            signal.timingsOffered.push_back(readTimings(list->at(i)));
    return signal;
}

void writeSignal(const SignalDesc& signal, Json& video) {
    if (signal.inputs)
        video[kInputs] = writeConnectors(*signal.inputs);
    if (signal.outputs)
        video[kOutputs] = writeConnectors(*signal.outputs);
    if (signal.standard)
        video[kStandard] = *signal.standard;
    if (signal.timings)
        video[kTimings] = writeTimings(*signal.timings);
    for (const v4l2_bt_timings& timings : signal.timingsOffered)
        video[kTimingsOffered].push_back(writeTimings(timings));
}

std::vector<PadDesc> readPads(const JsonPlace& list, size_t count) {
    std::vector<PadDesc> pads;
    std::set<uint32_t> known;
    for (size_t i = 0; i < list.length(0, count); ++i) {
        const JsonPlace place = list.at(i).withOnly({"pad", "format", "codes"});
        PadDesc& pad = pads.emplace_back();
        pad.pad = place.at("pad").word();
        if (pad.pad >= count)
            place.at("pad").refuse("is no pad of the entity, which has " + std::to_string(count));
        if (!known.insert(pad.pad).second)
            place.at("pad").refuse("is there already");
        pad.format = readPadFormat(place.at("format"));
        if (const auto codes = place.find("codes"))
            for (size_t j = 0; j < codes->length(0, kMostItems); ++j)
                pad.codes.push_back(readPadCode(codes->at(j)));
    }
    return pads;
}

Json writePads(const std::vector<PadDesc>& pads) {
    Json all = Json::array();
    for (const PadDesc& pad : pads) {
        const v4l2_mbus_framefmt& f = pad.format;
        Json& json = all.emplace_back(Json{{"pad", pad.pad}});
        json["format"] = {f.width,     f.height,       f.code,      f.field, f.colorspace,
                          f.ycbcr_enc, f.quantization, f.xfer_func, f.flags};
        for (const PadCodeDesc& code : pad.codes) {
            Json& item = json["codes"].emplace_back(Json{{"code", code.code}});
            if (code.flags != 0)
                item["flags"] = code.flags;
            for (const PadCodeDesc::Range& size : code.sizes)
                item["sizes"].push_back(
                    {size.minWidth, size.maxWidth, size.minHeight, size.maxHeight});
        }
    }
    return all;
}

}  // namespace NSVista::NSCorvane::sim
