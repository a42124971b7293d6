// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <numeric>
#include <set>

#include <corvane/V4L2.h>
#include <corvane/sim/DescriptionFile.h>

#include "DescriptionWords.h"
#include "JsonPlace.h"
#include "SignalText.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::sim {

namespace {

/** What the kernel's records have room for, without the zero at the end. */
constexpr size_t kDriverText = 15, kNameText = 31, kEntityText = 63;

/** Above these no description is a device's; they keep sums of them within 32 bits. */
constexpr uint32_t kMostPixels = 1U << 20, kMostBytes = 1U << 30, kMostPads = 4096;
constexpr size_t kMostItems = 4096;
/** A short text can name long lists often; each format has a copy. */
constexpr size_t kMostShared = 1U << 17;

uint32_t readFourcc(const JsonPlace& place) {
    const uint32_t fourcc = fourccOfWord(place.text(kNameText));
    if (fourcc == 0)
        place.refuse("is no format");
    return fourcc;
}

std::string readNodeName(const JsonPlace& place) {
    std::string name = place.text(kNameText);
    if (name.empty() || !std::all_of(name.begin(), name.end(), [](unsigned char c) {
            return isalnum(c) != 0 || c == '-' || c == '_';
        }))
        place.refuse("is no name of a device node");
    return name;
}

void readInfo(const JsonPlace& place, DeviceDesc& device) {
    place.withOnly({"driver", "model", "serial", "bus", "hardwareRevision", "driverVersion",
                    "mediaVersion", "node"});
    device.setNames(place.at("driver").text(kDriverText), place.at("model").text(kNameText));
    const auto put = [](const std::string& text, auto& field) {
        text.copy(field, sizeof(field) - 1);
    };
    put(place.textOr("serial", sizeof(device.info.serial) - 1), device.info.serial);
    put(place.textOr("bus", sizeof(device.info.bus_info) - 1), device.info.bus_info);
    device.info.hw_revision = place.wordOr("hardwareRevision", 0);
    device.info.driver_version = place.wordOr("driverVersion", 0);
    device.info.media_version = place.wordOr("mediaVersion", 0);
    if (const auto node = place.find("node"))
        device.mediaNode = readNodeName(*node);
}

v4l2_fract readFraction(const JsonPlace& place) {
    place.length(2, 2);
    return {place.at(size_t{0}).word(), place.at(1).word()};
}

IntervalDesc readInterval(const JsonPlace& place) {
    IntervalDesc interval;
    if (const auto discrete =
            place.withOnly({"discrete", "continuous", "stepwise"}).find("discrete")) {
        interval.range.min = readFraction(*discrete);
        return interval;
    }
    const auto continuous = place.find("continuous");
    const JsonPlace range = continuous ? *continuous : place.at("stepwise");
    range.length(3, 3);
    interval.kind = continuous ? V4L2_FRMIVAL_TYPE_CONTINUOUS : V4L2_FRMIVAL_TYPE_STEPWISE;
    interval.range = {readFraction(range.at(size_t{0})), readFraction(range.at(1)),
                      readFraction(range.at(2))};
    return interval;
}

SizeDesc readSize(const JsonPlace& place) {
    place.withOnly({"discrete", "continuous", "stepwise", "intervals"});
    SizeDesc size;
    const auto pixels = [](const JsonPlace& list, size_t index) {
        return list.at(index).word(0, kMostPixels);
    };
    if (const auto intervals = place.find("intervals"))
        for (size_t i = 0; i < intervals->length(0, kMostItems); ++i)
            size.intervals.push_back(readInterval(intervals->at(i)));
    if (const auto discrete = place.find("discrete")) {
        discrete->length(2, 2);
        size.range.min_width = pixels(*discrete, 0);
        size.range.min_height = pixels(*discrete, 1);
        return size;
    }
    const auto continuous = place.find("continuous");
    const JsonPlace range = continuous ? *continuous : place.at("stepwise");
    range.length(6, 6);
    size.kind = continuous ? V4L2_FRMSIZE_TYPE_CONTINUOUS : V4L2_FRMSIZE_TYPE_STEPWISE;
    size.range = {pixels(range, 0), pixels(range, 1), pixels(range, 2),
                  pixels(range, 3), pixels(range, 4), pixels(range, 5)};
    if (size.range.min_width > size.range.max_width ||
        size.range.min_height > size.range.max_height)
        range.refuse("has a minimum above its maximum");
    return size;
}

/** Formats offer a list of sizes, or one range. */
std::vector<SizeDesc> readSizes(const JsonPlace& place) {
    std::vector<SizeDesc> sizes;
    for (size_t i = 0; i < place.length(0, kMostItems); ++i) {
        sizes.push_back(readSize(place.at(i)));
        if (!sizes.back().isDiscrete() && place.length() > 1)
            place.at(i).refuse("is a range among other sizes");
    }
    return sizes;
}

/** @param at where the planes' strides and sizes begin. */
LayoutDesc readLayout(const JsonPlace& place, size_t at, bool isMultiPlanar) {
    const size_t planes = (place.length() - at) / 2;
    if (place.length() < at + 2 || (place.length() - at) % 2 != 0 ||
        planes > (isMultiPlanar ? VIDEO_MAX_PLANES : 1U))
        place.refuse("has a wrong number of planes");
    LayoutDesc layout{
        place.at(at - 2).word(0, kMostPixels), place.at(at - 1).word(0, kMostPixels), {}};
    for (; at < place.length(); at += 2)
        layout.planes.push_back(
            {place.at(at).word(0, kMostBytes), place.at(at + 1).word(1, kMostBytes)});
    return layout;
}

std::vector<AnswerDesc> readAnswers(const JsonPlace& place, bool isMultiPlanar) {
    std::vector<AnswerDesc> answers;
    for (size_t i = 0; i < place.length(1, kMostItems); ++i) {
        const JsonPlace answer = place.at(i);
        answer.length(6);
        answers.push_back({answer.at(size_t{0}).word(), answer.at(1).word(),
                           readLayout(answer, 4, isMultiPlanar)});
        if (answers.back().layout.planes.size() != answers.front().layout.planes.size())
            answer.refuse("has another number of planes than the first");
    }
    return answers;
}

ColourDesc readColour(const JsonPlace& place) {
    place.length(6, 6);
    return {place.at(size_t{0}).word(), place.at(1).word(), place.at(2).word(),
            place.at(3).word(),         place.at(4).word(), place.at(5).word()};
}

/** Lists that formats share, by index. */
template <class Item>
const Item& shared(const std::vector<Item>& items, const JsonPlace& index) {
    const uint32_t number = index.word();
    if (number >= items.size())
        index.refuse("is not in the list, which has " + std::to_string(items.size()));
    return items[number];
}

void readFormats(const JsonPlace& queue, VideoDesc& video) {
    std::vector<ColourDesc> colours;
    std::vector<std::vector<SizeDesc>> sizes;
    std::vector<std::vector<AnswerDesc>> answers;
    const auto each = [&](const char* name, const auto& read) {
        const JsonPlace list = queue.at(name);
        for (size_t i = 0; i < list.length(0, kMostItems); ++i)
            read(list.at(i));
    };
    each("colours", [&](const JsonPlace& place) { colours.push_back(readColour(place)); });
    each("sizes", [&](const JsonPlace& place) { sizes.push_back(readSizes(place)); });
    each("answers", [&](const JsonPlace& place) {
        answers.push_back(readAnswers(place, v4l2::isMultiPlanar(video.bufType)));
    });
    std::set<uint32_t> known;
    size_t items = 0;
    const JsonPlace list = queue.at("formats");
    list.length(1);
    each("formats", [&](const JsonPlace& place) {
        place.withOnly({"format", "description", "flags", "colour", "sizes", "answers"});
        FormatDesc format;
        format.fourcc = readFourcc(place.at("format"));
        if (!known.insert(format.fourcc).second)
            place.at("format").refuse("is there already");
        format.description = place.textOr("description", kNameText);
        format.flags = place.wordOr("flags", 0);
        format.colour = shared(colours, place.at("colour"));
        format.sizes = shared(sizes, place.at("sizes"));
        format.answers = shared(answers, place.at("answers"));
        items += format.answers.size() +
                 std::accumulate(
                     format.sizes.begin(), format.sizes.end(), format.sizes.size(),
                     [](size_t sum, const SizeDesc& size) { return sum + size.intervals.size(); });
        if (items > kMostShared)
            place.refuse("brings the queue to more than " + std::to_string(kMostShared) +
                         " sizes, intervals and answers");
        video.formats.push_back(std::move(format));
    });
}

void readQueue(const JsonPlace& place, VideoDesc& video) {
    place.withOnly({"type", "format", "layout", "unknownFormat", "enumeratesSizes", "interval",
                    "formats", "colours", "sizes", "answers", "buffers"});
    const std::string type = place.at("type").text(kEntityText);
    for (const v4l2::BufferType& each : v4l2::kBufferTypes)
        if (type == each.name && each.caps != 0)
            video.bufType = each.type;
    if (video.bufType == 0)
        place.at("type").refuse("is no type of buffers of a queue");
    readFormats(place, video);
    const JsonPlace format = place.at("format");
    video.format = readFourcc(format);
    const auto offered =
        std::find_if(video.formats.begin(), video.formats.end(),
                     [&](const FormatDesc& each) { return each.fourcc == video.format; });
    if (offered == video.formats.end())
        format.refuse("is none of the formats");
    video.layout = readLayout(place.at("layout"), 2, v4l2::isMultiPlanar(video.bufType));
    if (video.layout->planes.size() != offered->answers.front().layout.planes.size())
        place.at("layout").refuse("has another number of planes than the format's answers");
    if (const auto unknown = place.find("unknownFormat")) {
        if (const auto error = unknown->withOnly({"error", "becomes"}).find("error"))
            video.unknownFormat = -static_cast<int>(error->number(1, 4095));
        else
            video.fallback = readFourcc(unknown->at("becomes"));
    }
    video.enumeratesSizes = place.flagOr("enumeratesSizes", true);
    if (const auto interval = place.find("interval"))
        video.interval = readFraction(*interval);
    const JsonPlace buffers =
        place.at("buffers").withOnly({"minimum", "maximum", "capabilities", "requests"});
    video.minBuffers = buffers.at("minimum").word(1, 64);
    video.maxBuffers = buffers.at("maximum").word(video.minBuffers, 64);
    if (const auto capabilities = buffers.find("capabilities"))
        video.queueCapabilities = capabilities->word();
    const JsonPlace requests = buffers.at("requests");
    const auto use = requestUseOf(requests.text(kNameText));
    if (!use)
        requests.refuse("is none of refused, optional and required");
    video.requests = *use;
}

ControlDesc readControl(const JsonPlace& place) {
    place.withOnly({"id", "name", "type", "minimum", "maximum", "step", "default", "flags", "value",
                    "menu", "elementSize", "elements", "dimensions"});
    ControlDesc control;
    control.id = place.at("id").word(1, V4L2_CTRL_ID_MASK);
    control.name = place.at("name").text(kNameText);
    control.type = place.at("type").word();
    const auto number = [&](const char* name, int64_t& value) {
        if (const auto field = place.find(name))
            value = field->number(INT64_MIN, INT64_MAX);
    };
    number("minimum", control.minimum);
    number("maximum", control.maximum);
    if (control.minimum > control.maximum && control.type != V4L2_CTRL_TYPE_BITMASK)
        place.at("maximum").refuse("is below the minimum");
    number("step", control.step);
    number("default", control.defaultValue);
    if (const auto value = place.find("value"))
        control.value = value->number(INT64_MIN, INT64_MAX);
    control.flags = place.wordOr("flags", 0);
    constexpr uint32_t kMostElement = 4096;
    if (const auto size = place.find("elementSize"))
        control.elementSize = size->word(0, kMostElement);
    if (const auto elements = place.find("elements"))
        control.elements = elements->word(0, 1U << 16);
    if (const auto dimensions = place.find("dimensions"))
        for (size_t i = 0; i < dimensions->length(0, V4L2_CTRL_MAX_DIMS); ++i)
            control.dimensions.push_back(dimensions->at(i).word());
    if (const auto menu = place.find("menu"))
        for (size_t i = 0; i < menu->length(0, kMostItems); ++i) {
            const JsonPlace item = menu->at(i);
            item.length(2, 2);
            control.menu.emplace_back(item.at(size_t{0}).number(0, UINT32_MAX),
                                      item.at(1).text(kNameText));
        }
    return control;
}

std::vector<ControlDesc> readControls(const JsonPlace& place) {
    std::vector<ControlDesc> controls;
    std::set<uint32_t> ids;
    for (size_t i = 0; i < place.length(0, kMostItems); ++i) {
        controls.push_back(readControl(place.at(i)));
        if (!ids.insert(controls.back().id).second)
            place.at(i).at("id").refuse("is there already");
    }
    return controls;
}

VideoDesc readVideo(const JsonPlace& place) {
    place.withOnly({"driver", "card", "bus", "version", "capabilities", "deviceCapabilities",
                    "queue", "secondQueue", "controls", kInputs, kOutputs, kStandard, kTimings,
                    kTimingsOffered});
    VideoDesc video;
    video.role = kPlainRole;
    video.driver = place.textOr("driver", kDriverText);
    video.card = place.textOr("card", kNameText);
    video.bus = place.textOr("bus", kNameText);
    video.version = place.wordOr("version", 0);
    video.capabilities = place.at("capabilities").word();
    video.deviceCaps = place.at("deviceCapabilities").word();
    if (const auto queue = place.find("queue"))
        readQueue(*queue, video);
    if (const auto second = place.find("secondQueue")) {
        readQueue(*second, video.secondQueue.emplace_back());
        if (video.bufType == 0 ||
            v4l2::isOutput(video.bufType) == v4l2::isOutput(video.secondQueue[0].bufType))
            second->at("type").refuse("is not the other direction of a first queue");
    }
    video.signal = readSignal(place);
    video.controls.emplace();
    if (const auto controls = place.find("controls"))
        video.controls = readControls(*controls);
    return video;
}

/** @param pads of the entity. */
SubDeviceDesc readSubDevice(const JsonPlace& place, size_t pads) {
    place.withOnly({"version", "capabilities", "frameSync", "privateControls", "controls", "pads"});
    SubDeviceDesc subDevice;
    subDevice.version = place.wordOr("version", 0);
    subDevice.capabilities = place.wordOr("capabilities", 0);
    subDevice.sendsFrameSync = place.flagOr("frameSync", false);
    if (const auto list = place.find("privateControls")) {
        subDevice.privateControls.emplace();
        for (size_t i = 0; i < list->length(0, kMostItems); ++i) {
            const JsonPlace control = list->at(i).withOnly({"id", "minimum", "maximum", "value"});
            const auto number = [&](const char* name) {
                return static_cast<int32_t>(control.at(name).number(INT32_MIN, INT32_MAX));
            };
            subDevice.privateControls->push_back(
                {number("id"), number("minimum"), number("maximum"), number("value")});
        }
    }
    if (const auto controls = place.find("controls"))
        subDevice.controls = readControls(*controls);
    if (const auto list = place.find("pads"))
        subDevice.pads = readPads(*list, pads);
    return subDevice;
}

/** Reads entities and their links, and tests that the graph is one. */
class GraphReader {
public:
    GraphReader(const JsonPlace& entities, DeviceDesc& device)
        : mEntities(entities), mDevice(device) {}

