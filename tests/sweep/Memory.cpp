// SPDX-License-Identifier: Apache-2.0
#include "Memory.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

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

void* allocate(size_t size) noexcept {
    return mayHave() ? malloc(size != 0 ? size : 1) : nullptr;
}

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

using NSVista::NSCorvane::test::memory::allocate;

// Not inlined: the compiler would see memory of operator new go to free(), and warn.
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) {
    return operator new(size);
}
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
[[gnu::noinline]] void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
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
