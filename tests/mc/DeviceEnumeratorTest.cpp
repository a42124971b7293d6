// The enumerator's caches live as long as the process: each test runs in a process of its own.
#include <corvane/IMediaDevice.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>

#include <atomic>
#include <cstdlib>
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

std::string infoLine(const std::string& path, const std::string& model) {
    return " '" + path + "': media_device_info=" + infoText(model);
}

TEST(DeviceEnumerator, FindsADeviceOnceAndCachesIt) {
    inOwnProcess([] {
        MediaKernel kernel{{"media0", smallGraph("other")},
                           {"media1", smallGraph("model")},
                           {"media2", smallGraph("model")}};
        LogCapture log(kTag);
        const auto device = enumerator().search("model");
        EXPECT_EQ(device->getDeviceInfo()->hw_revision, 0U);
        EXPECT_TRUE(device->hasEntity("proc"));
        EXPECT_EQ(log.take().front(), std::string("I [") + kSearch + "] Searching: model");
        kernel.takeCalls();
        EXPECT_NE(enumerator().search("model"), device);
        EXPECT_EQ(kernel.takeCalls(), Lines());
        EXPECT_EQ(dumpOf(enumerator()),
                  Lines({"<<DeviceEnumerator>> default= .mediadevice_model_name= "
                         ".subdevice_entity_name= media_device_info[2] topology[1]",
                         infoLine("/dev/media0", "other"), infoLine("/dev/media1", "model"),
                         "<<MediaTopology>> '/dev/media1' MediaEntity[3] media_entity_desc[3] "
                         "media_link_desc[1]"}));
        EXPECT_EQ(System::openFds().size(), 0U);
    });
}

TEST(DeviceEnumerator, LooksForDevicesWithoutAFall) {
    inOwnProcess([] {
        MediaKernel kernel{{"media0", smallGraph("other")},
                           {"media1", smallGraph("model")},
                           {"media2", smallGraph("model")}};
        const auto paths = [](const std::string& model) {
            Lines found;
            for (const mc::FoundMediaDevice& device : enumerator().find(model))
                found.push_back(device.path + " " + device.info.model);
            return found;
        };
        EXPECT_EQ(paths("model"), Lines({"/dev/media1 model", "/dev/media2 model"}));
        EXPECT_EQ(paths("").size(), 3U);
        ReportCapture reports;
        EXPECT_EQ(paths("mode"), Lines());
        kernel.directoryResult = -ENOENT;
        EXPECT_EQ(paths(""), Lines());
        EXPECT_EQ(reports.take(), Lines());
        EXPECT_EQ(dumpOf(enumerator()).size(), 1U) << "nothing is cached";
    });
}

TEST(DeviceEnumerator, DumpsItsTopologiesInTheDetailThatIsSet) {
    const char* const key = "persist.vendor.camera.corvane.DeviceEnumerator.dumpstatedetail";
    setenv(key, "86", 1);  // read when the library is loaded, in the process of its own
    inOwnProcess([] {
        MediaKernel kernel{{"media0", smallGraph("model")}};
        enumerator().search("model");
        EXPECT_EQ(dumpOf(enumerator()).size(), 13U);
    });
    unsetenv(key);
}

TEST(DeviceEnumerator, MeetsAllDevicesAgainForAnUnknownModel) {
    MediaKernel kernel{{"media0", smallGraph("a")}, {"media1", smallGraph("b")}};
    const auto search = [] { enumerator().search("mode"); };
    expectFatal({{search,
                  kTag,
                  "search",
                  "Bad MediaDevice. ret=0",
                  {std::string("[") + kSearch + "] Enumerate nothing for model namemode"}}});
    inOwnProcess([&kernel] {
        kernel.symbolicLinks["/sys/dev/char/81:2"] = "../v4l-subdev0";
        enumerator().search("a");
        registerDefault("no model", "proc");
        for (const char* infos : {"[1]", "[3]", "[5]"}) {
            EXPECT_THAT(dumpOf(enumerator()).front(),
                        testing::HasSubstr(std::string(" media_device_info") + infos));
            // The one cached topology serves the entity although the model is unknown.
            EXPECT_EQ(enumerator().determineDefaultSubDevnodePath(), "/dev/v4l-subdev0");
        }
    });
}

TEST(DeviceEnumerator, ServesTheDefaultConfiguration) {
    inOwnProcess([] {
        MediaKernel kernel{{"media0", smallGraph("model")}};
        kernel.symbolicLinks["/sys/dev/char/81:2"] = "../v4l-subdev0";
        registerDefault("x", "y");
        registerDefault("model", "proc");
        auto& interface = IDeviceEnumerator::instance();
        EXPECT_EQ(interface.getDefaultSubDevEntityName(), "proc");
        EXPECT_EQ(interface.determineDefaultSubDevnodePath(), "/dev/v4l-subdev0");
        EXPECT_TRUE(interface.makeDefaultMediaDevice()->hasEntity("sensor"));
        EXPECT_EQ(enumerator().findMediaEntityDevnodePath("nobody"), "");
    });
}

TEST(DeviceEnumerator, TakesANullTopologyAsOneWithoutEntities) {
    inOwnProcess([] {
        MediaKernel kernel{{"media0", smallGraph("model")}};
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
            info = infoOf("model");
            await(searching);
            return 0;
        });
        kernel.on<media_entity_desc>(MEDIA_IOC_ENUM_ENTITIES, [&](int, media_entity_desc&) {
            await(walking);
            return -EINVAL;
        });
        registerDefault("model", "proc");
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([] {
                EXPECT_FALSE(enumerator().search("model")->hasEntity("proc"));
                EXPECT_EQ(enumerator().getDefaultSubDevEntityName(), "proc");
                EXPECT_GE(dumpOf(enumerator()).size(), 2U);
            });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(dumpOf(enumerator()).front(),
                  "<<DeviceEnumerator>> default= .mediadevice_model_name=model "
                  ".subdevice_entity_name=proc media_device_info[4] topology[1]");
    });
}

TEST(DeviceEnumerator, EndsOnConsistencyErrors) {
    MediaKernel kernel{{"media0", smallGraph("a")}, {"media1", smallGraph("b")}};
    const auto twoTopologies = [] {
        enumerator().search("a");
        enumerator().search("b");
        enumerator().findMediaEntityDevnodePath("proc");
    };
    const auto noSubDevice = [] {
        registerDefault("a", "nobody");
        enumerator().determineDefaultSubDevnodePath();
    };
    expectFatal({
        {twoTopologies, kTag, "findMediaEntityDevnodePath", "mMediaTopologyList.size=2 != 1"},
        {noSubDevice, kTag, "determineDefaultSubDevnodePath",
         "No subdev path for  .mediadevice_model_name=a .subdevice_entity_name=nobody. ret=1"},
        {[] { enumerator().makeDefaultMediaDevice(); }, kTag, "makeDefaultMediaDevice",
         "No default model name:  .mediadevice_model_name= .subdevice_entity_name="},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
