/**
 * @file
 * printf into what the platform's own code needs.
 */
#pragma once

#include <cerrno>
#include <cstdarg>
#include <string>

namespace NSVista::NSCorvane {

/** vsnprintf(3) of any length; empty when formatting fails. */
std::string formatText(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

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
