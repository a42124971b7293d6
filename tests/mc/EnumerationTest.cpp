// SPDX-License-Identifier: Apache-2.0
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>

#include <algorithm>
#include <stdexcept>

#include "MediaGraph.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-DeviceEnumerator";

class Enumeration : public testing::Test {
protected:
    /** The paths that a walk shows until @p last. */
    static Lines walk(const std::string& last) {
        Lines visited;
        mc::enumerateMediaDevices([&](const media_device_info&, const std::string& path) {
            visited.push_back(path);
            return path == last;
        });
        return visited;
    }
    LogCapture mLog{kTag, Utils::ULog::kInfo};
};

TEST_F(Enumeration, TakesMediaNodesByNameSkipsFailuresAndStops) {
    MediaKernel kernel{{"media", {"m"}}, {"media0", {"m"}}, {"media9", {"m"}}, {"media999", {"m"}}};
    kernel.directory = {".",      "video0", "media",    "media1234", "medium", "media7",
                        "media8", "media6", "media999", "media0",    "media9"};
    kernel.statResults["/dev/media7"] = -ENOENT;
    kernel.openResults = {{"/dev/media8", -EACCES}, {"/dev/media6", -ENXIO}};
    EXPECT_EQ(walk("/dev/media0"), Lines({"/dev/media", "/dev/media999", "/dev/media0"}));
    const auto shown = [](const char* how, const char* path) {
        return std::string("I [enumerateMediaDevices] [") + how + "] '" + path +
               "': " + infoText("m");
    };
    EXPECT_EQ(mLog.take(),
              Lines({shown("STILL ENUMERATING", "/dev/media"),
                     "E [enumerateMediaDevices] Failed to find path: /dev/media7",
                     "E [enumerateMediaDevices] Failed to open /dev/media8: -13",
                     "E [enumerateMediaDevices] /dev/media8: permission denied: its group is root, "
                     "its mode 0000; the process must be in that group",
                     "E [enumerateMediaDevices] Failed to open /dev/media6: -6",
                     shown("STILL ENUMERATING", "/dev/media999"),
                     shown("STOP TO ENUMERATE", "/dev/media0")}));
    EXPECT_EQ(kernel.takeCalls(),
              Lines({"open /dev/media 0x2", "MEDIA_IOC_DEVICE_INFO 100", "close 100",
                     "open /dev/media8 0x2", "close -13", "open /dev/media6 0x2", "close -6",
                     "open /dev/media999 0x2", "MEDIA_IOC_DEVICE_INFO 101", "close 101",
                     "open /dev/media0 0x2", "MEDIA_IOC_DEVICE_INFO 102", "close 102"}));
    EXPECT_EQ(kernel.openDirectories, 0);
}

TEST_F(Enumeration, ReportsARefusedInfoAndAMissingDirectory) {
    MediaKernel kernel{{"media0", {"m"}}, {"media1", {"m"}}};
    kernel.answer(MEDIA_IOC_DEVICE_INFO, -EIO);
    EXPECT_EQ(walk(""), Lines());
    kernel.directoryResult = -ENOENT;
    EXPECT_EQ(walk(""), Lines());
    const std::string refused =
        "E [enumerateMediaDevices] Failed on MEDIA_IOC_DEVICE_INFO: Input/output error";
    EXPECT_EQ(mLog.take(),
              Lines({refused, refused,
                     "E [enumerateMediaDevices] Failed to open media device directory"}));
    EXPECT_EQ(kernel.openDirectories, 0);
}

