// SPDX-License-Identifier: Apache-2.0
#include "Memory.h"

#include <unistd.h>

#include <atomic>

#include "support/Allocations.h"

namespace NSVista::NSCorvane::test::memory {

namespace {

thread_local bool sInside = false;
std::atomic<uint64_t> sCount{0};
std::atomic<uint64_t> sFailing{0};
std::atomic<bool> sAndLater{false};

bool mayHave() {
    if (!sInside)
        return true;
    const uint64_t nth = ++sCount;
    const uint64_t failing = sFailing;
    return failing == 0 || (sAndLater ? nth < failing : nth != failing);
}

[[maybe_unused]] const bool kAsked = (mayAllocate = mayHave, true);

}  // namespace

Inside::Inside(bool inside) : mBefore(sInside) {
    sInside = inside;
}

Inside::~Inside() {
    sInside = mBefore;
}

InKernel::InKernel() : mBefore(sInside) {
    sInside = false;
}

InKernel::~InKernel() {
    sInside = mBefore || gettid() != getpid();
}

void failAt(uint64_t nth, bool andLater) {
    sAndLater = andLater;
    sFailing = nth == 0 ? 0 : sCount + nth;
}

uint64_t count() {
    return sCount;
}

}  // namespace NSVista::NSCorvane::test::memory
