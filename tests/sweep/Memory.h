// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Memory that runs out: operator new can be told to fail, for what the library asks for alone.
 */
#pragma once

#include <cstdint>

namespace NSVista::NSCorvane::test::memory {

/** Whether this thread is inside the library; what the library calls back is outside again. */
class Inside {
public:
    explicit Inside(bool inside = true);
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    const bool mBefore;
};

/** Outside for a call of the kernel. A thread other than the first is the library's from then on.
 */
class InKernel {
public:
    InKernel();
    ~InKernel();
    InKernel(const InKernel&) = delete;
    InKernel& operator=(const InKernel&) = delete;

private:
    const bool mBefore;
};

/** Makes the @p nth allocation of the library fail, or that one and all later ones; 0 for none. */
void failAt(uint64_t nth, bool andLater);
/** Allocations of the library so far. */
uint64_t count();

}  // namespace NSVista::NSCorvane::test::memory
