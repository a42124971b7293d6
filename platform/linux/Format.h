// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * printf into what the platform's own code needs.
 */
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <string>

namespace NSVista::NSCorvane {

/** vsnprintf(3) of any length; empty when formatting fails. */
std::string formatText(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

/**
 * vsnprintf(3) where time counts: formats of %s, %d, %u and %zu alone are done at a fraction of its
 * cost, all others by it.
 */
int formatPlain(char* text, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

/** Logging and tracing leave the caller's errno as it was. */
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = mSaved; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int mSaved = errno;
};

}  // namespace NSVista::NSCorvane
