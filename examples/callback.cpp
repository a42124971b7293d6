// SPDX-License-Identifier: Apache-2.0
// A session driven by its callback: requests are queued again where their completion is seen.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>

#include <atomic>
#include <cstdio>

using namespace NSVista::NSCorvane;

int main() {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);

    const auto source = client::makeMemoryFileSource();
    client::SessionDesc desc;
    desc.name = "example";
    desc.ports = {{"main", 0, "vengine-main", 0, 640, 480}};
    desc.links = {{"vengine-core", 0, "vengine-main", 0}};

    int error = 0;
    const auto session = client::SceneSession::open(
        desc, IDeviceEnumerator::instance().search("vengine"), *source, error);
    if (session == nullptr)
        return 1;
    // [drive]
    std::atomic<int> seen{0};
    session->setDoneCallback([&](client::SessionRequest& request) {  // on the event thread
        if (request.frame(0).isGood() && ++seen <= 96)
            session->submitAgain(request);  // or not: then it is free for submit()
    });
    if (session->start() != 0)
        return 1;
    for (int i = 0; i < desc.buffers; ++i)
        session->submit({});
    const int drained = session->drain(std::chrono::seconds(10));  // nothing is queued any more
    // [drive]
    printf("%d frames\n", seen.load());
    return drained == 0 && session->stop(std::chrono::seconds(1)) == 0 && seen == 100 ? 0 : 1;
}
