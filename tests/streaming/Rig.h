// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A scene with buffers and requests over the first ports of the platform, built by hand.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <corvane/DequeuedBuffer.h>
#include <corvane/IRequest.h>
#include <corvane/SceneControl.h>
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/client/SessionRequest.h>

#include "Platform.h"
#include "support/SceneDescs.h"

namespace NSVista::NSCorvane::test {

class Rig {
public:
    /** Builds the scene and acquires it; nothing is initialised yet. */
    explicit Rig(size_t ports);
    /** Undoes what was done, in the scene's order. */
    ~Rig();

    int init();
    /**
     * init unless done, formats, @p buffers buffers of every port, as many requests with memory,
     * start.
     * @return 0 or the first failure.
     */
    int start(int buffers);
    /** Poisons and fills the slot's buffers. */
    void fill(size_t slot);
    int queue(size_t slot);
    /** Waits until @p count requests are done in all. */
    bool waitDone(uint64_t count);
    /** Waits until the devices have their buffers back. */
    bool waitDequeued();
    /** Stops watching; completions seen by then are dequeued when this returns. */
    bool lookAway();
    /** Buffers that were queued and are not back, of all ports. */
    size_t withDriver();
    /** The slots' requests in the order of their completion; takes them. */
    std::vector<size_t> takeDone();
    /** Whether every capture plane of a slot was written. */
    bool written(size_t slot);
    /** Number of the test picture that the first port captured. */
    uint32_t capturedPicture(size_t slot);
    uint32_t fedPicture(size_t slot) const { return mPictures[slot]; }
    int stop();
    std::string dump() const;

    std::function<void()>
        onDone;  ///< called first by each done callback; empty or set before start
    std::shared_ptr<client::EpollEventMonitor> events;
    std::unique_ptr<Scene> scene;
    std::vector<PixelFormat> formats;

private:
    template <class Condition>
    bool wait(Condition isMet) {
        std::unique_lock lock(mLock);
        return mChanged.wait_for(lock, std::chrono::seconds(20), isMet);
    }
    int makeSlot();
    /** Draws what an output port of the virtual engine is fed with. */
    void feed(size_t port, client::FrameMapping& frame, size_t slot);

    std::shared_ptr<IMediaDevice> mMedia;
    const BareDesc mDesc;
    bool mInitialised = false;
    bool mStarted = false;
    std::vector<std::shared_ptr<IRequest>> mRequests;
    std::vector<std::vector<client::Frame>> mFrames;  ///< per slot, per port
    uint32_t mNextPicture = 0;
    std::vector<uint32_t> mPictures;  ///< drawn last into a slot's input
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<size_t> mDone;
    uint64_t mQueued = 0, mDoneCount = 0;  ///< requests
    uint64_t mBack = 0;                    ///< buffers that were dequeued
};

}  // namespace NSVista::NSCorvane::test
