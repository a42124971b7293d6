// SPDX-License-Identifier: Apache-2.0
#include "RecordClock.h"

#include <corvane/platform/UniqueFd.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace NSVista::NSCorvane::record {

constinit bool gStampsAreTicks = false;

void chooseStamps() noexcept {
    // Only then are the ticks of all processors one clock, of one rate.
    char name[sizeof(kTicksClock)] = {};
    const UniqueFd file(::open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                               O_RDONLY | O_CLOEXEC));
    gStampsAreTicks =
        file && read(file.get(), name, sizeof(name) - 1) > 0 && strcmp(name, kTicksClock) == 0;
}

void StampReader::start() noexcept {
    mStamp = mLastStamp = stamp();
    mNs = mLastNs = monotonicInNs();
    mRate = 1;
}

void StampReader::tick() noexcept {
    const int64_t now = stamp();
    const int64_t ns = monotonicInNs();
    if (now <= mLastStamp)
        return;
    mStamp = mLastStamp;
    mNs = mLastNs;
    mLastStamp = now;
    mLastNs = ns;
    mRate = static_cast<double>(mLastNs - mNs) / static_cast<double>(mLastStamp - mStamp);
}

int64_t StampReader::toNs(int64_t stamp) const noexcept {
    if (!gStampsAreTicks)
        return stamp;
    return mNs + static_cast<int64_t>(static_cast<double>(stamp - mStamp) * mRate);
}

}  // namespace NSVista::NSCorvane::record
