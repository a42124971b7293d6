// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/ReqTrack.h>

namespace NSVista::NSCorvane::reqtrack {

namespace {

void pass(unsigned long* track, Station station) {
    if (track == nullptr)
        return;
    __atomic_store_n(&track[station], static_cast<unsigned long>(monotonicInNs()),
                     __ATOMIC_RELAXED);
}

}  // namespace

void enqueToSubmodule(unsigned long* track, int /*subflow*/) {
    pass(track, kToSubmodule);
}

void enqueToKernel(unsigned long* track) {
    pass(track, kToKernel);
}

void enqueFromKernelToSubmodule(unsigned long* track, int /*subflow*/) {
    pass(track, kFromKernelQueued);
}

void doneFromKernelToSubmodule(unsigned long* track, int /*subflow*/) {
    pass(track, kFromKernelDone);
}

void doneToSubmodule(unsigned long* track, int /*subflow*/) {
    pass(track, kDone);
}

unsigned long stamp(const unsigned long* track, Station station) {
    return track != nullptr ? __atomic_load_n(&track[station], __ATOMIC_RELAXED) : 0;
}

}  // namespace NSVista::NSCorvane::reqtrack
