#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>

#include <algorithm>

#include "MediaGraph.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-DeviceEnumerator";
constexpr char kInfo[] =
    " .driver=drv .model=m .serial=s1 .bus_info=platform:x"
    " .media_version=0x601c0 .hw_revision=0 .driver_version=0x10";

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
    LogCapture mLog{kTag, Utils::ULog::kDebug};
};

TEST_F(Enumeration, TakesMediaNodesByNameSkipsFailuresAndStops) {
    MediaKernel kernel{{"media", {"m"}}, {"media0", {"m"}}, {"media9", {"m"}}, {"media999", {"m"}}};
    kernel.directory = {".",      "video0", "media",    "media1234", "medium",
                        "media7", "media8", "media999", "media0",    "media9"};
    kernel.statResults["/dev/media7"] = -ENOENT;
    kernel.openResults["/dev/media8"] = -EACCES;
    EXPECT_EQ(walk("/dev/media0"), Lines({"/dev/media", "/dev/media999", "/dev/media0"}));
    EXPECT_EQ(
        mLog.take(),
        Lines({
            "D [FileDescriptor] + mFd=100 /dev/media",
            std::string("I [enumerateMediaDevices] [STILL ENUMERATING] '/dev/media': ") + kInfo,
            "D [~FileDescriptor] - mFd=100",
            "E [enumerateMediaDevices] Failed to find path: /dev/media7",
            "D [FileDescriptor] + mFd=-13 /dev/media8",
            "E [enumerateMediaDevices] Failed to open /dev/media8: -13",
            "E [enumerateMediaDevices] /dev/media8: permission denied: its group is root, its mode "
            "0000; the process must be in that group",
            "D [~FileDescriptor] - mFd=-13",
            "D [FileDescriptor] + mFd=101 /dev/media999",
            std::string("I [enumerateMediaDevices] [STILL ENUMERATING] '/dev/media999': ") + kInfo,
            "D [~FileDescriptor] - mFd=101",
            "D [FileDescriptor] + mFd=102 /dev/media0",
            std::string("I [enumerateMediaDevices] [STOP TO ENUMERATE] '/dev/media0': ") + kInfo,
            "D [~FileDescriptor] - mFd=102",
        }));
    EXPECT_EQ(
        kernel.takeCalls(),
        Lines({"open /dev/media 0x2", "ioctl 100 0xc1007c00", "close 100", "open /dev/media8 0x2",
               "close -13", "open /dev/media999 0x2", "ioctl 101 0xc1007c00", "close 101",
               "open /dev/media0 0x2", "ioctl 102 0xc1007c00", "close 102"}));
    EXPECT_EQ(kernel.openDirectories, 0);
}

TEST_F(Enumeration, ReportsARefusedInfoAndAMissingDirectory) {
    MediaKernel kernel{{"media0", {"m"}}};
    mLog.setLevel(Utils::ULog::kError);
    kernel.answer(MEDIA_IOC_DEVICE_INFO, -EIO);
    EXPECT_EQ(walk(""), Lines());
    kernel.directoryResult = -ENOENT;
    EXPECT_EQ(walk(""), Lines());
    EXPECT_EQ(mLog.take(),
              Lines({"E [enumerateMediaDevices] Failed on MEDIA_IOC_DEVICE_INFO: "
                     "Input/output error",
                     "E [enumerateMediaDevices] Failed to open media device directory"}));
    EXPECT_EQ(kernel.openDirectories, 0);
}

TEST_F(Enumeration, SnapshotsATopology) {
    MediaKernel kernel{{"media0", smallGraph("m")}};
    const auto topology = mc::enumMediaTopology("/dev/media0");
    ASSERT_NE(topology, nullptr);
    EXPECT_EQ(topology->entityDescs().size(), 3U);
    EXPECT_EQ(topology->linkDescs().size(), 1U);
    EXPECT_EQ(topology->findEntity("proc")->pads().at(0).index, 3);
    EXPECT_EQ(topology->findEntity("lone")->pads().size(), 0U);
    EXPECT_EQ(topology->findEntity("nobody"), nullptr);
    EXPECT_EQ(mLog.take(), Lines({"D [FileDescriptor] + mFd=100 /dev/media0",
                                  "D [enumerateMediaEntity] MEDIA_IOC_ENUM_ENTITIES ends: "
                                  "no entity id 0x80000005",
                                  "D [enumerateMediaEntity] 3 entities found",
                                  "I [enumMediaTopology] media_entity_desc[3] media_link_desc[1]",
                                  "D [~FileDescriptor] - mFd=100"}));

    kernel.openResults["/dev/media0"] = -ENODEV;
    mLog.setLevel(Utils::ULog::kInfo);
    EXPECT_EQ(mc::enumMediaTopology("/dev/media0"), nullptr);
    EXPECT_EQ(mLog.take(), Lines({"E [enumMediaTopology] Failed to open /dev/media0: -19"}));
    EXPECT_TRUE(mc::enumAllMediaLinks(
        -1, {}, [](const media_entity_desc&, const media_link_desc*, const media_pad_desc*) {}));
}

TEST_F(Enumeration, WarnsOfAWalkThatEndsEarly) {
    MediaKernel kernel{{"media0", smallGraph("m")}};
    mLog.setLevel(Utils::ULog::kWarning);
    kernel.answer(MEDIA_IOC_ENUM_ENTITIES, -EIO);
    EXPECT_EQ(mc::enumMediaTopology("/dev/media0")->entityDescs().size(), 0U);
    EXPECT_EQ(mLog.take(),
              Lines({"W [enumerateMediaEntity] MEDIA_IOC_ENUM_ENTITIES fails after 0 entities, "
                     "there may be more: -5(Input/output error)"}));
}

TEST_F(Enumeration, TakesInLinksThatComeUpWhileItCounts) {
    const std::pair<size_t, int> cases[] = {{1, 3}, {2, 3}, {64, 3}, {65, 4}};
    for (const auto& [found, walks] : cases) {  // no room left: it asks once more
        SCOPED_TRACE(found);
        MediaGraph graph = smallGraph("m");
        graph.links[0].assign(found, graph.links[0][0]);  // where the entity tells of one
        MediaKernel kernel{{"media0", graph}};
        const auto topology = mc::enumMediaTopology("/dev/media0");
        EXPECT_EQ(topology->findEntity("sensor")->links().size(), found);
        EXPECT_EQ(topology->linkDescs().size(), found);
        EXPECT_EQ(topology->linkDescs().back().sink.entity, 2U);
        const Lines calls = kernel.takeCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "ioctl 100 0xc0287c02"), walks);
    }
}

TEST_F(Enumeration, EndsOnConsistencyErrors) {
    MediaKernel kernel{{"media0", smallGraph("m")}};
    kernel.answer(MEDIA_IOC_ENUM_LINKS, -EIO);
    expectFatal({
        {[] { mc::enumMediaTopology("/dev/media0"); },
         kTag,
         "enumMediaTopology",
         "enumAllMediaLinks",
         {"[enumAllMediaLinks] Failed on MEDIA_IOC_ENUM_LINKS: Input/output error"}},
        {[] { mc::enumerateMediaDevices(nullptr); }, kTag, "enumerateMediaDevices", "Bad function"},
        {[] { mc::enumerateMediaEntity(1, nullptr); }, kTag, "enumerateMediaEntity",
         "Bad function"},
        {[] { mc::enumAllMediaLinks(1, {}, nullptr); }, kTag, "enumAllMediaLinks", "Bad function"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
