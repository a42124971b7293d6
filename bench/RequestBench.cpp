// The library's own cost of a request, by the number of ports: the kernel below does nothing.
// One port is dequeued on the completing thread; several by the worker, whose time counts as well.
#include <benchmark/benchmark.h>
#include <corvane/platform/ULog.h>

#include "support/NullEngine.h"

namespace {

using NSVista::NSCorvane::test::NullEngine;
using NSVista::Utils::ULog::ULogger;

void requestCycle(benchmark::State& state) {
    ULogger::sDetailsLevel = 1;
    NullEngine engine(static_cast<int>(state.range(0)));
    const uint64_t before = engine.kernel.calls;
    for (auto _ : state)
        engine.cycle();
    engine.drain();
    state.counters["kernel calls"] =
        static_cast<double>(engine.kernel.calls - before) / static_cast<double>(state.iterations());
}
BENCHMARK(requestCycle)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