    void read() {
        const size_t count = mEntities.length(0, kMostItems);
        for (size_t i = 0; i < count; ++i)
            readEntity(mEntities.at(i));
        for (size_t i = 0; i < count; ++i) {
            const JsonPlace pads = mEntities.at(i).at("pads");
            for (size_t pad = 0; pad < pads.length(); ++pad)
                readLinks(pads.at(pad), i, static_cast<uint32_t>(pad));
        }
    }

private:
    void readEntity(const JsonPlace& place) {
        place.withOnly({"id", "name", "function", "type", "flags", "pads", "node", "nodeOf",
                        "video", "subdevice"});
        EntityDesc entity;
        entity.id = place.at("id").word(1, (1U << 24) - 1);
        if (!mDevice.entities.empty() && entity.id <= mDevice.entities.back().id)
            place.at("id").refuse("is not above the one before, " +
                                  std::to_string(mDevice.entities.back().id));
        entity.name = place.at("name").text(kEntityText);
        if (!mPlaces.emplace(entity.name, mDevice.entities.size()).second)
            place.at("name").refuse("is another entity's name as well");
        entity.function = place.at("function").word();
        entity.type = place.wordOr("type", 0);
        entity.flags = place.wordOr("flags", 0);
        const JsonPlace pads = place.at("pads");
        for (size_t i = 0; i < pads.length(0, kMostPads); ++i)
            entity.padFlags.push_back(readPad(pads.at(i)));
        readNode(place, entity);
        mDevice.entities.push_back(std::move(entity));
    }

