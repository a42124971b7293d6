// SPDX-License-Identifier: Apache-2.0
// A session in a loop of the client's own: a descriptor tells that requests wait to be taken.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>
#include <poll.h>

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
    pollfd watched[] = {{session->eventFd(), POLLIN, 0} /* and what else the loop waits for */};
    if (session->start() != 0)
        return 1;
    int done = 0;
    while (done < 100) {
        while (session->submit({}) == 0) {
        }
        if (poll(watched, 1, 1000) <= 0)
            return 1;
        while (session->wait(std::chrono::milliseconds(0), {}) == 0)
            ++done;
    }
    // [drive]
    printf("%d requests\n", done);
    return session->stop(std::chrono::seconds(1)) == 0 ? 0 : 1;
}
