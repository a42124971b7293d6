// SPDX-License-Identifier: Apache-2.0
// A kernel that answers what the fuzzer wants, through a whole life: devices are looked for and
// described, nodes and controls are asked, a scene streams, the sub-device is used.
#include <corvane/DequeuedBuffer.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/V4L2SubDevice.h>
#include <corvane/client/Controls.h>
#include <corvane/client/VideoNode.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/mc/MediaTopology.h>

#include <memory>

#include "Device.h"
#include "EditingKernel.h"
#include "World.h"
#include "vengine-desc.h"

using namespace NSVista::NSCorvane;

namespace {

constexpr int kBuffers = 2;

const PortDesc kPorts[] = {{"main", 0, vengine_ports[0].name, false, false, false},
                           {"input", 1, vengine_ports[1].name, false, false, false},
                           {"stats", 3, vengine_ports[3].name, false, false, false},
                           {"grey", 7, vengine_ports[7].name, false, false, false}};
const LinkDesc kLinks[] = {{VENGINE_CORE_ENTITY, 0, vengine_ports[0].name, 0},
                           {vengine_ports[1].name, 0, VENGINE_CORE_ENTITY, 1},
                           {VENGINE_CORE_ENTITY, 3, vengine_ports[3].name, 0},
                           {VENGINE_CORE_ENTITY, 7, vengine_ports[7].name, 0}};
const SceneDesc kScene = {"fuzz", nullptr, 4, kPorts, 4, kLinks};

/** What a run made; what a fatal line leaves is not destroyed. */
struct World {
    std::shared_ptr<mc::MediaDevice> media;
    std::unique_ptr<Scene> scene;
    std::shared_ptr<fuzz::Events> events = std::make_shared<fuzz::Events>();
    std::vector<std::shared_ptr<IRequest>> requests;
    std::vector<PixelFormat> formats;
    bool isStarted = false;
};

void look(World& world) {
    fuzz::Reading printer;
    std::string path;
    auto info = std::make_shared<media_device_info>();
    mc::enumerateMediaDevices([&](const media_device_info& met, const std::string& at) {
        *info = met;
        path = at;
        return false;
    });
    for (const tools::Device& device : tools::findDevices({}))
        for (const tools::NodePort& port : device.ports) {
            client::ControlNode node(port.nodePath);
            for (const client::Control& control : node.list()) {
                int64_t value = 0;
                node.get(control, value);
                control.rangeText();
            }
        }
    if (path.empty())
        return;
    const auto topology = mc::enumMediaTopology(path);
    if (topology != nullptr)
        topology->dumpState(&printer, 'V');
    world.media = std::make_shared<mc::MediaDevice>(path, info, topology);
    world.media->dumpState(&printer, 'V');
}

bool prepare(World& world) {
    if (world.media == nullptr || world.media->acquire() != 0)
        return false;
    world.scene = std::make_unique<Scene>(nullptr, kScene, world.media);
    Scene& scene = *world.scene;
    if (scene.init() != 0)
        return false;
    scene.acquire();
    for (const PortDesc& desc : kPorts) {
        PixelFormat format{};
        const std::shared_ptr<IPort> port = scene.queryPort(desc.index);
        if (scene.getFormat(port, format) != 0 || scene.setFormat(port, format) != 0 ||
            scene.importBuffer(port, kBuffers) != 0)
            return false;
        world.formats.push_back(format);
    }
    scene.setDirectDequeue(true);
    scene.setBufferDequeuedCallback([](const DequeuedBuffer&) {});
    scene.setRequestDoneCallback([](IRequest* request) { request->toString(); });
    for (int i = 0; i < kBuffers; ++i) {
        world.requests.push_back(scene.createRequest());
        world.requests.back()->setMonitor(world.events);
    }
    return true;
}

void stream(World& world) {
    fuzz::Reading printer;
    Scene& scene = *world.scene;
    world.isStarted = scene.start() == 0;
    // No index is asked for twice: one that a refused or failed call lost would be waited for.
    for (const auto& request : world.requests) {
        for (const PortDesc& desc : kPorts)
            request->addBuffer(desc.index, [](FrameBuffer& buffer) {
                buffer.planeCount = 2;
                buffer.planes[0] = {fuzz::memoryFd(), 0, 1 << 19};
                buffer.planes[1] = {fuzz::memoryFd(), 1 << 19, 1 << 19};
            });
        if (scene.queueRequest(request.get(), 0) != 0)
            break;
        world.events->report();
        scene.dumpState(&printer);
    }
    world.events->forget();
    scene.stop();
    world.isStarted = false;
    world.requests.clear();
    scene.release();
    scene.uninit();
    world.scene.reset();
    world.media.reset();
}

void useSubDevice() {
    V4L2SubDevice device("/dev/v4l-subdev0", VENGINE_SUBDEV_ENTITY);
    if (device.openDevice() != 0)
        return;
    device.subscribe();
    uint64_t user = 1;
    int value = 0;
    v4l2_event event{};
    std::vector<int> fences(3, -1);
    device.setInitInfo(reinterpret_cast<init_info*>(&user));
    device.setControl(VENGINE_CTRL_USER, 1);
    device.getControl(VENGINE_CTRL_USER, &value);
    device.requestMemory({true, 1, 0});
    device.mapKVA({fuzz::memoryFd()});
    device.mapIOVA(fuzz::memoryFd(), false);
    device.queryEvent(event);
    device.releaseFenceFd(fences);
    device.releaseUserResource(1, 1);
    device.unsubscribe();
    device.closeDevice();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Bytes bytes(data, size);
    fuzz::QuickEngine engine;
    fuzz::EditingKernel kernel(engine, bytes);
    const sim::ScopedKernel installed(kernel);
    auto* const world = new World;
    const bool isWhole = fuzz::endures([world] {
        look(*world);
        if (prepare(*world))
            stream(*world);
        useSubDevice();
    });
    // The worker of a scene that was left would wait for ever.
    const bool isStopped = isWhole || !world->isStarted || fuzz::endures([world] {
                               world->events->forget();
                               world->scene->stop();
                           });
    const bool isGone = isWhole && isStopped && fuzz::endures([world] {
                            world->requests.clear();
                            if (world->scene != nullptr)
                                world->scene->uninit();
                            delete world;
                        });
    static_cast<void>(isGone);
    return 0;
}
