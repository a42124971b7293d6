// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Files that the platform makes.
 */
#pragma once

#include <corvane/platform/UniqueFd.h>
#include <sys/types.h>

#include <cstddef>

namespace NSVista::NSCorvane {

/**
 * open(2) of a file for its owner alone: mode 0600 where it is made, close-on-exec, and no link is
 * followed at the path's end. @return empty on failure; errno tells why.
 */
UniqueFd openPrivate(const char* path, int flags) noexcept;

/** Whole write(2), or pwrite(2) from @p offset on. @return 0 or the negated errno. */
int writeAll(int fd, const char* text, size_t length) noexcept;
int writeAllAt(int fd, const char* text, size_t length, off_t offset) noexcept;

}  // namespace NSVista::NSCorvane
