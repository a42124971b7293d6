// Request cycles over a kernel that does nothing, for instruction counters: what remains is the
// library's own work. The calls of corvane_bench_mark() stand before and after the cycles counted.
#include <corvane/platform/ULog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/NullEngine.h"

using NSVista::NSCorvane::test::NullEngine;

extern "C" [[gnu::noinline]] void corvane_bench_mark() {
    asm volatile("");
}

namespace NSVista::NSCorvane::test {
namespace {

void run(NullEngine& engine, long cycles) {
    for (long i = 0; i < cycles; ++i) {
        engine.cycle();
        engine.drain();
    }
}

}  // namespace
}  // namespace NSVista::NSCorvane::test

int main(int argc, char** argv) {
    const int ports = argc == 4 ? atoi(argv[1]) : 0;
    const long cycles = argc == 4 ? atol(argv[2]) : 0;
    if (ports < 1 || ports > 32 || cycles < 1) {
        fprintf(stderr, "usage: %s PORTS CYCLES default|direct\n", argv[0]);
        return 2;
    }
    NSVista::Utils::ULog::ULogger::sDetailsLevel = 1;
    NullEngine engine(ports, strcmp(argv[3], "direct") == 0);
    NSVista::NSCorvane::test::run(engine, 100);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the scene's thread begins
    corvane_bench_mark();
    NSVista::NSCorvane::test::run(engine, cycles);
    corvane_bench_mark();
    return 0;
}
