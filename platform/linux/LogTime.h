// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Log times without a string.
 */
#pragma once

#include <time.h>

#include <cstddef>

namespace NSVista::NSCorvane {

inline constexpr size_t kLogTimeSize = sizeof("MM-DD hh:mm:ss.uuuuuu");

/** The text of convertToFormattedLogTime(). @return its length. */
size_t formatLogTime(const struct timespec& time, char (&text)[kLogTimeSize]);

}  // namespace NSVista::NSCorvane
