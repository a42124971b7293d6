// SPDX-License-Identifier: Apache-2.0
#include <corvane/mc/MediaTopology.h>

#include <locale>

#include "MediaGraph.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-DeviceEnumerator";

/** Prints "1,000", as the locale of a process may. */
struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

void insert(mc::MediaTopology& topology, const media_entity_desc& desc,
            const media_link_desc* links = nullptr, const media_pad_desc* pads = nullptr) {
    topology.insertEntityDesc(desc);
    topology.insertEntity(std::make_shared<mc::MediaEntity>(desc, links, pads));
}

TEST(Topology, PrintsItselfAndKeepsTheFirstEntityOfAName) {
    const char* const name = "an entity name of 32 characters!";
    const media_pad_desc pads[] = {padOf(1, 0, 2), padOf(1, 1000, 1)};
    const media_link_desc link = linkOf(pads[0], padOf(2, 17, 1), 3);
    media_entity_desc desc = entityOf(1000, name, 2, 1);
    desc.flags = 4;
    mc::MediaTopology topology("/dev/media0");
    insert(topology, desc, &link, pads);
    insert(topology, entityOf(2, name, 0, 0));
    topology.insertLinkDesc(link);
    EXPECT_EQ(topology.findEntity(name)->desc().id, 1000U);
    EXPECT_EQ(topology.findEntity(nullptr), nullptr);

    const std::string first =
        " .id=1000 .name=an entity name of 32 characters! .type=7 .flags=4 .pads=2 .links=1"
        " .dev.major=81 .dev.minor=1000";
    const std::string linkText =
        " .source= .entity=1 .index=0 .flags=2 .sink= .entity=2 .index=17 .flags=1 .flags=3";
    const std::string head =
        "<<MediaTopology>> '/dev/media0' MediaEntity[1] media_entity_desc[2] media_link_desc[1]";
    const std::locale classic = std::locale::global(std::locale(std::locale(), new Grouping));
    EXPECT_EQ(dumpOf(topology, 'I'), Lines({head}));
    EXPECT_EQ(dumpOf(topology, 'V'),
              Lines({head, "MediaEntity[1]",
                     "entity=" + first + " links[{" + linkText +
                         " }] pads[{ .entity=1 .index=0 .flags=2 }{ .entity=1 .index=1000 .flags=1"
                         " }]",
                     "media_entity_desc[2]", first,
                     " .id=2 .name=an entity name of 32 characters! .type=7 .pads=0 .links=0"
                     " .dev.major=81 .dev.minor=2",
                     "media_link_desc[1]", linkText}));
    std::locale::global(classic);
}

TEST(Topology, FindsDeviceNodesThroughSysfs) {
    const struct {
        std::string target, path, line;
    } cases[] = {
        {"../../devices/platform/x/video4linux/video3", "/dev/video3", ""},
        {"/video", "/dev/video", ""},
        {std::string(1015, 'd') + "/v4l-sub", "/dev/v4l-sub", ""},
        {std::string(1016, 'd') + "/v4l-sub", "", "Invalid sysfs device path: /sys/dev/char/81:3"},
        {"video3", "", "Invalid sysfs device path: /sys/dev/char/81:3"},
        {"", "", "Invalid sysfs device path: /sys/dev/char/81:3"},
        {"../gone", "", "Unable to find device node: /dev/gone"},
    };
    const mc::MediaEntity entity(entityOf(3, "e", 0, 0), nullptr, nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.target);
        FakeKernel kernel;
        LogCapture log(kTag);
        if (!c.target.empty())
            kernel.symbolicLinks["/sys/dev/char/81:3"] = c.target;
        kernel.statResults["/dev/gone"] = -ENOENT;
        EXPECT_EQ(entity.determineDevnodePath(), c.path);
        EXPECT_EQ(log.take(),
                  c.line.empty() ? Lines() : Lines({"E [determineDevnodePath] " + c.line}));
    }
}

TEST(Link, SetsAndClearsTheEnabledFlag) {
    const struct {
        uint32_t flags;
        bool on;
        int result;
        uint32_t after;
    } cases[] = {
        {0, true, 0, 1},  {1, true, 0, 1},   {4, true, 0, 5}, {0x10000001, false, 0, 0x10000000},
        {2, true, -1, 2}, {3, false, -1, 3},
    };
    LogCapture log(kTag);
    for (const auto& c : cases) {
        const media_link_desc desc = linkOf(padOf(1, 0, 0), padOf(2, 3, 0), c.flags);
        mc::MediaLink link(desc);
        EXPECT_EQ(link.enable(c.on), c.result);
        EXPECT_EQ(link.copyLinkDesc().flags, c.after);
        EXPECT_EQ(desc.flags, c.flags);
        EXPECT_EQ(log.take(), c.result < 0 ? Lines({"W [enable] Link is immutable"}) : Lines());
        EXPECT_TRUE(link.isEqual(0, 3));
        EXPECT_FALSE(link.isEqual(3, 0));
    }
    EXPECT_EQ(mc::MediaLink::key(0, 3), "0-3");
    EXPECT_EQ(mc::MediaLink::key(10, 4294967295U), "10-4294967295");
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
