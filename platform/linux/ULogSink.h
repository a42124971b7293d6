// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The way of the platform's own code to the unified log.
 */
#pragma once

#include <corvane/platform/ULog.h>

namespace NSVista::Utils::ULog {

/** Longest text of a line, in bytes. */
inline constexpr size_t kTextMax = 1023;

/** The installed sink; usable from static initialisers too. */
ULogger& sink();

inline bool unifiedLogOn() {
    return (ULogger::sMode & 0xA) != 0;
}

}  // namespace NSVista::Utils::ULog
