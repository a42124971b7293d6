// SPDX-License-Identifier: Apache-2.0
// The driver's sub-device: working memory, a buffer mapped for the device, fences of requests.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IV4L2SubDevice.h>
#include <corvane/client/DmaBuf.h>
#include <corvane/client/SceneSession.h>
#include <corvane/platform/UniqueFd.h>
#include <corvane/sim/Engine.h>
#include <poll.h>

#include <cstdio>

using namespace NSVista::NSCorvane;

namespace {

/** Streams one request. */
bool streamOne() {
    client::SessionDesc desc;
    desc.name = "example";
    desc.ports = {{"main", 0, "vengine-main", 0, 64, 16}};
    desc.links = {{"vengine-core", 0, "vengine-main", 0}};
    const auto source = client::makeMemoryFileSource();
    int error = 0;
    const auto session = client::SceneSession::open(
        desc, IDeviceEnumerator::instance().search("vengine"), *source, error);
    return session != nullptr && session->start() == 0 && session->submit({}) == 0 &&
           session->wait(std::chrono::seconds(1), {}) == 0;
}

}  // namespace

int main() {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);

    // [use]
    const DefaultMediaConfigs configs{"vengine", "vengine-subdev"};
    registerDefaultMediaConfigs(&configs);  // once a process

    IDefaultSubDeviceProvider* const provider = IDefaultSubDeviceProvider::instance();
    auto subDevice = provider->acquire("EXAMPLE");  // the first user opens it
    if (subDevice == nullptr)
        return 1;  // the driver is lost

    const IV4L2SubDevice::RequestMemory memory{true, 0, 1};
    client::DmaBuf buffer;
    if (subDevice->requestMemory(memory) != 0 ||
        client::makeMemoryFileSource()->allocate(65536, buffer) != 0 ||
        subDevice->mapIOVA(buffer.fd(), true) != 0)
        return 1;

    std::vector<int> fences(2, -1);
    if (subDevice->acquireFenceFd(fences) != 0)
        return 1;
    const UniqueFd owned[] = {UniqueFd(fences[0]), UniqueFd(fences[1])};  // ours to close
    // [use]

    const bool streamed = streamOne();
    pollfd watched[] = {{fences[0], POLLIN, 0}, {fences[1], POLLIN, 0}};
    const int signalled = poll(watched, 2, 1000);
    printf("%d of 2 fences signalled by one request\n", signalled);

    // [give back]
    subDevice->releaseFenceFd(fences);  // before they are closed
    subDevice->unmapIOVA(buffer.fd(), true);
    subDevice->requestMemory({false, 0, 1});
    provider->release("EXAMPLE", subDevice);  // the last user closes it
    // [give back]
    return streamed && signalled > 0 ? 0 : 1;
}
