// SPDX-License-Identifier: Apache-2.0
#include "RequestRoll.h"

#include <corvane/SceneControl.h>

#include "Stamp.h"

namespace NSVista::NSCorvane {

std::atomic<uint32_t>& RequestRoll::add(const Request& request) {
    const int fd = request.getRequestFD();
    auto times = request.getDebugInfo();
    const MutexLock lock(mLock);
    dropReturned();
    return mEntries.emplace_back(&request, fd, std::move(times)).callback;
}

void RequestRoll::remove(const Request& request) noexcept {
    const MutexLock lock(mLock);
    for (Entry& entry : mEntries)
        if (entry.request == &request)
            entry.request = nullptr;
    dropReturned();
}

void RequestRoll::dropReturned() {
    mEntries.remove_if([](const Entry& entry) {
        return entry.request == nullptr && entry.callback.load(std::memory_order_acquire) == 0;
    });
}

std::vector<RequestView> RequestRoll::view() const {
    std::vector<RequestView> views;
    const MutexLock lock(mLock);
    views.reserve(mEntries.size());
    for (const Entry& entry : mEntries) {
        RequestView& view = views.emplace_back();
        view.fd = entry.fd;
        view.callback = entry.callback.load(std::memory_order_relaxed);
        if (entry.times != nullptr) {
            view.queueStart = loadStamp(entry.times->queueStart);
            view.queued = loadStamp(entry.times->queued);
            view.done = loadStamp(entry.times->done);
        }
        if (entry.request != nullptr)
            entry.request->show(view);
    }
    return views;
}

}  // namespace NSVista::NSCorvane