    static uint32_t readPad(const JsonPlace& place) {
        place.withOnly({"direction", "mustConnect", "links"});
        const JsonPlace direction = place.at("direction");
        const std::string word = direction.text(kNameText);
        if (word != "source" && word != "sink")
            direction.refuse("is neither source nor sink");
        return (word == "source" ? MEDIA_PAD_FL_SOURCE : MEDIA_PAD_FL_SINK) |
               (place.flagOr("mustConnect", false) ? MEDIA_PAD_FL_MUST_CONNECT : 0);
    }

    void readNode(const JsonPlace& place, EntityDesc& entity) {
        const auto video = place.find("video"), subDevice = place.find("subdevice");
        const auto node = place.find("node");
        if (video && subDevice)
            subDevice->refuse("stands beside a video node");
        if (node && !video && !subDevice)
            node->refuse("has neither \"video\" nor \"subdevice\" beside it");
        if (video)
            entity.video = readVideo(*video);
        if (const auto owner = place.find("nodeOf"))
            readOwner(*owner, video || subDevice, entity);
        if (subDevice)
            entity.subDevice = readSubDevice(*subDevice, entity.padFlags.size());
        if (!node)
            return;
        node->withOnly({"name", "major", "minor"});
        if (const auto name = node->find("name")) {
            entity.node.name = readNodeName(*name);
            if (entity.node.name == mDevice.mediaNode || !mNodes.insert(entity.node.name).second)
                name->refuse("is another node's name as well");
        }
        if (node->find("major") || node->find("minor")) {
            entity.node.number = {node->at("major").word(1, 4095),
                                  node->at("minor").word(0, (1U << 20) - 1)};
            if (!mNumbers.insert(*entity.node.number).second)
                node->refuse("has another node's number");
        }
    }

