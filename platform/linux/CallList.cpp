// SPDX-License-Identifier: Apache-2.0
#include "CallList.h"

#include <corvane/platform/Clock.h>
#include <unistd.h>

#include "Immortal.h"

namespace NSVista::NSCorvane::System {

namespace {

int threadId() {
    thread_local const int id = gettid();
    return id;
}

}  // namespace

CallList& CallList::instance() {
    static Immortal<CallList> calls;
    return *calls;
}

CallList::Listed::Listed(int fd, unsigned int request) noexcept
    : mCall{fd, request, threadId(), monotonicInNs()} {
    CallList& calls = instance();
    const MutexLock lock(calls.mLock);
    mAfter = calls.mFirst;
    if (mAfter != nullptr)
        mAfter->mBefore = this;
    calls.mFirst = this;
}

CallList::Listed::~Listed() {
    CallList& calls = instance();
    const MutexLock lock(calls.mLock);
    if (mAfter != nullptr)
        mAfter->mBefore = mBefore;
    (mBefore != nullptr ? mBefore->mAfter : calls.mFirst) = mAfter;
}

std::vector<CallUnderWay> CallList::list() const {
    std::vector<CallUnderWay> calls;
    const MutexLock lock(mLock);
    for (const Listed* listed = mFirst; listed != nullptr; listed = listed->mAfter)
        calls.push_back(listed->mCall);
    return calls;
}

}  // namespace NSVista::NSCorvane::System
