// SPDX-License-Identifier: Apache-2.0
// The enumerator's caches live as long as the process: each test runs in a process of its own.
#include <corvane/IMediaDevice.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>

#include <atomic>
#include <thread>

#include "MediaGraph.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-DeviceEnumerator";
constexpr char kSearch[] = "determineMediaDeviceInfoAndTopologyByModelName";

mc::DeviceEnumerator& enumerator() {
    return mc::DeviceEnumerator::instance();
}

void registerDefault(const char* model, const char* entity) {
    const DefaultMediaConfigs configs{model, entity};
    registerDefaultMediaConfigs(&configs);
}

/** Three devices, the last two of one model. */
class ThreeDevices : public MediaKernel {
public:
    ThreeDevices()
        : MediaKernel{{"media0", smallGraph("other")},
                      {"media1", smallGraph("model")},
                      {"media2", smallGraph("model")}} {
        symbolicLinks["/sys/dev/char/81:2"] = "../v4l-subdev0";
    }
};

TEST(DeviceEnumerator, FindsADeviceOnceAndCachesIt) {
    inOwnProcess([] {
        ThreeDevices kernel;
        LogCapture log(kTag);
        const auto device = enumerator().search("model");
        EXPECT_TRUE(device->hasEntity("proc"));
        EXPECT_FALSE(device->hasEntity("pro"));
        EXPECT_EQ(device->getEntityDevnodePath("proc"), "/dev/v4l-subdev0");
        EXPECT_EQ(device->getEntityDevnodePath("nobody"), "");
        EXPECT_STREQ(device->getDeviceInfo()->model, "model");
        EXPECT_EQ(log.take().front(), std::string("I [") + kSearch + "] Searching: model");
        kernel.takeCalls();
        EXPECT_NE(enumerator().search("model"), device);
        EXPECT_EQ(kernel.takeCalls(), Lines());
        EXPECT_EQ(dumpOf(enumerator()),
                  Lines({"<<DeviceEnumerator>> default= .mediadevice_model_name= "
                         ".subdevice_entity_name= media_device_info[2] topology[1]",
                         " '/dev/media0': media_device_info=" + infoText("other"),
                         " '/dev/media1': media_device_info=" + infoText("model"),
                         "<<MediaTopology>> '/dev/media1' MediaEntity[3] media_entity_desc[3] "
                         "media_link_desc[1]"}));
        EXPECT_EQ(System::openFds().size(), 0U);
    });
}

TEST(DeviceEnumerator, LooksForDevicesWithoutAFall) {
    inOwnProcess([] {
        ThreeDevices kernel;
        const ReportCapture reports;
        const auto devices = enumerator().find("model");
        ASSERT_EQ(devices.size(), 2U);
        EXPECT_EQ(devices[1].path, "/dev/media2");
        EXPECT_STREQ(devices[1].info.model, "model");
        EXPECT_EQ(enumerator().find("").size(), 3U);
        EXPECT_EQ(enumerator().find("mode").size(), 0U);
        kernel.directoryResult = -ENOENT;
        EXPECT_EQ(enumerator().find("").size(), 0U);
        EXPECT_EQ(dumpOf(enumerator()).size(), 1U) << "nothing is cached";
    });
}

TEST(DeviceEnumerator, DumpsItsTopologiesInTheDetailThatIsSet) {
    const char* const key = "persist.vendor.camera.corvane.DeviceEnumerator.dumpstatedetail";
    setenv(key, "86", 1);  // read when the library is loaded, in the process of its own
    inOwnProcess([] {
        ThreeDevices kernel;
        enumerator().search("other");
        EXPECT_EQ(dumpOf(enumerator()).size(), 13U);
    });
    unsetenv(key);
}