    void readOwner(const JsonPlace& place, bool hasNode, EntityDesc& entity) {
        entity.nodeOf = place.text(kEntityText);
        const auto owner = mPlaces.find(entity.nodeOf);
        if (hasNode)
            place.refuse("stands beside a node of its own");
        if (owner == mPlaces.end() || owner->second == mDevice.entities.size() ||
            (!mDevice.entities[owner->second].video && !mDevice.entities[owner->second].subDevice))
            place.refuse("is no earlier entity with a node");
    }

    void readLinks(const JsonPlace& pad, size_t source, uint32_t sourcePad) {
        const auto links = pad.find("links");
        const bool isSource =
            (mDevice.entities[source].padFlags[sourcePad] & MEDIA_PAD_FL_SOURCE) != 0;
        for (size_t i = 0; links && i < links->length(0, kMostItems); ++i) {
            const JsonPlace place =
                links->at(i).withOnly({"entity", "pad", "enabled", "immutable", "dynamic"});
            if (!isSource)
                place.refuse("stands at a sink: links are told at their sources");
            const JsonPlace name = place.at("entity");
            const auto sink = mPlaces.find(name.text(kEntityText));
            if (sink == mPlaces.end())
                name.refuse("is no entity");
            const EntityDesc& to = mDevice.entities[sink->second];
            const uint32_t sinkPad = place.at("pad").word();
            if (sinkPad >= to.padFlags.size())
                place.at("pad").refuse("is no pad of " + to.name + ", which has " +
                                       std::to_string(to.padFlags.size()));
            if ((to.padFlags[sinkPad] & MEDIA_PAD_FL_SINK) == 0)
                place.at("pad").refuse("is no sink");
            if (!mLinks.insert({source, sourcePad, sink->second, sinkPad}).second)
                place.refuse("is there already");
            if (reaches(sink->second, source))
                place.refuse("closes a loop");
            mSinksOf[source].insert(sink->second);
            const uint32_t flags =
                (place.flagOr("enabled", false) ? MEDIA_LNK_FL_ENABLED : 0U) |
                (place.flagOr("immutable", false) ? MEDIA_LNK_FL_IMMUTABLE : 0U) |
                (place.flagOr("dynamic", false) ? MEDIA_LNK_FL_DYNAMIC : 0U);
            mDevice.links.push_back(
                {mDevice.entities[source].name, sourcePad, to.name, sinkPad, flags});
        }
    }

