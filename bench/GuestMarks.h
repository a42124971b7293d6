// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Instructions that do nothing and say to who runs the machine where a measurement begins and ends.
 */
#pragma once

#include <array>
#include <cstdint>

/** A no-operation with a displacement that no other has. */
inline constexpr std::array<uint8_t, 8> kGuestBegin = {0x0f, 0x1f, 0x84, 0x00,
                                                       0x31, 0x56, 0x42, 0x43};
inline constexpr std::array<uint8_t, 8> kGuestEnd = {0x0f, 0x1f, 0x84, 0x00,
                                                     0x32, 0x56, 0x42, 0x43};

inline void markGuestBegin() {
#if defined(__x86_64__)
    asm volatile("nopl 0x43425631(%rax,%rax,1)");
#endif
}

inline void markGuestEnd() {
#if defined(__x86_64__)
    asm volatile("nopl 0x43425632(%rax,%rax,1)");
#endif
}
