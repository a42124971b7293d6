// Runs a number of request cycles over a kernel that does nothing, for instruction counters:
// corvane_cycles PORTS CYCLES.
#include <corvane/platform/ULog.h>

#include <cstdio>
#include <cstdlib>

#include "support/NullEngine.h"

int main(int argc, char** argv) {
    const int ports = argc == 3 ? atoi(argv[1]) : 0;
    const long cycles = argc == 3 ? atol(argv[2]) : 0;
    if (ports < 1 || ports > 32 || cycles < 1) {
        fprintf(stderr, "usage: %s PORTS CYCLES\n", argv[0]);
        return 2;
    }
    NSVista::Utils::ULog::ULogger::sDetailsLevel = 1;
    NSVista::NSCorvane::test::NullEngine engine(ports);
    for (long i = 0; i < cycles; ++i) {
        engine.cycle();
        engine.drain();
    }
    return 0;
}
