// SPDX-License-Identifier: Apache-2.0
// A session driven by threads: one queues, the same or another waits. A hundred requests over two
// ports of the virtual engine.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>

#include <cstdio>

using namespace NSVista::NSCorvane;

int main() {
    sim::VirtualEngine engine;  // a device with no hardware
    const sim::ScopedKernel installed(engine);

    const auto source = client::makeMemoryFileSource();
    client::SessionDesc desc;
    desc.name = "example";
    desc.ports = {{"main", 0, "vengine-main", 0, 640, 480},
                  {"mirror", 1, "vengine-mirror", 0, 640, 480}};
    desc.links = {{"vengine-core", 0, "vengine-main", 0}, {"vengine-core", 2, "vengine-mirror", 0}};

    int error = 0;
    const auto session = client::SceneSession::open(
        desc, IDeviceEnumerator::instance().search("vengine"), *source, error);
    if (session == nullptr || session->start() != 0)
        return 1;
    uint64_t luma = 0;
    for (int queued = 0, done = 0; done < 100; ++done) {
        while (queued < 100 && session->submit({}) == 0)
            ++queued;
        const auto inspect = [&luma](client::SessionRequest& request) {
            client::Frame& main = request.frame(0);
            if (!main.isGood())
                return;  // the driver flagged it
            const auto planes = main.map(client::CpuAccess::Read);
            luma += planes.plane(0)[0];  // of frame main.sequence(), main.bytesUsed(0) bytes of it
        };
        if (session->wait(std::chrono::seconds(1), inspect) != 0)
            return 1;
    }
    printf("100 requests, mean of the first pixel %llu\n",
           static_cast<unsigned long long>(luma / 100));
    return session->stop(std::chrono::seconds(1)) == 0 ? 0 : 1;
}
