// SPDX-License-Identifier: Apache-2.0
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "EngineContent.h"
#include "PortChoice.h"

namespace NSVista::NSCorvane::tools {
namespace {

using namespace std::chrono_literals;

/** A port whose frame is spoilt between its completion and its check. */
struct Spoilt {
    const char* what;
    size_t port;
    std::function<void(const client::FrameMapping&)> spoil;
    bool plainToo;  ///< also seen without knowledge of the engine
};

class ContentTest : public testing::Test {
protected:
    /** Streams three requests of six ports; the second is spoilt. @return errors of each port. */
    template <class ContentUnderTest>
    std::vector<uint64_t> run(const Spoilt& spoilt) {
        const Device device = findDevices(VENGINE_MODEL).front();
        const std::vector<NodePort> ports = choosePorts(device, "0,1,2,3,4,6");
        client::SessionDesc desc{"test", {}, device.linksOf(ports), 3, {192, 64}};
        for (const NodePort& port : ports)
            desc.ports.push_back({port.entity, port.index, port.entity, 0, 64, 16});
        int error = 0;
        const auto session =
            client::SceneSession::open(desc, IDeviceEnumerator::instance().search(VENGINE_MODEL),
                                       *client::makeMemoryFileSource(), error);
        ContentUnderTest content(ports, *session);
        EXPECT_EQ(session->start(), 0);
        for (int i = 0; i < 3; ++i)
            session->submit([&](client::SessionRequest& request) { content.fill(request); });
        for (int i = 0; i < 3; ++i)
            session->wait(5s, [&](client::SessionRequest& request) {
                if (i == 1)
                    spoilt.spoil(request.frame(spoilt.port).map(client::CpuAccess::ReadWrite));
                const bool good = content.check(request);
                EXPECT_EQ(good, i != 1 || content.errors()[spoilt.port] == 0);
            });
        return content.errors();
    }

    sim::VirtualEngine mEngine;
    const sim::ScopedKernel mInstalled{mEngine};
};

TEST_F(ContentTest, FindsWhatIsNotAsExpected) {
    const Spoilt cases[] = {
        {"luma", 0, [](const auto& frame) { frame.plane(0)[100] ^= 1; }, false},
        {"chroma", 2, [](const auto& frame) { frame.plane(2)[31 + 32] ^= 128; }, false},
        {"last pixel", 4, [](const auto& frame) { frame.plane(0).back() ^= 1; }, false},
        {"statistics", 3, [](const auto& frame) { frame.plane(0)[4] ^= 1; }, false},
        {"before", 4, [](const auto& frame) { frame.gap(0)[191] ^= 1; }, true},
        {"between", 0, [](const auto& frame) { frame.gap(1)[0] ^= 1; }, true},
        {"after an output", 1, [](const auto& frame) { frame.gap(2)[0] ^= 1; }, true},
        {"not written", 0,
         [](const auto& frame) {
             std::vector<uint8_t> laid(frame.plane(1).size());
             Canary canary;
             canary.reserve(laid.size());
             canary.lay(laid);
             std::copy(laid.end() - 8, laid.end(), frame.plane(1).end() - 8);
         },
         true},
    };
    for (const Spoilt& spoilt : cases) {
        SCOPED_TRACE(spoilt.what);
        std::vector<uint64_t> expected(6);
        expected[spoilt.port] = 1;
        EXPECT_EQ(run<EngineContent>(spoilt), expected);
        expected[spoilt.port] = spoilt.plainToo ? 1 : 0;
        EXPECT_EQ(run<PlainContent>(spoilt), expected);
    }
}

}  // namespace
}  // namespace NSVista::NSCorvane::tools
