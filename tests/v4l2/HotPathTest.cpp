// What one request costs in the steady state: no allocation, and the kernel calls it cannot do
// without. The program counts every operator new of the process.
#include <corvane/platform/ULog.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "support/NullEngine.h"

namespace {
std::atomic<uint64_t> sAllocations{0};

void* countedAllocation(size_t size) {
    sAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = malloc(size != 0 ? size : 1))
        return memory;
    throw std::bad_alloc();
}
}  // namespace

// Not inlined: the compiler would see memory of operator new go to free(), and warn.
[[gnu::noinline]] void* operator new(size_t size) {
    return countedAllocation(size);
}
[[gnu::noinline]] void* operator new[](size_t size) {
    return countedAllocation(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept {
    free(memory);
}

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
    const uint64_t before = sAllocations;
    ::operator delete(::operator new(1));  // unlike a new expression, never elided
    ASSERT_GT(sAllocations, before) << "the counter does not count";

    // Lists have grown to what the worker can find at once; from here on it finds no more.
    engine.fallBehind();
    engine.cycle();
    engine.drain();
    const uint64_t completed = engine.completed;
    const uint64_t allocations = sAllocations;
    const uint64_t calls = engine.kernel.calls;
    const uint64_t rearmed = engine.monitor->rearmed;
    for (uint64_t i = 0; i < kCycles; ++i) {
        engine.drain(ports * (NullEngine::kBuffers - 2));
        engine.cycle();
    }
    engine.drain();

    EXPECT_EQ(sAllocations - allocations, 0U);
    EXPECT_EQ(engine.kernel.calls - calls, kCycles * (2 * ports + 2));
    EXPECT_EQ(engine.monitor->rearmed - rearmed, kCycles);
    EXPECT_EQ(engine.completed - completed, kCycles);
}

INSTANTIATE_TEST_SUITE_P(Ports, HotPath, testing::Range(1, 9));

}  // namespace
}  // namespace NSVista::NSCorvane::test
