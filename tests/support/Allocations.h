// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Counts every operator new of the process, and can let some fail. Included by one source of a
 * program.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace NSVista::NSCorvane::test {

inline std::atomic<uint64_t> allocations{0};
/** Says of each allocation whether it succeeds; null: all do. */
inline std::atomic<bool (*)()> mayAllocate{nullptr};

}  // namespace NSVista::NSCorvane::test

// Not inlined: the compiler would see memory of operator new go to free(), and warn.
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    using namespace NSVista::NSCorvane;
    test::allocations.fetch_add(1, std::memory_order_relaxed);
    const auto mayAllocate = test::mayAllocate.load(std::memory_order_relaxed);
    if (mayAllocate != nullptr && !mayAllocate())
        return nullptr;
    return malloc(size != 0 ? size : 1);
}
[[gnu::noinline]] void* operator new[](size_t size, const std::nothrow_t& nothrow) noexcept {
    return operator new(size, nothrow);
}
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* const memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) {
    return operator new(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
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
