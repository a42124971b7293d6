// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Events of a record on their way from the threads that call to the thread that writes.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include <corvane/platform/RecordFormat.h>

#include "ThreadRing.h"

namespace NSVista::NSCorvane::record {

/** Events in a lane. */
struct EventItem {
    static size_t sizeAt(const char* at) { return reinterpret_cast<const EventHead*>(at)->size; }
    static bool isPadding(const char* at) {
        return reinterpret_cast<const EventHead*>(at)->kind == EventKind::Padding;
    }
    /** An event's head may be longer than what is left; a size and a kind are not. */
    static void pad(char* at, size_t size) {
        auto* const event = reinterpret_cast<EventHead*>(at);
        event->size = static_cast<uint32_t>(size);
        event->kind = EventKind::Padding;
    }
};

/** The events of one thread. A call for which there is no room is left out whole. */
class Lane : public ThreadRing<EventItem> {
public:
    /** What the second half of a call may take at least, kept free while it runs. */
    static constexpr size_t kExitRoom = 8192;

    /** Of the thread that has the lane. By the writer only. */
    pid_t tid() const { return mTid; }

private:
    friend class ThreadRings<Lane>;
    void onTaken() noexcept { mTid = Thread::getThisThread(); }

    pid_t mTid = 0;
};

/** @private */
extern constinit ThreadRings<Lane> gLanes;

}  // namespace NSVista::NSCorvane::record
