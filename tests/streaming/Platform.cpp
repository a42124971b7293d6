// SPDX-License-Identifier: Apache-2.0
#include "Platform.h"

#include <corvane/IDeviceEnumerator.h>
#include <corvane/V4L2.h>
#include <corvane/client/NodeFd.h>
#include <corvane/client/VideoNode.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>
#include <corvane/sim/DescriptionFile.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/media.h>

#include <fstream>
#include <map>

#include "support/Process.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::test {

namespace {

/**
 * Entities of a driver in the order of use. vivid's video output is left out: it never completes
 * the last buffer it was given.
 */
std::vector<std::string> entityNames(const std::string& model) {
    if (model == "vivid")
        return {"vivid-000-vid-cap", "vivid-000-meta-cap", "vivid-000-meta-out",
                "vivid-000-touch-cap"};
    std::vector<std::string> names;
    for (const auto& port : vengine_ports)
        names.emplace_back(port.name);
    return names;
}

std::string devicePath(const std::string& model) {
    std::string found;
    mc::enumerateMediaDevices([&](const media_device_info& info, const std::string& path) {
        found = path;
        return model == static_cast<const char*>(info.model);
    });
    return found;
}

/** Makes vivid's webcam as fast as it can be; both settings outlive the descriptor. */
void hurryWebcam(const std::string& path) {
    client::VideoNode about{};
    client::queryVideoNode(path, about);
    v4l2_format format = {};
    format.type = about.bufferType;
    client::NodeFd node(path.c_str(), O_RDWR);
    node.ioctl(VIDIOC_G_FMT, &format);
    format.fmt.pix.width = 320;  // the same place in both layouts
    format.fmt.pix.height = 180;
    node.ioctl(VIDIOC_S_FMT, &format);
    client::setFrameRate(path, about.bufferType, 60);
}

/** What CORVANE_TEST_POSE holds, or the virtual engine itself. */
sim::DeviceDesc describeDevice() {
    const char* const path = getenv("CORVANE_TEST_POSE");
    if (path == nullptr)
        return sim::describeVirtualEngine();
    std::string error;
    const auto device = sim::readDescription(contentOf(path), error);
    EXPECT_TRUE(device) << path << ": " << error;
    return device.value();
}

}  // namespace

void Platform::order(const std::string& line) const {
    if (mEngine != nullptr)
        ASSERT_EQ(mEngine->faults().order(line), 0) << line;
    else
        std::ofstream("/sys/kernel/debug/vengine/fault") << line << std::flush;
}

void Platform::hold(bool on) const {
    if (mDevice != nullptr)
        on ? mDevice->hold() : mDevice->resume();
    else
        std::ofstream("/sys/module/vengine/parameters/delay_us")
            << (on ? 100'000'000 : 0) << std::flush;
}

client::SessionDesc Platform::describe(const std::string& name, size_t ports) const {
    client::SessionDesc desc;
    desc.name = name;
    for (size_t i = 0; i < ports; ++i) {
        const PortEntity& port = mPorts[i];
        desc.ports.push_back({port.name, static_cast<int>(i), port.name});
        desc.links.insert(desc.links.end(), port.links.begin(), port.links.end());
    }
    return desc;
}

Platform& Platform::instance() {
    static Platform* const platform = new Platform;  // outlives every test's objects
    return *platform;
}

Platform::Platform() {
    if (const char* model = getenv("CORVANE_TEST_MODEL")) {
        mModel = model;
    } else {
        const sim::DeviceDesc device = describeDevice();
        mModel = v4l2::fixedText(device.info.model);
        mEngine = std::make_unique<sim::VirtualEngine>(device);
        mDevice = &mEngine->device();
        System::setKernel(mEngine.get());
    }
    findPorts();
    if (mModel == "vivid")
        hurryWebcam(search()->getEntityDevnodePath(mPorts[0].name));
    // Exported by a node that the suite streams nothing through.
    mSource = mEngine != nullptr ? client::makeMemoryFileSource()
                                 : client::makeVideoNodeSource(search()->getEntityDevnodePath(
                                       mModel == "vivid" ? "vivid-000-vid-out" : "vengine-mask"));
}

std::shared_ptr<IMediaDevice> Platform::search() const {
    return IDeviceEnumerator::instance().search(mModel);
}

uint32_t Platform::linkFlags(const client::SessionLink& link) const {
    const auto topology = mc::enumMediaTopology(devicePath(mModel));
    for (const auto& desc : topology->linkDescs())
        if (desc.source.index == link.sourcePad && desc.sink.index == link.sinkPad &&
            (desc.flags & MEDIA_LNK_FL_LINK_TYPE) == 0)
            return desc.flags;
    return 0;
}

void Platform::findPorts() {
    const auto topology = mc::enumMediaTopology(devicePath(mModel));
    std::map<unsigned, std::string> names;
    for (const auto& entity : topology->entityDescs())
        names[entity.id] = static_cast<const char*>(entity.name);
    for (const auto& name : entityNames(mModel)) {
        const auto entity = topology->findEntity(name.c_str());
        if (entity == nullptr)
            continue;
        PortEntity port{name, {}};
        for (const auto& link : topology->linkDescs())
            if ((link.source.entity == entity->desc().id ||
                 link.sink.entity == entity->desc().id) &&
                (link.flags & (MEDIA_LNK_FL_LINK_TYPE | MEDIA_LNK_FL_IMMUTABLE)) == 0)
                port.links.push_back({names[link.source.entity], link.source.index,
                                      names[link.sink.entity], link.sink.index});
        mPorts.push_back(std::move(port));
    }
}

}  // namespace NSVista::NSCorvane::test
