// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A scene's requests, as other threads see them.
 */
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {

class Request;
struct RequestDebugInfo;

/** A request at one moment; the parts are read one after the other. */
struct RequestView {
    enum class Phase {
        Idle,            ///< with its client, or in its done callback
        Filling,         ///< its buffers are being queued
        Queueing,        ///< in MEDIA_REQUEST_IOC_QUEUE, since queueStart
        WithDriver,      ///< queued, since queued
        Reinitialising,  ///< completed, in MEDIA_REQUEST_IOC_REINIT, since done
        Refused,         ///< its queueing failed
    };
    Phase phase = Phase::Idle;
    int fd = -1;
    uint32_t number = 0;    ///< of the last cycle, counted from 0 by the scene
    uint32_t callback = 0;  ///< number + 1 of the cycle whose done callback runs, 0 for none
    struct timespec queueStart = {}, queued = {}, done = {};  ///< log clock; zero where not passed
    const char* waiter = nullptr;  ///< the operation that waits for the request's state
    int64_t waitingSince = 0;      ///< of it, CLOCK_MONOTONIC in nanoseconds
};

/**
 * The requests that a scene made and that live. Shared by the scene and its requests, of which
 * either may go first; any thread.
 */
class RequestRoll {
public:
    explicit RequestRoll(std::string sceneName) : mSceneName(std::move(sceneName)) {}

    const std::string& sceneName() const { return mSceneName; }
    /**
     * Takes a request in until remove().
     * @return the mark of its done callback (see RequestView::callback), which outlives the request
     *         while it is set.
     */
    std::atomic<uint32_t>& add(const Request& request);
    void remove(const Request& request) noexcept;
    std::vector<RequestView> view() const;

private:
    struct Entry {
        Entry(const Request* its, int itsFd, std::shared_ptr<const RequestDebugInfo> itsTimes)
            : request(its), fd(itsFd), times(std::move(itsTimes)) {}
        const Request* request;  ///< null for one that was destroyed in its done callback
        int fd;
        std::shared_ptr<const RequestDebugInfo> times;
        std::atomic<uint32_t> callback{0};
    };

    void dropReturned() CORVANE_REQUIRES(mLock);

    const std::string mSceneName;
    mutable Mutex mLock;  ///< a leaf: held to copy what atomics say
    std::list<Entry> mEntries CORVANE_GUARDED_BY(mLock);
};

}  // namespace NSVista::NSCorvane
