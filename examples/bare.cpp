// SPDX-License-Identifier: Apache-2.0
// A scene by hand: what a session does for its client, step by step.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/IRequest.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/client/SessionRequest.h>
#include <corvane/sim/Engine.h>

#include <array>
#include <cstdio>
#include <memory>
#include <semaphore>
#include <vector>

using namespace NSVista::NSCorvane;

namespace {

constexpr int kBuffers = 4;
constexpr int kRequests = 100;

// These outlive the scene, which keeps references.
const PortDesc kPorts[] = {{"main", 0, "vengine-main", true, false, false}};
const LinkDesc kLinks[] = {{"vengine-core", 0, "vengine-main", 0}};
const SceneDesc kScene = {"example", nullptr, 1, kPorts, 1, kLinks};

int stream(Scene& scene, const std::vector<client::Frame>& frames) {
    // [stream]
    std::counting_semaphore<kBuffers> finished(0);
    const auto events = client::EpollEventMonitor::make();
    scene.setRequestDoneCallback([&](IRequest*) { finished.release(); });  // on the event thread
    if (events == nullptr || scene.start() != 0)
        return 1;
    std::array<std::shared_ptr<IRequest>, kBuffers> requests;
    for (auto& request : requests) {
        request = scene.createRequest();
        request->setMonitor(events);
    }
    const auto queue = [&](size_t slot) {
        requests[slot]->addBuffer(0, [&](FrameBuffer& to) { to = frames[slot].buffer(); });
        return scene.queueRequest(requests[slot].get(), 0);
    };
    int result = 0;
    int queued = 0;
    for (int done = 0; done < kRequests && result == 0; ++done) {
        // A device completes requests in their order unless it says otherwise.
        while (queued < kRequests && queued - done < kBuffers && result == 0)
            result = queue(static_cast<size_t>(queued++ % kBuffers));
        finished.acquire();  // a one-port request is dequeued by now
    }
    const int stopped = scene.stop();  // nothing is in flight
    // [stream]
    return result != 0 ? result : stopped;
}

}  // namespace

int main() {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);

    // [life]
    const auto media = IDeviceEnumerator::instance().search("vengine");
    if (media->acquire() != 0)  // before the scene's init, released after its uninit
        return 1;
    Scene scene(nullptr, kScene, media);
    if (scene.init() != 0 || scene.acquire() != 0)
        return 1;
    const auto port = scene.queryPort(0);
    PixelFormat format{};
    scene.getFormat(port, format);
    format.width = 640;
    format.height = 480;
    for (auto& plane : format.planes)
        plane = {};  // the driver knows best how long lines are
    if (scene.setFormat(port, format) != 0)
        return 1;
    // The planes' sizes are those that setFormat() has returned.
    const auto source = client::makeMemoryFileSource();
    std::vector<client::Frame> frames(kBuffers);
    for (auto& frame : frames)
        if (frame.allocate(format, {}, *source) != 0)
            return 1;
    // With one index more than requests no queueing finds all of them taken.
    if (scene.importBuffer(port, kBuffers + 1) != 0)
        return 1;
    const int result = stream(scene, frames);
    scene.release();
    scene.uninit();
    media->release();
    // [life]
    printf("%d requests of %ux%u\n", kRequests, format.width, format.height);
    return result;
}
