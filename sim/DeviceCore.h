// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * One virtual media device as its driver sees it.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <corvane/sim/Engine.h>

#include "BufferQueue.h"
#include "File.h"
#include "Graph.h"
#include "Locks.h"
#include "Pipeline.h"
#include "SubDevice.h"

namespace NSVista::NSCorvane::sim {

/**
 * A media device: graph, queues, sub-devices and the engine behind them.
 *
 * Locks, in this order: requestMutex(), which the kernel holds through every call that starts,
 * stops or reconfigures a queue or that queues a request; mutex(), which guards all state; the
 * sub-device's own. The descriptor table's lock is taken inside any of them.
 */
class DeviceCore {
public:
    /** @param files the engine's descriptors. @param faults its faults; both outlive the device. */
    DeviceCore(const DeviceDesc& description, Graph graph, FileTable& files, Faults& faults);
    ~DeviceCore();
    DeviceCore(const DeviceCore&) = delete;
    DeviceCore& operator=(const DeviceCore&) = delete;

    Mutex& requestMutex() CORVANE_RETURN_CAPABILITY(mRequestMutex) { return mRequestMutex; }
    Mutex& mutex() CORVANE_RETURN_CAPABILITY(mMutex) { return mMutex; }

    /** @name Fixed once the device is added
     * @{ */
    const media_device_info& info() const { return mInfo; }
    FileTable& files() { return mFiles; }
    Faults& faults() { return mFaults; }
    Pipeline& pipeline() { return mPipeline; }
    const std::vector<std::unique_ptr<BufferQueue>>& queues() const { return mQueues; }
    const std::vector<std::unique_ptr<SubDevice>>& subDevices() const { return mSubDevices; }
    /** Names of the nodes: the media node's path, and each entity's or an empty one. */
    std::string mediaPath;
    std::vector<std::string> entityPaths;
    /** @} */

    /** @name With mutex() held
     * @{ */
    Graph& graph() CORVANE_REQUIRES(deviceState) { return mGraph; }
    /** MEDIA_IOC_SETUP_LINK: no change of a link whose node streams. */
    int setupLink(const media_link_desc& link) CORVANE_REQUIRES(deviceState);
    /** In place of what the queues grant. */
    std::optional<uint32_t> bufferLimit() const CORVANE_REQUIRES(deviceState) {
        return mBufferLimit;
    }
    void setBufferLimit(uint32_t limit) CORVANE_REQUIRES(deviceState) { mBufferLimit = limit; }
    /** The brightness control of the first sub-device. */
    int32_t brightness() const;
    /** A request is done: events and fences. */
    void frameDone(uint32_t frame, const timespec& time);
    /** Waits for a buffer to become done or its queue to stop. */
    void waitForBuffer(DeviceLock& lock) CORVANE_REQUIRES(deviceState) {
        mBuffersChanged.wait(lock.native());
    }
    void buffersChanged() { mBuffersChanged.notify_all(); }
    /** @} */

    std::atomic<size_t> filesOpen{0};
    std::atomic<size_t> requestsAlive{0};

private:
    /** Guards nothing named: it puts the calls that the kernel serialises in order. */
    Mutex mRequestMutex CORVANE_ACQUIRED_BEFORE(mMutex);
    Mutex mMutex;
    std::condition_variable mBuffersChanged;
    const media_device_info mInfo;
    FileTable& mFiles;
    Faults& mFaults;
    Graph mGraph CORVANE_GUARDED_BY(deviceState);
    std::optional<uint32_t> mBufferLimit CORVANE_GUARDED_BY(deviceState);
    std::vector<std::unique_ptr<BufferQueue>> mQueues;
    std::vector<std::unique_ptr<SubDevice>> mSubDevices;
    Pipeline mPipeline;
};

}  // namespace NSVista::NSCorvane::sim
