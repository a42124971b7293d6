// SPDX-License-Identifier: Apache-2.0
#include "RecordLanes.h"

#include <corvane/platform/Thread.h>
#include <pthread.h>
#include <sys/mman.h>

namespace NSVista::NSCorvane::record {

constinit Lanes gLanes;
constinit thread_local Lane* Lanes::tLane = nullptr;

namespace {

pthread_key_t gKey;  ///< tells of a thread's end, without an allocation

}  // namespace

bool Lanes::prepare() noexcept {
    if (mLanes[0].mMemory != nullptr)
        return true;
    void* const memory = mmap(nullptr, kCount * Lane::kBytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    const auto leave = [](void* lane) {
        tLane = nullptr;
        static_cast<Lane*>(lane)->mUse.store(Lane::Use::Left, std::memory_order_release);
    };
    if (pthread_key_create(&gKey, leave) != 0) {
        munmap(memory, kCount * Lane::kBytes);
        return false;
    }
    for (size_t i = 0; i < kCount; ++i)
        mLanes[i].mMemory = static_cast<char*>(memory) + i * Lane::kBytes;
    return true;
}

void Lanes::begin() noexcept {
    forEach([](size_t, Lane& lane, bool) { lane.clear(); });
}

Lane* Lanes::take() noexcept {
    for (Lane& lane : mLanes) {
        auto use = Lane::Use::Free;
        if (lane.mUse.load(std::memory_order_relaxed) != use ||
            !lane.mUse.compare_exchange_strong(use, Lane::Use::Taken, std::memory_order_acq_rel))
            continue;
        lane.mTid = Thread::getThisThread();
        pthread_setspecific(gKey, &lane);
        return tLane = &lane;
    }
    return nullptr;
}

uint64_t Lanes::lost() const {
    uint64_t sum = mLost.load(std::memory_order_relaxed);
    for (const Lane& lane : mLanes)
        sum += lane.lost();
    return sum;
}

}  // namespace NSVista::NSCorvane::record
