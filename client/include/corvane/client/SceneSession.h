/**
 * @file
 * One scene's life, from the media device to the last buffer.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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

struct SessionDesc {
    std::string name;
    std::vector<SessionPort> ports;
    std::vector<SessionLink> links;
    int buffers = 4;  ///< per port, 1 to 64; as many requests can be under way
    FrameLayout layout;
};

/** What went through a port. */
struct PortStatistics {
    std::string name;
    uint64_t queued;
    uint64_t dequeued;
};

/**
 * Owns a scene from its initialisation to its end, with buffers and requests for it.
 *
 * It keeps a scene's rules by construction: the media device is acquired before the scene is
 * initialised and released after; planes are sized from the negotiated format; every request
 * carries a buffer of every port in every cycle; there are as many requests as buffers; descriptors
 * stay open; a stop waits for callbacks and dequeues, or takes the event monitor away first; and a
 * session starts once, so a new one is a new scene.
 *
 * Free requests are taken lowest first, as the ports' devices take buffer indexes, so that a frame
 * mostly meets the index that has it mapped. Where dequeues follow callbacks (several ports) that
 * is a matter of timing: a frame that comes too early goes to another index and is mapped anew.
 *
 * One thread opens, starts, stops and destroys. submit() and wait() may each have a thread of their
 * own between start() and stop().
 */
class CORVANE_EXPORT SceneSession {
public:
    using Visit = std::function<void(SessionRequest&)>;

    /**
     * Opens ports, sets formats, imports and allocates buffers.
     * @param media for this session alone, not acquired.
     * @param source where the buffers come from; used during the call only.
     * @param[out] error 0 or a negated errno (-1 where the scene says no more; the log does).
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
    /** Streams on. Once. @return 0, -EBUSY when it was started before, or -1. */
    int start();
    /**
     * Fills and queues a request.
     * @param fill writes the frames, on this thread; may be empty.
     * @return 0; -EAGAIN while every request is under way or waits to be inspected; -EPIPE when the
     *         session does not stream, or an earlier request was refused; the driver's refusal,
     *         after which only stop() is left.
     */
    int submit(const Visit& fill);
    /**
     * Waits for the next finished request, in the order of completion. May be called after stop()
     * for requests that finished before it.
     * @param inspect reads the frames, on this thread; when it returns, the request is free again.
     * @return 0, -ETIMEDOUT, or -ENOENT when no request is under way.
     */
    int wait(std::chrono::milliseconds timeout, const Visit& inspect);
    /**
     * Waits until every request has completed and every buffer has been dequeued.
     * @return 0 or -ETIMEDOUT.
     */
    int drain(std::chrono::milliseconds timeout);
    /**
     * Streams off, after a drain() or, where that times out, after the event monitor is taken away:
     * requests that are still under way are then lost.
     * @return 0, -ETIMEDOUT when requests were lost, -EPIPE when it does not stream, or -1.
     */
    int stop(std::chrono::milliseconds timeout);

    /** Requests under way. Any thread. */
    size_t inFlight() const;
    /** Per port, in the order of the ports. Exact when nothing is under way. */
    std::vector<PortStatistics> statistics() const;
    /** Prints the event monitor; the scene prints itself. Not during stop(). */
    void dumpState(IPrinter* printer) const;

private:
    using Clock = std::chrono::steady_clock;

    explicit SceneSession(SessionDesc desc) : mDesc(std::move(desc)) {}
    int openScene(std::shared_ptr<IMediaDevice> media, std::shared_ptr<SceneDebugInfo> debugInfo);
    bool describe();
    int prepareBuffers(IDmaBufSource& source);
    int negotiate(const SessionPort& wanted, const std::shared_ptr<IPort>& port,
                  PixelFormat& format);
    int allocateRequest(unsigned slot, IDmaBufSource& source);
    int queue(SessionRequest& request);
    void requestDone(SessionRequest& request);
    bool waitForCompletions(Clock::time_point deadline) const;
    bool waitForDequeues(Clock::time_point deadline) const;
    uint64_t withDriver(const SessionPort& port) const;

    const SessionDesc mDesc;
    std::vector<PortDesc> mPortDescs;
    std::vector<LinkDesc> mLinkDescs;
    SceneDesc mSceneDesc{};
    std::shared_ptr<IMediaDevice> mMedia;
    std::shared_ptr<Scene> mScene;
    std::shared_ptr<EpollEventMonitor> mEvents;
    std::vector<PixelFormat> mFormats;
    std::vector<std::unique_ptr<SessionRequest>> mRequests;
    bool mWasStarted = false;
    std::vector<uint64_t> mLeftWithDriver;  ///< at the stop, per port

    mutable Mutex mLock;
    mutable std::condition_variable mCompletion;
    bool mStreaming CORVANE_GUARDED_BY(mLock) = false;
    bool mRefused CORVANE_GUARDED_BY(mLock) = false;
    uint64_t mFree CORVANE_GUARDED_BY(mLock) = 0;  ///< bit per request
    std::vector<SessionRequest*> mFinished CORVANE_GUARDED_BY(mLock);
    uint64_t mQueuedCount CORVANE_GUARDED_BY(mLock) = 0;
    size_t mInFlight CORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace NSVista::NSCorvane::client
