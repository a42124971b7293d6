// SPDX-License-Identifier: Apache-2.0
// A control at once and with a request, and what the driver tells of each frame.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/client/Controls.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>

#include <algorithm>
#include <cstdio>

using namespace NSVista::NSCorvane;

int main() {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);

    const auto source = client::makeMemoryFileSource();
    client::SessionDesc desc;
    desc.name = "example";
    desc.ports = {{"main", 0, "vengine-main", 0, 64, 16}};
    desc.links = {{"vengine-core", 0, "vengine-main", 0}};
    const auto media = IDeviceEnumerator::instance().search("vengine");
    int error = 0;
    const auto session = client::SceneSession::open(desc, media, *source, error);
    if (session == nullptr || session->start() != 0)
        return 1;

    // [controls]
    client::ControlNode node(media->getEntityDevnodePath("vengine-main"));
    const auto controls = node.list();
    const auto brightness = std::find_if(controls.begin(), controls.end(), [](const auto& control) {
        return control.isCalled("brightness");
    });
    if (brightness == controls.end() || node.set(*brightness, -20) != 0)  // at once
        return 1;
    printf("%s, %s\n", brightness->name.c_str(), brightness->rangeText().c_str());
    for (int i = 0; i < 4; ++i)
        session->submit([&](client::SessionRequest& request) {
            if (i == 2)  // with this request's frame, and from then on
                node.set(*brightness, 20, request.descriptor());
        });
    // [controls]
    // [metadata]
    const auto tell = [](client::SessionRequest& request) {
        client::Frame& frame = request.frame(0);
        const auto planes = frame.map(client::CpuAccess::Read);
        printf("request %llu: result %d, sequence %u, %lld us, %u + %u bytes, luma %u\n",
               static_cast<unsigned long long>(request.number()), frame.result(), frame.sequence(),
               static_cast<long long>(frame.timestamp().count() / 1000), frame.bytesUsed(0),
               frame.bytesUsed(1), planes.plane(0)[512]);
    };
    int taken = 0;
    while (session->wait(std::chrono::seconds(1), tell) == 0)
        ++taken;
    // [metadata]
    return taken == 4 && session->stop(std::chrono::seconds(1)) == 0 ? 0 : 1;
}