TEST_F(Enumeration, SnapshotsATopology) {
    MediaKernel kernel{{"media0", smallGraph("m")}};
    mLog.setLevel(Utils::ULog::kDebug);
    const auto topology = mc::enumMediaTopology("/dev/media0");
    ASSERT_NE(topology, nullptr);
    EXPECT_EQ(topology->name(), "/dev/media0");
    EXPECT_EQ(topology->entityDescs().size(), 3U);
    EXPECT_EQ(topology->linkDescs().size(), 1U);
    EXPECT_EQ(topology->findEntity("proc")->pads().at(0).index, 3);
    EXPECT_EQ(topology->findEntity("lone")->pads().size(), 0U);
    EXPECT_EQ(mLog.take(), Lines({"D [FileDescriptor] + mFd=100 /dev/media0",
                                  "D [enumerateMediaEntity] MEDIA_IOC_ENUM_ENTITIES ends: "
                                  "no entity id 0x80000005",
                                  "D [enumerateMediaEntity] 3 entities found",
                                  "I [enumMediaTopology] media_entity_desc[3] media_link_desc[1]",
                                  "D [~FileDescriptor] - mFd=100"}));
    mLog.setLevel(Utils::ULog::kWarning);
    kernel.answer(MEDIA_IOC_ENUM_ENTITIES, -EIO);
    EXPECT_EQ(mc::enumMediaTopology("/dev/media0")->entityDescs().size(), 0U);
    kernel.openResults["/dev/media0"] = -EPERM;
    EXPECT_EQ(mc::enumMediaTopology("/dev/media0"), nullptr);
    EXPECT_EQ(mLog.take(),
              Lines({"W [enumerateMediaEntity] MEDIA_IOC_ENUM_ENTITIES fails after 0 entities, "
                     "there may be more: -5(Input/output error)",
                     "E [enumMediaTopology] Failed to open /dev/media0: -1",
                     "E [enumMediaTopology] /dev/media0: permission denied: its group is root, its "
                     "mode 0000; the process must be in that group"}));
    EXPECT_TRUE(mc::enumAllMediaLinks(-1, {}, [](auto&&...) {}));
}

TEST_F(Enumeration, TakesInLinksThatComeUpWhileItCounts) {
    for (const size_t found : {1, 2, 64, 65, 5000}) {
        SCOPED_TRACE(found);
        MediaGraph graph = smallGraph("m");
        graph.links[0].assign(found, graph.links[0][0]);  // where the entity tells of one
        graph.entities[1].links = 1;
        graph.links[1] = {graph.links[0][0]};
        MediaKernel kernel{{"media0", graph}};
        const auto topology = mc::enumMediaTopology("/dev/media0");
        EXPECT_EQ(topology->findEntity("sensor")->links().size(), found);
        EXPECT_EQ(topology->findEntity("proc")->links().size(), 1U) << "none of the one before";
        EXPECT_EQ(topology->linkDescs().size(), found + 1);
        EXPECT_EQ(topology->linkDescs().back().sink.entity, 2U);
        const Lines calls = kernel.takeCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "MEDIA_IOC_ENUM_LINKS 100"), 3);
    }
}

TEST_F(Enumeration, EndsOnConsistencyErrorsAndExceptions) {
    MediaKernel kernel{{"media0", smallGraph("m")}};
    const auto refuseLinks = [&kernel] {
        kernel.answer(MEDIA_IOC_ENUM_LINKS, -EIO);
        mc::enumMediaTopology("/dev/media0");
    };
    const auto throwOut = [] {
        mc::enumerateMediaDevices([](const media_device_info&, const std::string&) -> bool {
            throw std::runtime_error("of the client");
        });
    };
    const auto throwInt = [] {
        mc::enumerateMediaEntity(100, [](const media_entity_desc&) { throw 1; });
    };
    expectFatal({
        {refuseLinks,
         kTag,
         "enumMediaTopology",
         "enumAllMediaLinks",
         {"[enumAllMediaLinks] Failed on MEDIA_IOC_ENUM_LINKS: Input/output error"}},
        {[] { mc::enumerateMediaDevices(nullptr); }, kTag, "enumerateMediaDevices", "Bad function"},
        {[] { mc::enumerateMediaEntity(1, nullptr); }, kTag, "enumerateMediaEntity",
         "Bad function"},
        {[] { mc::enumAllMediaLinks(1, {}, nullptr); }, kTag, "enumAllMediaLinks", "Bad function"},
        {throwOut, kTag, "enumerateMediaDevices", "exception: of the client"},
        {[&] { System::Open("/dev/media0", 0, 0), throwInt(); }, kTag, "enumerateMediaEntity",
         "exception: of unknown type"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
