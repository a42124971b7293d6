/**
 * @file
 * Marks what a library exports; everything else stays hidden.
 */
#pragma once

#define CORVANE_EXPORT __attribute__((visibility("default")))