    /** Whether links lead from one entity to another, or it is the same. */
    bool reaches(size_t from, size_t to) const {
        std::vector<size_t> open = {from};
        std::set<size_t> seen = {from};
        while (!open.empty()) {
            const size_t at = open.back();
            open.pop_back();
            if (at == to)
                return true;
            if (const auto sinks = mSinksOf.find(at); sinks != mSinksOf.end())
                for (const size_t next : sinks->second)
                    if (seen.insert(next).second)
                        open.push_back(next);
        }
        return false;
    }

    const JsonPlace& mEntities;
    DeviceDesc& mDevice;
    std::map<std::string, size_t> mPlaces;  ///< of entities, by name
    std::set<std::string> mNodes;
    std::set<std::pair<uint32_t, uint32_t>> mNumbers;
    std::set<std::array<size_t, 4>> mLinks;
    std::map<size_t, std::set<size_t>> mSinksOf;
};

/** The engine's own nodes have parts in its pictures that no call tells. */
void assignRoles(DeviceDesc& device) {
    if (strcmp(device.info.driver, VENGINE_DRIVER) != 0)
        return;
    for (EntityDesc& entity : device.entities)
        for (const vengine_port& port : vengine_ports)
            if (entity.video && entity.name == port.name && entity.video->bufType == port.buf_type)
                entity.video->role = port.role;
}

void readAll(const JsonPlace& root, DeviceDesc& device) {
    const JsonPlace version = root.at("version");
    const int64_t number = version.number(1, INT64_MAX);
    if (number > kDescriptionVersion)
        version.refuse("is " + std::to_string(number) + ", and " +
                       std::to_string(kDescriptionVersion) + " is the newest known here");
    root.withOnly({"what", "version", "device", "entities"});
    if (root.at("what").text(kEntityText) != kDescriptionWhat)
        root.at("what").refuse("is not \"" + std::string(kDescriptionWhat) + "\"");
    readInfo(root.at("device"), device);
    const JsonPlace entities = root.at("entities");
    GraphReader(entities, device).read();
    assignRoles(device);
}

}  // namespace

std::optional<DeviceDesc> readDescription(std::string_view text, std::string& error) {
    try {
        const nlohmann::json json = nlohmann::json::parse(text);
        if (!json.is_object()) {
            error = "the text is no object";
            return std::nullopt;
        }
        DeviceDesc device;
        readAll(JsonPlace(json, {}), device);
        return device;
    } catch (const BadJson& bad) {
        error = bad.place + ": " + bad.reason;
    } catch (const nlohmann::json::exception& bad) {
        // "[json.exception.parse_error.101] parse error at line 3, column 7: ..."
        const std::string what = bad.what();
        const size_t end = what.find("] ");
        error = end == std::string::npos ? what : what.substr(end + 2);
    }
    return std::nullopt;
}

}  // namespace NSVista::NSCorvane::sim
