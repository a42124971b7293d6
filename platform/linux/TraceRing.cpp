// SPDX-License-Identifier: Apache-2.0
#include "TraceRing.h"

#include <corvane/platform/Clock.h>
#include <corvane/platform/Thread.h>
#include <pthread.h>
#include <sys/mman.h>

#include "Format.h"

namespace NSVista::NSCorvane::trace {

constinit Rings gRings;

namespace {

/** The calling thread's ring, where a thread finds it at once. */
[[gnu::tls_model("initial-exec")]] constinit thread_local Ring* tRing = nullptr;
pthread_key_t gKey;  ///< the same, for the end of the thread: without an allocation

}  // namespace

bool Ring::hasRoom(uint64_t head, size_t size) noexcept {
    const size_t most = mFull ? kBytes / 2 : kBytes;
    if (head + size - mSeenTail <= most)
        return true;
    mSeenTail = mTail.load(std::memory_order_acquire);
    return head + size - mSeenTail <= most;
}

void Ring::write(uint64_t head, const Record& record) noexcept {
    memcpy(mMemory + head % kBytes, &record, sizeof(record));
}

void Ring::put(Kind kind, const char* name, int32_t value) noexcept {
    const size_t length = strnlen(name, kNameMax);
    const Record record{monotonicInNs(), value, static_cast<uint16_t>(length), kind};
    const size_t size = sizeOf(length);
    uint64_t head = mHead.load(std::memory_order_relaxed);
    const size_t toEnd = kBytes - head % kBytes;
    const size_t padding = size > toEnd ? toEnd : 0;
    // A gap may have to stand before it.
    if (!hasRoom(head, padding + size + sizeOf(0) * 2)) {
        mFull = true;
        mLost.store(mLost.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return;
    }
    if (mFull) {
        mFull = false;
        write(head, {record.ns, 0, 0, kGap});
        mHead.store(head + sizeOf(0), std::memory_order_release);
        return put(kind, name, value);
    }
    if (padding != 0) {
        write(head, {0, 0, static_cast<uint16_t>(padding - sizeof(Record)), kPadding});
        head += padding;
    }
    write(head, record);
    memcpy(mMemory + head % kBytes + sizeof(record), name, length);
    mHead.store(head + size, std::memory_order_release);
}

bool Rings::prepare() noexcept {
    if (mRings[0].mMemory != nullptr)
        return true;
    void* const memory = mmap(nullptr, kCount * Ring::kBytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    const auto leave = [](void* ring) {
        tRing = nullptr;
        static_cast<Ring*>(ring)->mUse.store(Ring::Use::Left, std::memory_order_release);
    };
    if (pthread_key_create(&gKey, leave) != 0) {
        munmap(memory, kCount * Ring::kBytes);
        return false;
    }
    for (size_t i = 0; i < kCount; ++i)
        mRings[i].mMemory = static_cast<char*>(memory) + i * Ring::kBytes;
    return true;
}

void Rings::begin() noexcept {
    forEach([](size_t, Ring& ring, bool) { ring.clear(); });
    mTrace.fetch_add(1, std::memory_order_relaxed);
}

void Rings::put(Kind kind, const char* name, int32_t value) noexcept {
    if (Ring* const ring = mine())
        ring->put(kind, name, value);
    else
        mLost.fetch_add(1, std::memory_order_relaxed);
}

void Rings::nameThread(const char* name) noexcept {
    if (Ring* const ring = mine())
        ring->put(kThreadName, name, Thread::getThisThread());
}

uint64_t Rings::lost() const {
    uint64_t sum = mLost.load(std::memory_order_relaxed);
    for (const Ring& ring : mRings)
        sum += ring.lost();
    return sum;
}

/** @return null when all rings are taken. */
Ring* Rings::mine() noexcept {
    Ring* const ring = tRing != nullptr ? tRing : take();
    if (ring == nullptr)
        return nullptr;
    if (ring->mTrace != mTrace.load(std::memory_order_relaxed))
        sayName(*ring);
    return ring;
}

Ring* Rings::take() noexcept {
    for (Ring& ring : mRings) {
        auto use = Ring::Use::Free;
        if (!ring.mUse.compare_exchange_strong(use, Ring::Use::Taken, std::memory_order_acq_rel))
            continue;
        ring.mTrace = 0;
        pthread_setspecific(gKey, &ring);
        return tRing = &ring;
    }
    return nullptr;
}

void Rings::sayName(Ring& ring) noexcept {
    const ErrnoKeeper keeper;
    ring.mTrace = mTrace.load(std::memory_order_relaxed);
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    ring.put(kThreadName, name, Thread::getThisThread());
}

}  // namespace NSVista::NSCorvane::trace
