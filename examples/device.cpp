// SPDX-License-Identifier: Apache-2.0
// Streams one node of a device of this machine: device MODEL ENTITY. corvane-info shows both.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/client/SceneSession.h>
#include <corvane/mc/DeviceEnumerator.h>

#include <cstdio>
#include <cstring>

using namespace NSVista::NSCorvane;

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: device MODEL ENTITY\n");
        return 2;
    }
    // [open]
    if (mc::DeviceEnumerator::instance().find(argv[1]).empty()) {
        fprintf(stderr, "there is no media device of model %s\n", argv[1]);
        return 1;  // search() would end the process
    }
    const auto media = IDeviceEnumerator::instance().search(argv[1]);
    client::SessionDesc desc;
    desc.name = "example";
    desc.ports = {{"main", 0, argv[2], 0, 0, 0}};  // the driver's format and size
    // desc.links: those that lead to the node and are not enabled, as corvane-info shows them

    // Memory that the device can reach: a heap's, or else what the node's own driver exports.
    auto source = client::openDmaHeapSource();
    if (source == nullptr)
        source = client::makeVideoNodeSource(media->getEntityDevnodePath(argv[2]));
    int error = 0;
    const auto session = client::SceneSession::open(desc, media, *source, error);
    // [open]
    if (session == nullptr || session->start() != 0) {
        fprintf(stderr, "%s: %s\n", argv[2], strerror(-error));
        return 1;
    }
    for (int done = 0; done < 30; ++done) {
        while (session->submit({}) == 0) {
        }
        const auto show = [](client::SessionRequest& request) {
            const client::Frame& frame = request.frame(0);
            printf("frame %u, %u bytes%s\n", frame.sequence(), frame.bytesUsed(0),
                   frame.isGood() ? "" : ", broken");
        };
        if (session->wait(std::chrono::seconds(2), show) != 0)
            return 1;
    }
    return session->stop(std::chrono::seconds(2)) == 0 ? 0 : 1;
}
