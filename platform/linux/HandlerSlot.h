// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A replaceable handler.
 */
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {

/**
 * Holds a handler that any thread may replace while others call it: a call keeps the handler it
 * took alive, and runs it with no lock held.
 */
template <class Signature>
class HandlerSlot {
public:
    using Handler = std::function<Signature>;

    /** @param handler empty for none. */
    void set(Handler handler) {
        auto next = handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
        const MutexLock lock(mLock);
        mHandler.swap(next);
    }
    /** @return null when there is none. */
    std::shared_ptr<const Handler> get() const {
        const MutexLock lock(mLock);
        return mHandler;
    }

private:
    mutable Mutex mLock;
    std::shared_ptr<const Handler> mHandler CORVANE_GUARDED_BY(mLock);
};

}  // namespace NSVista::NSCorvane
