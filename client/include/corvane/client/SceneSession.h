// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * One scene's life, from the media device to the last buffer.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <corvane/DequeuedBuffer.h>
#include <corvane/IMediaDevice.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/client/DmaBuf.h>
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/client/SessionRequest.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane::client {

/** A port of a session. */
struct SessionPort {
    std::string name;     ///< names the port in logs
    int index = 0;        ///< unique within the session
    std::string entity;   ///< media entity whose node is used
    uint32_t format = 0;  ///< wanted fourcc; 0 keeps the driver's
    uint32_t width = 0;   ///< wanted size in pixels, not of a meta node; 0 keeps the driver's
    uint32_t height = 0;
};

/** A media link that a session enables while it lives. Known by its pad numbers alone. */
struct SessionLink {
    std::string sourceEntity;
    uint32_t sourcePad = 0;
    std::string sinkEntity;
    uint32_t sinkPad = 0;
};

/** When a request is handed to the client. */
enum class HandOver {
    WhenDequeued,  ///< once every buffer is dequeued: frames can be read and their data is known
    WhenDone,      ///< at its done callback, when buffers may still have to be dequeued
};

struct SessionDesc {
    std::string name;
    std::vector<SessionPort> ports;
    std::vector<SessionLink> links;
    int buffers = 4;  ///< per port, 1 to 64; as many requests can be under way
    FrameLayout layout;
    HandOver handOver = HandOver::WhenDequeued;
    /**
     * Buffers are dequeued on the event thread (Scene::setDirectDequeue()), which saves a hand-over
     * to the buffer monitor's thread; then both ways to hand over are the same.
     */
    bool direct = true;
    /** Requests note when they pass each station, for SessionRequest::times(): 7 clock readings. */
    bool times = false;
};

/** What went through a port. */
struct PortStatistics {
    std::string name;
    uint64_t queued;    ///< frames of accepted requests
    uint64_t dequeued;  ///< frames that came back, broken ones included
    uint64_t broken;    ///< frames that the driver flagged
    uint64_t lost;      ///< dequeues that failed
    uint64_t remapped;  ///< frames that came with other memory than their buffer index had
};

/**
 * Owns a scene from its initialisation to its end, with buffers and requests for it.
 *
 * It keeps a scene's rules by construction: the media device is acquired before the scene is
 * initialised and released after; planes are sized from the negotiated format; every request
 * carries a buffer of every port in every cycle; there are no more requests than buffers, and where
 * the driver grants it one buffer index more, so that no queueing waits for an index; frames keep
 * their index; descriptors stay open; a stop waits for callbacks and dequeues, or takes the event
 * monitor away first; and a session starts once, so a new one is a new scene.
 *
 * There are three ways to drive it:
 *  - by threads: submit() queues a request, wait() sleeps until one is finished;
 *  - by callback: setDoneCallback(), and submitAgain() from inside it;
 *  - by a loop of the client's: eventFd() becomes readable, wait() with no time takes requests.
 *
 * One thread opens, starts, stops and destroys. submit() and wait() may each have a thread of their
 * own between start() and stop().
 *
 * A frame whose dequeue fails is lost: the driver may still have it. One error line names the port;
 * its request is handed over with the frame's result, and is not used again unless the driver gives
 * the frame back later.
 */
class CORVANE_EXPORT SceneSession {
public:
    using Visit = std::function<void(SessionRequest&)>;

    /**
     * Opens ports, sets formats, imports and allocates buffers.
     * @param media for this session alone, not acquired.
     * @param source where the buffers come from; used during the call only.
     * @param[out] error 0 or a negated errno (-1 where the scene says no more); one error line says
     *             what is wrong with a description.
     * @param debugInfo the scene's debug record; empty for one of its own.
     * @return null on failure; then everything is undone.
     */
    static std::unique_ptr<SceneSession> open(SessionDesc desc, std::shared_ptr<IMediaDevice> media,
                                              IDmaBufSource& source, int& error,
                                              std::shared_ptr<SceneDebugInfo> debugInfo = nullptr);
    /** Stops if need be, then undoes open(). Nobody else may hold the scene by then. */
    ~SceneSession();
    SceneSession(const SceneSession&) = delete;
    SceneSession& operator=(const SceneSession&) = delete;

    const SessionDesc& desc() const { return mDesc; }
    /** The format that the driver made of the wanted one. @param port ordinal in desc().ports. */
    const PixelFormat& format(size_t port) const { return mFormats[port]; }
    /** For a SceneManager to know it by name; format and stream calls are the session's. */
    std::shared_ptr<IScene> scene() const { return mScene; }

    /** Visits every request, for what is to be written to its frames once. Before start(). */
    void visitAll(const Visit& visit);
    /**
     * Has finished requests handed to a function in place of wait(). Before start().
     * @param done called on the thread that saw the last of a request, the event monitor's where
     *        buffers are dequeued directly. It must not block nor call anything of the session but
     *        submitAgain(), submit(), inFlight() and statistics(). A request that it does not queue
     *        again is free when it returns.
     */
    void setDoneCallback(Visit done) { mDone = std::move(done); }
    /**
     * A descriptor that is readable while finished requests wait to be taken; made by the first
     * call, before start(). The session's: it is to be polled, not read.
     * @return the descriptor, or the negated errno.
     */
    int eventFd();
    /**
     * Streams on. Once.
     * @return 0, -EBUSY when it was started before, -1, or the errno with which a port refused,
     *         where the terminate handler kept the process alive: only stop() is left then.
     */
    int start();
    /**
     * Fills and queues a request.
     * @param fill writes the frames, on this thread; may be empty.
     * @return 0; -EAGAIN while every request is under way or waits to be inspected; -EPIPE when the
     *         session does not stream, or an earlier request was refused; -ENOBUFS when every
     *         request has lost a frame; the driver's refusal, after which only stop() is left.
     */
    int submit(const Visit& fill);
    /**
     * Queues the request again that the done callback was given. From inside that callback.
     * @param fill as for submit().
     * @return as submit(); -EAGAIN where it was handed over early and has buffers to be dequeued.
     */
    int submitAgain(SessionRequest& request, const Visit& fill = {});
    /**
     * Waits for the next finished request, in the order of completion. May be called after stop()
     * for requests that finished before it.
     * @param inspect reads the frames, on this thread; when it returns, the request is free again.
     * @return 0, -ETIMEDOUT, or -ENOENT when no request is under way.
     */
    int wait(std::chrono::milliseconds timeout, const Visit& inspect);
    /**
     * Waits until every request has completed and every buffer has been dequeued, or is lost.
     * @return 0 or -ETIMEDOUT.
     */
    int drain(std::chrono::milliseconds timeout);
    /**
     * Streams off, after a drain() or, where that times out, after the event monitor is taken away:
     * requests that are still under way are then lost, which one warning line tells.
     * @return 0, -ETIMEDOUT when requests were lost, -EPIPE when it does not stream, -1, or the
     * errno with which a port refused, where the terminate handler kept the process alive.
     */
    int stop(std::chrono::milliseconds timeout);

    /** Requests under way. Any thread. */
    size_t inFlight() const { return mInFlight.load(std::memory_order_relaxed); }
    /** Per port, in the order of the ports. Exact when nothing is under way. Any thread. */
    std::vector<PortStatistics> statistics() const;
    /** Prints the event monitor; the scene prints itself. Not during stop(). */
    void dumpState(IPrinter* printer) const;

private:
    struct Counts {
        std::atomic<uint64_t> dequeued{0}, broken{0}, lost{0};

        void take(const DequeuedBuffer& buffer) {
            dequeued.fetch_add(1, std::memory_order_relaxed);
            if (buffer.result != 0)
                broken.fetch_add(1, std::memory_order_relaxed);
        }
    };
    struct Wakeup;

    explicit SceneSession(SessionDesc desc);
    int openScene(std::shared_ptr<IMediaDevice> media, std::shared_ptr<SceneDebugInfo> debugInfo);
    void describe();
    std::string wrongWith(const IMediaDevice& media) const;
    int prepareBuffers(IDmaBufSource& source);
    int askForBuffers(const SessionPort& port);
    void prepareRequests();
    void requestDone(SessionRequest& request);
    int negotiate(const SessionPort& wanted, const std::shared_ptr<IPort>& port,
                  PixelFormat& format);
    int allocateRequest(unsigned slot, IDmaBufSource& source);
    SessionRequest* takeFree();
    int queue(SessionRequest& request, const Visit& fill);
    size_t ordinalOf(int portIndex) const;
    SessionRequest* requestOf(const DequeuedBuffer& buffer) const;
    void dequeuedAmongLosses(size_t port, const DequeuedBuffer& buffer) CORVANE_EXCLUDES(mLock);
    bool clear(SessionRequest& request, uint64_t bit);
    void goOn(SessionRequest& request, uint64_t cleared, uint64_t left);
    void deliver(SessionRequest& request);
    void dequeued(const DequeuedBuffer& buffer);
    void lose(size_t port, int error) CORVANE_EXCLUDES(mLock);
    void settleLosses() CORVANE_EXCLUDES(mLock);
    bool settleOneLoss(size_t port) CORVANE_EXCLUDES(mLock);
    void cameLate(SessionRequest& request, size_t port) CORVANE_EXCLUDES(mLock);
    template <class Condition>
    bool waitFor(std::chrono::steady_clock::time_point deadline, Condition isMet) const;
    bool isAwaitingDequeues() const;
    void tellLost() const;

    const SessionDesc mDesc;
    const uint64_t mAllPorts;  ///< bit per port
    std::vector<PortDesc> mPortDescs;
    std::vector<LinkDesc> mLinkDescs;
    SceneDesc mSceneDesc{};
    std::shared_ptr<IMediaDevice> mMedia;
    std::shared_ptr<Scene> mScene;
    std::shared_ptr<EpollEventMonitor> mEvents;
    std::vector<PixelFormat> mFormats;
    std::vector<int> mIndexCounts;  ///< buffer indexes to import, per port
    std::vector<std::unique_ptr<SessionRequest>> mRequests;
    std::vector<SessionRequest*> mRequestOfFd;
    std::unique_ptr<Counts[]> mCounts;  ///< per port
    std::unique_ptr<Wakeup> mWakeup;
    Visit mDone;
    uint32_t mFdEnd = 0;     ///< of mRequestOfFd
    bool mIsInOrder = true;  ///< the ports' indexes are their ordinals
    bool mWasStarted = false;

    std::atomic<bool> mStreaming{false};
    std::atomic<bool> mRefused{false};
    std::atomic<uint64_t> mFree{0};  ///< bit per request
    std::atomic<uint64_t> mNumbers{0};
    std::atomic<uint64_t> mAccepted{0};
    std::atomic<size_t> mInFlight{0};
    std::atomic<size_t> mRetired{0};
    std::atomic<bool> mHasLosses{false};
    mutable Mutex mLock;
    std::vector<SessionRequest*> mFinished CORVANE_GUARDED_BY(mLock);
    /** Per port, the errors of failed dequeues whose request is not known yet. */
    std::vector<std::vector<int>> mLosses CORVANE_GUARDED_BY(mLock);
};

}  // namespace NSVista::NSCorvane::client
