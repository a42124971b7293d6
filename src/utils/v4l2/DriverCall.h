// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * How the library calls a driver, and how a refused call ends.
 */
#pragma once

#include <corvane/platform/Log.h>
#include <corvane/platform/System.h>
#include <corvane/platform/TimeBomb.h>

#include <cstdint>
#include <cstring>
#include <memory>

namespace NSVista::NSCorvane {

/** The name under which the system layer accounts a descriptor. */
inline unsigned long ownerToken(const void* owner) {
    return reinterpret_cast<uintptr_t>(owner);
}

/** An ioctl of an owner's own work. @return >= 0, or the negated errno. */
inline int driverCall(int fd, unsigned long request, void* record) {
    return System::Ioctl(fd, static_cast<int>(request), record, 3);
}

/** An ioctl that is one step of a walk: as driverCall(), without a trace section of its own. */
inline int walkStep(int fd, unsigned long request, void* record) {
    return System::Ioctl(fd, static_cast<int>(request), record, 0);
}

/**
 * Ends a refused call that leaves the driver in an unknown state: reports it, then ends the
 * service. The caller has logged it.
 * @param what begins the report: most often the request's name and " fail".
 * @param detail ends it.
 * @return @p r.
 */
inline int driverRefused(const char* what, int r, const char* detail = "") {
    CORVANE_DRIVER_EXCEPTION("%s err=%d(%s)%s", what, r, strerror(-r), detail);
    return r;
}

// Just below three seconds, so that the report comes before a watcher with a limit of three.
inline constexpr unsigned long kDriverLimitNs = 2'999'000'000;
inline constexpr unsigned long kDriverPeriodNs = 1'000'000'000;

/** Guards driver calls that can hang while the result lives. @param format, args the report. */
template <class... Args>
std::shared_ptr<timeguard::TimeBomb> guardDriver(const char* format, Args... args) {
    return timeguard::TimeBomb::make("ZelsysKernel", kDriverLimitNs, kDriverPeriodNs, format,
                                     args...);
}

}  // namespace NSVista::NSCorvane
