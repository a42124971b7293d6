// SPDX-License-Identifier: Apache-2.0
// What one request costs in the steady state: no allocation, and the kernel calls it cannot do
// without. The program counts every operator new of the process.
#include <corvane/platform/ULog.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/Allocations.h"
#include "support/Capture.h"
#include "support/NullEngine.h"

namespace NSVista::NSCorvane::test {
namespace {

class HotPath : public testing::TestWithParam<int> {
protected:
    void SetUp() override { Utils::ULog::ULogger::sDetailsLevel = 1; }
};

TEST_P(HotPath, AllocatesNothingAndCallsTheKernelTwiceAPortAndTwiceMore) {
    const auto ports = static_cast<uint64_t>(GetParam());
    constexpr uint64_t kCycles = 2000;
    NullEngine engine(GetParam());
    const uint64_t before = allocations;
    ::operator delete(::operator new(1));  // unlike a new expression, never elided
    ASSERT_GT(allocations, before) << "the counter does not count";

    // Lists have grown to what the worker can find at once; from here on it finds no more.
    engine.fallBehind();
    engine.cycle();
    engine.drain();
    const uint64_t completed = engine.completed;
    const uint64_t allocated = allocations;
    const uint64_t calls = engine.kernel.calls;
    const uint64_t rearmed = engine.monitor->rearmed;
    for (uint64_t i = 0; i < kCycles; ++i) {
        engine.drain(ports * (NullEngine::kBuffers - 2));
        engine.cycle();
    }
    engine.drain();

    EXPECT_EQ(allocations - allocated, 0U);
    EXPECT_EQ(engine.kernel.calls - calls, kCycles * (2 * ports + 2));
    EXPECT_EQ(engine.monitor->rearmed - rearmed, kCycles);
    EXPECT_EQ(engine.completed - completed, kCycles);
}

/** What comes on with the level, as the processes of a service have it from their start. */
TEST(ManyPorts, StreamAtEachDetailLevelWithoutAWarning) {
    for (const char* level : {"1", "2", "3", "4", "5", "6"}) {
        SCOPED_TRACE(level);
        setenv("persist.vendor.kvx.camera.ulog.detailslevel", level, 1);
        inOwnProcess([] {
            Utils::ULog::RingULogger lines(10000);
            Utils::ULog::ULogger::install(&lines);
            {
                NullEngine engine(3);
                for (int i = 0; i < 100; ++i) {
                    engine.cycle();
                    engine.drain();
                }
            }
            Utils::ULog::ULogger::install(nullptr);
            for (const auto& line : lines.take())
                EXPECT_GT(line.level, Utils::ULog::kWarning) << line.text;
        });
    }
    unsetenv("persist.vendor.kvx.camera.ulog.detailslevel");
}

INSTANTIATE_TEST_SUITE_P(Ports, HotPath, testing::Range(1, 9));

}  // namespace
}  // namespace NSVista::NSCorvane::test
