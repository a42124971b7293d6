// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Marks what a library exports; everything else stays hidden.
 */
#pragma once

#if __cplusplus < 202002L
#error "Corvane's headers need C++20: compile with -std=c++20 or later"
#endif

#define CORVANE_EXPORT __attribute__((visibility("default")))
/** One for each shared object, however that is built. */
#define CORVANE_HIDDEN __attribute__((visibility("hidden")))

/** Built over Android's own libraries: what they declare is not declared again. */
#if defined(__ANDROID__) && !defined(CORVANE_ANDROID)
#define CORVANE_ANDROID 1
#endif
