/**
 * @file
 * Marks what a library exports; everything else stays hidden.
 */
#pragma once

#define CORVANE_EXPORT __attribute__((visibility("default")))
/** One for each shared object, however that is built. */
#define CORVANE_HIDDEN __attribute__((visibility("hidden")))