TEST(DeviceEnumerator, ServesTheDefaultAndMeetsAllDevicesAgainForAnUnknownModel) {
    inOwnProcess([] {
        ThreeDevices kernel;
        registerDefault("x", "y");
        registerDefault("other", "proc");
        auto& interface = IDeviceEnumerator::instance();
        EXPECT_EQ(interface.getDefaultSubDevEntityName(), "proc");
        EXPECT_TRUE(interface.makeDefaultMediaDevice()->hasEntity("sensor"));
        EXPECT_EQ(enumerator().findMediaEntityDevnodePath("nobody"), "");
        for (const char* infos : {"[1]", "[4]", "[7]"}) {
            EXPECT_THAT(dumpOf(enumerator()).front(),
                        testing::HasSubstr(std::string(" media_device_info") + infos));
            registerDefault("no model", "proc");
            // The one cached topology serves the entity although the model is unknown.
            EXPECT_EQ(interface.determineDefaultSubDevnodePath(), "/dev/v4l-subdev0");
        }
    });
}

TEST(DeviceEnumerator, TakesANullTopologyAsOneWithoutEntities) {
    inOwnProcess([] {
        ThreeDevices kernel;
        const auto info = [&kernel](int, media_device_info& record) {
            kernel.openResults["/dev/media0"] = -EBUSY;  // gone before its topology is read
            record = infoOf("model");
            return 0;
        };
        kernel.on<media_device_info>(MEDIA_IOC_DEVICE_INFO, info);
        const auto device = enumerator().search("model");
        EXPECT_FALSE(device->hasEntity("proc"));
        EXPECT_EQ(device->getEntityDevnodePath("proc"), "");
        EXPECT_TRUE(device->enableLink(true, "sensor", 0, "proc", 3));
        EXPECT_EQ(enumerator().findMediaEntityDevnodePath("proc"), "");
        EXPECT_EQ(dumpOf(enumerator()).size(), 2U);
        kernel.openResults.clear();
        EXPECT_TRUE(enumerator().search("model")->hasEntity("proc"));
        EXPECT_EQ(dumpOf(enumerator()).size(), 3U);
    });
}

TEST(DeviceEnumerator, ConcurrentSearchesShareOneTopology) {
    inOwnProcess([] {
        constexpr int kThreads = 4;
        MediaKernel kernel{{"media0", {"model"}}};
        std::atomic<int> searching{0};
        std::atomic<int> walking{0};
        const auto await = [](std::atomic<int>& met) {
            for (++met; met < kThreads;)
                std::this_thread::yield();
        };
        // All miss the cached infos, and all miss the cached topology.
        kernel.on<media_device_info>(MEDIA_IOC_DEVICE_INFO, [&](int, media_device_info& info) {
            return info = infoOf("model"), await(searching), 0;
        });
        kernel.on<media_entity_desc>(MEDIA_IOC_ENUM_ENTITIES, [&](int, media_entity_desc&) {
            return await(walking), -EINVAL;
        });
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([] {
                registerDefault("model", "proc");
                EXPECT_FALSE(enumerator().search("model")->hasEntity("proc"));
                EXPECT_GE(dumpOf(enumerator()).size(), 2U);
            });
        for (auto& thread : threads)
            thread.join();
        EXPECT_THAT(dumpOf(enumerator()).front(),
                    testing::EndsWith(" media_device_info[4] topology[1]"));
    });
}

TEST(DeviceEnumerator, EndsOnConsistencyErrors) {
    ThreeDevices kernel;
    const auto twoTopologies = [] {
        enumerator().search("model");
        enumerator().search("other");
        enumerator().findMediaEntityDevnodePath("proc");
    };
    const auto noSubDevice = [] {
        registerDefault("other", "nobody");
        enumerator().determineDefaultSubDevnodePath();
    };
    expectFatal({
        {[] { enumerator().search("mode"); },
         kTag,
         "search",
         "Bad MediaDevice. ret=0",
         {std::string("[") + kSearch + "] Enumerate nothing for model namemode"}},
        {twoTopologies, kTag, "findMediaEntityDevnodePath", "mMediaTopologyList.size=2 != 1"},
        {noSubDevice, kTag, "determineDefaultSubDevnodePath",
         "No subdev path for  .mediadevice_model_name=other .subdevice_entity_name=nobody. ret=1"},
        {[] { enumerator().makeDefaultMediaDevice(); }, kTag, "makeDefaultMediaDevice",
         "No default model name:  .mediadevice_model_name= .subdevice_entity_name="},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
