// SPDX-License-Identifier: Apache-2.0
#include "TraceRing.h"

#include <corvane/platform/Clock.h>
#include <corvane/platform/Thread.h>
#include <pthread.h>

#include "Format.h"

namespace NSVista::NSCorvane::trace {

constinit Rings gRings;

void Ring::put(Kind kind, const char* name, int32_t value) noexcept {
    const size_t length = strnlen(name, kNameMax);
    const Record record{monotonicInNs(), value, static_cast<uint16_t>(length), kind};
    const size_t size = Record::sizeFor(length);
    // Where a gap comes first there is room for both.
    char* const at = reserve(size, mFull ? kBytes / 2 : 0);
    if (at == nullptr) {
        mFull = true;
        lose();
        return;
    }
    if (mFull) {
        mFull = false;
        const Record gap{record.ns, 0, 0, kGap};
        memcpy(at, &gap, sizeof(gap));
        commit(sizeof(gap));
        return put(kind, name, value);
    }
    memcpy(at, &record, sizeof(record));
    memcpy(at + sizeof(record), name, length);
    commit(size);
}

void Rings::begin() noexcept {
    clear();
    mTrace.fetch_add(1, std::memory_order_relaxed);
}

void Rings::put(Kind kind, const char* name, int32_t value) noexcept {
    if (Ring* const ring = named())
        ring->put(kind, name, value);
    else
        lose();
}

void Rings::nameThread(const char* name) noexcept {
    if (Ring* const ring = named())
        ring->put(kThreadName, name, Thread::getThisThread());
}

/** The calling thread's, in which it has said its name. @return null when all are taken. */
Ring* Rings::named() noexcept {
    Ring* const ring = mine();
    if (ring != nullptr && ring->mTrace != mTrace.load(std::memory_order_relaxed))
        sayName(*ring);
    return ring;
}

void Rings::sayName(Ring& ring) noexcept {
    const ErrnoKeeper keeper;
    ring.mTrace = mTrace.load(std::memory_order_relaxed);
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    ring.put(kThreadName, name, Thread::getThisThread());
}

}  // namespace NSVista::NSCorvane::trace
