// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A kernel between the operations and the one that a client installed.
 */
#pragma once

#include <atomic>

#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::System {

/** What carries out the operations, never null: needs no initialiser before the first call. */
extern std::atomic<Kernel*> gKernel;

/** Sees every call, whichever kernel carries it out. */
class KernelWrapper : public Kernel {
public:
    /** The kernel that a client installed. Each call reads it once. */
    Kernel& inner() const noexcept { return *mInner.load(std::memory_order_acquire); }

private:
    friend Kernel* setKernel(Kernel* kernel) noexcept;
    friend void wrapKernel(KernelWrapper* wrapper) noexcept;

    std::atomic<Kernel*> mInner{&linuxKernel()};
};

/**
 * Puts a wrapper around the installed kernel, and around those installed later; null takes it away.
 * @param wrapper lives for ever: calls may be inside it. One at a time. Any thread.
 */
void wrapKernel(KernelWrapper* wrapper) noexcept;

}  // namespace NSVista::NSCorvane::System
