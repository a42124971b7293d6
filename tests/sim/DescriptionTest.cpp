// SPDX-License-Identifier: Apache-2.0
// Descriptions as text: what is written is read again, and what is damaged is refused by its place.
#include <corvane/sim/DescriptionFile.h>
#include <corvane/sim/Engine.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>

namespace NSVista::NSCorvane::test {

namespace {

using nlohmann::ordered_json;

const std::string kEngine = sim::writeDescription(sim::describeVirtualEngine());

struct Damage {
    const char* where;  ///< a JSON pointer
    const char* value;  ///< or a pointer to the value
    const char* error;
};

// The engine's entities: the core, the sub-device, the ports from "vengine-main" on.
// clang-format off
const Damage kDamages[] = {
    {"/version", "3", "version: is 3, and 2 is the newest"},
    {"/version", "null", "version: is no whole number"},
    {"/what", "\"a list\"", "what: is not \"corvane device"},
    {"/device", "[]", "device: is no object"},
    {"/device/model", "5", "device.model: is no text"},
    {"/device/driver", "\"sixteen letters!\"", "device.driver: is longer than 15"},
    {"/device/model", "\"a\\u0000b\"", "device.model: holds a zero"},
    {"/device/node", "\"../sda\"", "device.node: is no name of a device node"},
    {"/entities", "{}", "entities: is no list"},
    {"/entities/1/id", "1", "entities[1].id: is not above the one before, 1"},
    {"/entities/2/name", "\"vengine-core\"", "entities[2].name: is another entity's"},
    {"/entities/2/pads/0/direction", "\"up\"", "entities[2].pads[0].direction: is neither"},
    {"/entities/2/pads", "[]", "entities[0].pads[0].links[0].pad: is no pad of vengine-main, which has 0"},
    {"/entities/0/pads/0/links/0/entity", "\"nobody\"", "entities[0].pads[0].links[0].entity: is no entity"},
    {"/entities/0/pads/0/links/-", R"({"entity":"vengine-main","pad":0})", "entities[0].pads[0].links[1]: is there already"},
    {"/entities/0/pads/0/links/0", R"({"entity":"vengine-tuning","pad":0})", "entities[0].pads[0].links[0].pad: is no sink"},
    {"/entities/2/pads/-", R"({"direction":"source","links":[{"entity":"vengine-core","pad":1}]})", "entities[2].pads[1].links[0]: closes a loop"},
    {"/entities/0/pads/1/links", R"([{"entity":"vengine-main","pad":0}])", "entities[0].pads[1].links[0]: stands at a sink"},
    {"/entities/0/node", "{}", "entities[0].node: has neither"},
    {"/entities/2/subdevice", "{}", "entities[2].subdevice: stands beside"},
    {"/entities/1/subdevice/privateControls/0/value", "4294967296", "entities[1].subdevice.privateControls[0].value: is not from"},
    {"/entities/2/video/queue/type", "\"V4L2_BUF_TYPE_PRIVATE\"", "entities[2].video.queue.type: is no type"},
    {"/entities/2/video/queue/format", "\"\"", "entities[2].video.queue.format: is no format"},
    {"/entities/2/video/queue/format", "\"GREY\"", "entities[2].video.queue.format: is none of the formats"},
    {"/entities/2/video/queue/layout", "[320,240,320,76800]", "entities[2].video.queue.layout: has another number"},
    {"/entities/6/video/queue/layout", "[320,240,1,1,1,1]", "entities[6].video.queue.layout: has a wrong number"},
    {"/entities/2/video/queue/formats/1/format", "\"NV12M\"", "entities[2].video.queue.formats[1].format: is there already"},
    {"/entities/2/video/queue/formats/0/answers", "9", "entities[2].video.queue.formats[0].answers: is not in the list, which has 3"},
    {"/entities/2/video/queue/answers/0/1", "[1,1,2,2,3]", "entities[2].video.queue.answers[0][1]: has 5 items"},
    {"/entities/2/video/queue/answers/0/1", "[1,1,2,2,3,4]", "entities[2].video.queue.answers[0][1]: has another number"},
    {"/entities/2/video/queue/answers/0/1/5", "1073741825", "entities[2].video.queue.answers[0][1][5]: is not from 1"},
    {"/entities/2/video/queue/sizes/0/0/stepwise", "[9,8,1,1,2,1]", "entities[2].video.queue.sizes[0][0].stepwise: has a minimum above"},
    {"/entities/2/video/queue/sizes/0/-", R"({"discrete":[8,8]})", "entities[2].video.queue.sizes[0][0]: is a range among"},
    {"/entities/2/video/queue/sizes/0/0/intervals", R"([{"discrete":[1]}])", "entities[2].video.queue.sizes[0][0].intervals[0].discrete: has 1 items instead of 2"},
    {"/entities/2/video/queue/colours/0", "[1]", "entities[2].video.queue.colours[0]: has 1"},
    {"/entities/2/video/queue/unknownFormat", R"({"error":0})", "entities[2].video.queue.unknownFormat.error: is not from 1"},
    {"/entities/2/video/queue/buffers/minimum", "65", "entities[2].video.queue.buffers.minimum: is not from 1 to 64"},
    {"/entities/2/video/queue/buffers/requests", "\"maybe\"", "entities[2].video.queue.buffers.requests: is none of"},
    {"/entities/0/nodeOf", "\"vengine-main\"", "entities[0].nodeOf: is no earlier entity"},
    {"/entities/2/nodeOf", "\"vengine-subdev\"", "entities[2].nodeOf: stands beside"},
    {"/entities/2/video/secondQueue", "/entities/2/video/queue", "entities[2].video.secondQueue.type: is not the other direction of a first queue"},
    {"/entities/2/video/inputs/current", "1", "entities[2].video.inputs.current: is not from 0 to 0"},
    {"/entities/2/video/standard", "-1", "entities[2].video.standard: is not from 0"},
    {"/entities/2/video/timings", "[1,2]", "entities[2].video.timings: has 2 items instead of 20"},
    {"/entities/2/video/timingsOffered", "[[]]", "entities[2].video.timingsOffered[0]: has 0 items"},
    {"/entities/1/subdevice/pads", R"([{"pad":1,"format":[]}])", "entities[1].subdevice.pads[0].pad: is no pad of the entity, which has 1"},
    {"/entities/1/subdevice/pads", R"([{"pad":0,"format":[1]}])", "entities[1].subdevice.pads[0].format: has 1 items instead of 9"},
    {"/entities/1/subdevice/pads", R"([{"pad":0,"format":[1,1,1,1,1,65536,1,1,1]}])", "entities[1].subdevice.pads[0].format[5]: is not from 0 to 65535"},
    {"/entities/1/subdevice/pads", R"([{"pad":0,"format":[1,1,1,1,1,1,1,1,1],"codes":[{"code":1,"sizes":[[2,1,1,1]]}]}])", "entities[1].subdevice.pads[0].codes[0].sizes[0]: has a minimum above"},
    {"/entities/2/video/controls/1/id", "9961473", "entities[2].video.controls[1].id: is there already"},
    {"/entities/2/video/controls/1/maximum", "-65", "entities[2].video.controls[1].maximum: is below"},
    {"/entities/2/video/controls/1/menu", "[[0]]", "entities[2].video.controls[1].menu[0]: has 1"},
    {"/entities/2/video/controls/1/dimensions", "[1,2,3,4,5]", "entities[2].video.controls[1].dimensions: has 5 items instead of 0 to 4"},
};
// clang-format on

TEST(DescriptionTest, WhatIsDamagedIsRefusedByItsPlace) {
    for (const Damage& damage : kDamages) {
        ordered_json json = ordered_json::parse(kEngine);
        json[ordered_json::json_pointer(damage.where)] =
            damage.value[0] == '/' ? json.at(ordered_json::json_pointer(damage.value))
                                   : ordered_json::parse(damage.value);
        std::string error;
        EXPECT_FALSE(sim::readDescription(json.dump(), error)) << damage.where;
        EXPECT_THAT(error, testing::StartsWith(damage.error)) << damage.value;
    }
}

TEST(DescriptionTest, NoPlaceTakesAnUnknownField) {
    const ordered_json engine = ordered_json::parse(kEngine), leaves = engine.flatten();
    std::set<std::string> seen;
    for (const auto& [leaf, value] : leaves.items()) {
        const auto place = ordered_json::json_pointer(leaf).parent_pointer();
        std::string kind = place.to_string();
        std::erase_if(kind, isdigit);
        if (!engine.at(place).is_object() || !seen.insert(kind).second)
            continue;
        ordered_json json = engine;
        json[place]["odd"] = 1;
        std::string error;
        EXPECT_FALSE(sim::readDescription(json.dump(), error)) << place.to_string();
        EXPECT_THAT(error, testing::HasSubstr("odd: is no field of this place"));
    }
}

TEST(DescriptionTest, WhatIsNoDescriptionIsRefused) {
    std::string error;
    for (size_t length = 0; length + 2 < kEngine.size(); length += 97) {
        EXPECT_FALSE(sim::readDescription(kEngine.substr(0, length), error));
        EXPECT_THAT(error, testing::StartsWith("parse error at line ")) << length;
    }
    for (const std::string& text :
         {std::string("[]"), std::string("{}"), std::string(1U << 17, '['), "\xff" + kEngine})
        EXPECT_FALSE(sim::readDescription(text, error)) << text.substr(0, 20);
    for (const char* field : {"what", "version", "device", "entities"}) {
        ordered_json json = ordered_json::parse(kEngine);
        json.erase(field);
        EXPECT_FALSE(sim::readDescription(json.dump(), error));
        EXPECT_EQ(error, std::string(field) + ": is missing");
    }
}

TEST(DescriptionTest, WhatIsWrittenIsReadAgain) {
    std::string linked = kEngine, error;
    linked.insert(kEngine.find("}]", kEngine.find("\"immutable\"")), ",\"dynamic\":true");
    linked.insert(linked.find('}', linked.find("\"sink\"")), ",\"mustConnect\":true");
    linked = std::regex_replace(linked, std::regex("\"VEST\""), "\"0x00000012\"");
    for (const std::string& text : {kEngine, linked}) {
        const auto device = sim::readDescription(text, error);
        ASSERT_TRUE(device) << error;
        EXPECT_TRUE(sim::writeDescription(*device) == text)
            << sim::writeDescription(*device).substr(0, 200);
        EXPECT_TRUE(sim::VirtualEngine(*device));
        for (const sim::EntityDesc& entity : device->entities)
            EXPECT_TRUE(!entity.video || entity.video->controls) << "no controls, not the default";
    }
    ordered_json bare = ordered_json::parse(kEngine);
    bare["entities"][1]["subdevice"]["pads"] =
        ordered_json::parse(R"([{"pad":0,"format":[1,1,1,1,1,1,1,1,1],"codes":[]}])");
    EXPECT_TRUE(sim::readDescription(bare.dump(), error)) << error;
}

TEST(DescriptionTest, ReadsTheFirstVersion) {
    ordered_json json = ordered_json::parse(kEngine);
    json["version"] = 1;
    for (ordered_json& entity : json["entities"])
        if (entity.contains("video"))
            for (const char* field : {"inputs", "outputs"})
                entity["video"].erase(field);
    std::string error;
    const auto device = sim::readDescription(json.dump(), error);
    ASSERT_TRUE(device) << error;
    EXPECT_TRUE(sim::writeDescription(*device) == kEngine);
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
