// SPDX-License-Identifier: Apache-2.0
// The request cycle end to end, on the virtual engine or on a driver of the running kernel.
#include <tuple>

#include "StreamingFixture.h"

namespace NSVista::NSCorvane::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

/** Ports, buffers (0: as many as the device grants), configuration mode. */
using CycleParam = std::tuple<size_t, int, int>;

class Cycle : public Streaming, public testing::WithParamInterface<CycleParam> {};

TEST_P(Cycle, CompletesEveryRequestOnceAndGivesAllBuffersBack) {
    const auto [ports, wantedBuffers, mode] = GetParam();
    if (ports > platform.ports().size())
        GTEST_SKIP() << "the device has " << platform.ports().size() << " ports";
    const int buffers = wantedBuffers != 0 ? wantedBuffers : 32;
    const auto slots = static_cast<size_t>(buffers);
    const size_t total = slots * 2 + 5;
    property_set(kModeProperty, std::to_string(mode).c_str());
    // The buffer trace knows indexes by request alone, so two ports of a request would collide.
    property_set(kTraceBufProperty, ports == 1 ? "1" : "0");
    Rig rig(ports);
    ASSERT_EQ(rig.start(buffers), 0);

    size_t queued = 0;
    const auto queueUnlessEnough = [&](size_t slot) {
        if (queued == total)
            return 0;
        ++queued;
        rig.fill(slot);
        return rig.queue(slot);
    };
    for (size_t slot = slots; slot-- != 0;)
        ASSERT_EQ(queueUnlessEnough(slot), 0);
    uint32_t lastPicture = 0;
    for (size_t done = 0; done < total;) {
        ASSERT_TRUE(rig.waitDone(done + 1)) << rig.dump();
        for (const size_t slot : rig.takeDone()) {
            ASSERT_TRUE(rig.written(slot)) << "request " << done;
            if (platform.drawsTestPicture()) {
                const uint32_t picture = rig.capturedPicture(slot);
                // Without an input, the engine draws the pictures one after the other.
                EXPECT_TRUE(ports > 1 ? picture == rig.fedPicture(slot)
                                      : done == 0 || picture == lastPicture + 1)
                    << "request " << done << " shows picture " << picture;
                lastPicture = picture;
            }
            ++done;
            ASSERT_EQ(queueUnlessEnough(slot), 0);
        }
    }
    EXPECT_TRUE(rig.waitDequeued()) << rig.dump();
    const std::string dump = rig.dump();
    const std::string all = std::to_string(total);
    const std::string frames = std::to_string(total * ports);
    EXPECT_THAT(dump, HasSubstr("state=STARTED #Request(Queued,Done)=(" + all + "," + all + ")"));
    EXPECT_THAT(dump, AllOf(HasSubstr("#QBUF=" + frames), HasSubstr("#DQBUF=" + frames)));
    EXPECT_EQ(testing::Value(dump, HasSubstr("mTraceBufferMap={ }")), ports == 1) << dump;
    EXPECT_EQ(rig.stop(), 0);
    EXPECT_EQ(errors(), Lines{});
    EXPECT_EQ(reports.take(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(DirectPath, Cycle,
                         testing::Combine(testing::Values(1), testing::Values(1, 2, 5, 0),
                                          testing::Values(0)));
INSTANTIATE_TEST_SUITE_P(WorkerPath, Cycle,
                         testing::Combine(testing::Values(1, 2, 4, 6), testing::Values(1, 3, 0),
                                          testing::Values(1)));
INSTANTIATE_TEST_SUITE_P(ManyPorts, Cycle,
                         testing::Combine(testing::Values(2, 4, 6), testing::Values(2),
                                          testing::Values(0)));

TEST_F(Streaming, ManyScenesInARowLeaveNothingBehind) {
    const int lifetimes = platform.fails() ? 200 : 10;
    for (int i = 0; i < lifetimes; ++i) {
        SCOPED_TRACE(i);
        Rig rig(std::min<size_t>(i % 4 == 3 ? 1 : 3, platform.ports().size()));
        ASSERT_EQ(rig.start(3), 0);
        const bool completes = i % 2 == 0;
        if (platform.fails())
            platform.hold(!completes);
        for (size_t slot = 0; slot < 3; ++slot) {
            rig.fill(slot);
            ASSERT_EQ(rig.queue(slot), 0);
        }
        ASSERT_TRUE(!completes || (rig.waitDone(3) && rig.waitDequeued()));
        ASSERT_TRUE(rig.lookAway());
        ASSERT_EQ(rig.stop(), 0) << "with what is under way";
    }
    for (const auto& port : platform.ports())
        for (const auto& link : port.links)
            EXPECT_EQ(platform.linkFlags(link) & MEDIA_LNK_FL_ENABLED, 0U) << port.name;
    EXPECT_EQ(errors(), Lines{});
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
