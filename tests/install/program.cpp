// SPDX-License-Identifier: Apache-2.0
// What a stranger's first program is: one port of the virtual engine, ten requests.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>

using namespace NSVista::NSCorvane;

int main() {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);
    const auto source = client::makeMemoryFileSource();
    client::SessionDesc desc;
    desc.name = "stranger";
    desc.ports = {{"main", 0, "vengine-main", 0, 64, 48}};
    desc.links = {{"vengine-core", 0, "vengine-main", 0}};
    int error = 0;
    const auto session = client::SceneSession::open(
        desc, IDeviceEnumerator::instance().search("vengine"), *source, error);
    if (session == nullptr || session->start() != 0)
        return 1;
    for (int done = 0; done < 10; ++done) {
        bool good = false;
        const auto take = [&good](client::SessionRequest& request) {
            good = request.frame(0).isGood();
        };
        if (session->submit({}) != 0 || session->wait(std::chrono::seconds(1), take) != 0 || !good)
            return 1;
    }
    return session->stop(std::chrono::seconds(1));
}
