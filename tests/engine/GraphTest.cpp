// SPDX-License-Identifier: Apache-2.0
// What an engine consists of: nodes, capabilities, formats, links.
#include <corvane/V4L2.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstring>
#include <map>
#include <set>

#include "Bench.h"

namespace NSVista::NSCorvane::test {

using GraphTest = EngineTest;
using GraphInProcess = ProcessTest;

TEST_F(GraphTest, TellsWhatTheNodesAre) {
    for (const vengine_port& port : vengine_ports) {
        v4l2_capability capability = {};
        ASSERT_EQ(call(Fd(port.name), VIDIOC_QUERYCAP, &capability), 0);
        EXPECT_STREQ(reinterpret_cast<char*>(capability.driver), VENGINE_DRIVER);
        EXPECT_STREQ(reinterpret_cast<char*>(capability.card), port.name);
        EXPECT_EQ(capability.device_caps, v4l2::findBufferType(port.buf_type)->caps |
                                              V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT |
                                              V4L2_CAP_IO_MC);
        EXPECT_EQ(capability.capabilities, capability.device_caps | V4L2_CAP_DEVICE_CAPS);
    }
    media_device_info info = {};
    ASSERT_EQ(call(media, MEDIA_IOC_DEVICE_INFO, &info), 0);
    EXPECT_STREQ(info.model, VENGINE_MODEL);
    EXPECT_STREQ(info.bus_info, "platform:" VENGINE_DRIVER);
    EXPECT_EQ(info.hw_revision, 1u);
}

TEST_F(GraphTest, FormatsAreAdjustedAndPersist) {
    const struct {
        unsigned port;
        uint32_t width, height, fourcc;  // asked for, and got
        uint32_t gotWidth, gotHeight, gotFourcc;
    } asks[] = {
        {kMain, 1, 1, vengine_mplane_formats[1], VENGINE_MIN_WIDTH, VENGINE_MIN_HEIGHT,
         vengine_mplane_formats[1]},
        {kMain, 67, 5000, 1, 66, VENGINE_MAX_HEIGHT, vengine_ports[kMain].format},
        {kGrey, 1, 1, vengine_splane_formats[1], VENGINE_MIN_WIDTH, VENGINE_MIN_HEIGHT,
         vengine_splane_formats[1]},
        {kGrey, 67, 5000, 1, 66, VENGINE_MAX_HEIGHT, vengine_ports[kGrey].format},
    };
    for (const auto& ask : asks) {
        const vengine_port& port = vengine_ports[ask.port];
        const vengine_layout wanted = vengine_layout_of(ask.gotFourcc, ask.gotWidth, ask.gotHeight);
        v4l2_format format = {};
        format.type = port.buf_type;
        format.fmt.pix.width = ask.width;  // the first fields of both records are the same
        format.fmt.pix.height = ask.height;
        format.fmt.pix.pixelformat = ask.fourcc;
        ASSERT_EQ(call(Fd(port.name), VIDIOC_S_FMT, &format), 0);
        memset(&format.fmt, 0xff, sizeof(format.fmt));
        ASSERT_EQ(call(Fd(port.name), VIDIOC_G_FMT, &format), 0);
        PixelFormat found = {};
        v4l2::readFormat(format, v4l2::formatClassOfType(port.buf_type), found);
        EXPECT_EQ(found.width, wanted.width);
        EXPECT_EQ(found.height, wanted.height);
        EXPECT_EQ(found.format, wanted.fourcc);
        EXPECT_EQ(format.fmt.pix.field, static_cast<uint32_t>(V4L2_FIELD_NONE));
        EXPECT_TRUE(ask.port != kMain || format.fmt.pix_mp.reserved[0] == 0);
        ASSERT_EQ(found.planeCount, wanted.num_planes);
        for (uint32_t i = 0; i < wanted.num_planes; ++i) {
            EXPECT_EQ(found.planes[i].stride, wanted.bytesperline[i]);
            EXPECT_EQ(found.planes[i].size, wanted.sizeimage[i]);
        }
        format.type = V4L2_BUF_TYPE_VBI_CAPTURE;
        EXPECT_EQ(call(Fd(port.name), VIDIOC_G_FMT, &format), -EINVAL);
    }
}

TEST_F(GraphTest, LinksAreSetUpAsTheKernelDoes) {
    constexpr uint32_t kOn = MEDIA_LNK_FL_ENABLED, kFixed = kOn | MEDIA_LNK_FL_IMMUTABLE;
    media_entity_desc entity = {};
    entity.id = entityId(media, VENGINE_CORE_ENTITY);
    ASSERT_EQ(call(media, MEDIA_IOC_ENUM_ENTITIES, &entity), 0);
    EXPECT_EQ(entity.pads, VENGINE_PORTS + 1);
    ASSERT_EQ(entity.links, 6u) << "only those that begin here: the captures'";
    media_link_desc links[6];
    media_pad_desc pads[VENGINE_PORTS + 1];
    media_links_enum all = {entity.id, pads, links, {}};
    const struct {
        unsigned port;
        uint32_t flags;
        int result;
    } steps[] = {{kMain, kOn, 0},
                 {kMain, kFixed, -EINVAL},
                 {kTuning, kFixed, 0},  // no change of an immutable link
                 {kTuning, MEDIA_LNK_FL_IMMUTABLE, -EINVAL},
                 {kMirror, kOn, 0},
                 {kMirror, 0, 0}};
    for (const auto& step : steps)
        EXPECT_EQ(setLink(media, step.port, step.flags), step.result) << step.port;
    ASSERT_EQ(call(media, MEDIA_IOC_ENUM_LINKS, &all), 0);
    EXPECT_EQ(links[0].flags, kOn);
    EXPECT_EQ(links[1].flags, 0u);
    EXPECT_EQ(links[1].source.index, 2);
    EXPECT_EQ(links[1].sink.entity, entityId(media, "vengine-mirror"));
    EXPECT_EQ(pads[1].flags, MEDIA_PAD_FL_SINK);
    EXPECT_EQ(pads[2].flags, MEDIA_PAD_FL_SOURCE);
    media_link_desc none = {};
    EXPECT_EQ(call(media, MEDIA_IOC_SETUP_LINK, &none), -EINVAL);
    all.entity = 9999;
    EXPECT_EQ(call(media, MEDIA_IOC_ENUM_LINKS, &all), -EINVAL);

    Port& main = start(kMain);
    EXPECT_EQ(setLink(media, kMain, 0), -EBUSY) << "its node streams";
    EXPECT_EQ(setLink(media, kMirror, kOn), 0);
    EXPECT_EQ(main.stream(false), 0);
    EXPECT_EQ(setLink(media, kMain, 0), 0);
}

TEST_F(GraphTest, TopologyIsOneOfNumbers) {
    constexpr unsigned kNodes = VENGINE_PORTS + 1;
    media_v2_entity entities[kNodes + 1];
    media_v2_interface interfaces[kNodes];
    media_v2_pad pads[2 * kNodes];
    media_v2_link links[2 * kNodes];
    media_v2_topology all = {};
    EXPECT_EQ(call(media, MEDIA_IOC_G_TOPOLOGY, &all), 0) << "tells how many there are";
    EXPECT_EQ((std::vector<uint32_t>{all.num_entities, all.num_interfaces, all.num_pads,
                                     all.num_links, all.reserved1}),
              (std::vector<uint32_t>{kNodes + 1, kNodes, 2 * kNodes, 2 * kNodes, 0}));
    all.ptr_entities = reinterpret_cast<uintptr_t>(entities);
    all.ptr_interfaces = reinterpret_cast<uintptr_t>(interfaces);
    all.ptr_pads = reinterpret_cast<uintptr_t>(pads);
    all.ptr_links = reinterpret_cast<uintptr_t>(links);
    ASSERT_EQ(call(media, MEDIA_IOC_G_TOPOLOGY, &all), 0);
    std::map<uint32_t, std::string> names;
    for (const media_v2_entity& entity : entities)
        names[entity.id] = entity.name;
    for (const media_v2_pad& pad : pads)
        names[pad.id] = names[pad.entity_id] + ':' + std::to_string(pad.index);
    for (const media_v2_interface& interface : interfaces)
        names[interface.id] = interface.intf_type == MEDIA_INTF_T_V4L_SUBDEV ? "subdev" : "node";
    std::set<std::string> found;
    for (const media_v2_link& link : links)
        found.insert(names[link.source_id] + ' ' + names[link.sink_id]);
    EXPECT_EQ(names.size(), kNodes + 1 + 2 * kNodes + kNodes);
    EXPECT_EQ(found.size(), 2 * kNodes);
    for (const char* link : {"vengine-core:2 vengine-mirror:0", "vengine-tuning:0 vengine-core:5",
                             "node vengine-mirror", "subdev " VENGINE_SUBDEV_ENTITY})
        EXPECT_EQ(found.count(link), 1u) << link;
    --all.num_pads;
    EXPECT_EQ(call(media, MEDIA_IOC_G_TOPOLOGY, &all), -ENOSPC);
}

TEST_F(GraphInProcess, ShowsNodesInDirectoriesAndSysfs) {
    System::Kernel& kernel = bench.kernel();
    sim::DeviceDesc odd;
    odd.setNames("odd", std::string(40, 'm'));
    odd.mediaNode = "media";
    odd.addVideoNode("capture", {V4L2_BUF_TYPE_VIDEO_CAPTURE, 1, 0}).video->deviceCaps = 0;
    ASSERT_NE(bench.engine().addDevice(odd), nullptr);
    EXPECT_EQ(entityId(Fd(kernel.open("/dev/media", O_RDWR)), "capture"), 1U);
    EXPECT_EQ(bench.engine().addDevice(odd), nullptr) << "the media node's name is taken";
    odd.mediaNode.clear();
    odd.links.push_back({"capture", 1, "capture", 0, 0});
    EXPECT_EQ(bench.engine().addDevice(odd), nullptr) << "no such pad";

    for (sim::DirectoryOrder order :
         {sim::DirectoryOrder::NEWEST_FIRST, sim::DirectoryOrder::OLDEST_FIRST}) {
        bench.engine().setDirectoryOrder(order);
        std::string found;
        DIR* dir = nullptr;
        ASSERT_EQ(kernel.openDir("/dev", &dir), 0);
        for (dirent* entry = nullptr; kernel.readDir(dir, &entry) == 0 && entry != nullptr;)
            if (strncmp(entry->d_name, "media", 5) == 0)
                found += std::string(entry->d_name) + ' ';
        EXPECT_EQ(kernel.closeDir(dir), 0);
        EXPECT_EQ(kernel.closeDir(nullptr), -EBADF);
        EXPECT_EQ(found,
                  order == sim::DirectoryOrder::NEWEST_FIRST ? "media media0 " : "media0 media ");
    }
    media_entity_desc entity = {};
    entity.id = entityId(media, "vengine-flip");
    ASSERT_EQ(call(media, MEDIA_IOC_ENUM_ENTITIES, &entity), 0);
    const std::string sysfs = "/sys/dev/char/" + std::to_string(entity.dev.major) + ":" +
                              std::to_string(entity.dev.minor);
    char target[256] = {};
    ASSERT_GT(kernel.readLink(sysfs.c_str(), target, sizeof(target)), 0);
    EXPECT_EQ("/dev/" + std::string(strrchr(target, '/') + 1), bench.path("vengine-flip"));
    EXPECT_EQ(kernel.readLink(sysfs.c_str(), target, 5), 5);
    EXPECT_EQ(kernel.readLink(sysfs.c_str(), target, 0), -EINVAL);
    struct stat info;
    EXPECT_EQ(kernel.stat(bench.path("vengine-flip").c_str(), &info), 0);
    EXPECT_TRUE(S_ISCHR(info.st_mode));
    EXPECT_EQ(info.st_rdev, makedev(entity.dev.major, entity.dev.minor));
    struct stat other;
    EXPECT_EQ(kernel.stat("/dev/media0", &info) + kernel.stat("/dev/media", &other), 0);
    EXPECT_NE(info.st_rdev, other.st_rdev);
    for (const char* missing : {"/dev/media7", "/dev/video99", "/dev/v4l-subdev9"}) {
        EXPECT_EQ(kernel.open(missing, O_RDWR), -ENOENT);
        EXPECT_EQ(kernel.stat(missing, &info), -ENOENT);
    }
    EXPECT_EQ(kernel.stat("/dev/null", &info), 0) << "what is not the engine's goes on";
    EXPECT_EQ(kernel.close(-1), -EBADF);
    EXPECT_EQ(call(-1, VIDIOC_QUERYCAP, &entity), -EBADF);
}

}  // namespace NSVista::NSCorvane::test
