// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Scenes, ports and requests.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <corvane/IPort.h>
#include <corvane/IRequest.h>
#include <corvane/IScene.h>
#include <corvane/IV4L2VideoDevice.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

struct LinkDesc;
struct PortDesc;
struct SceneDesc;

namespace NSVista::NSCorvane {

struct DequeuedBuffer;
class IMediaDevice;
class IMediaRequest;
class RequestRoll;
class TextStream;
class ThreadLoopHandler;
struct RequestView;

namespace mc {
class MediaRequest;
}
namespace System {
struct CallUnderWay;
}
namespace timeguard {
class TimeBomb;
}

/**
 * One video node of a scene: owns the video device between init() and deinit() and names the port
 * in the log when the device refuses. The scene serialises the operations; getters, toString() and
 * dumpState() may be called on any thread beside them. Without a device, format, import, streaming
 * and monitor operations return -ENODEV with an error line.
 */
class CORVANE_EXPORT Port : public IPort {
public:
    /** @param media not owned, outlives the port. */
    Port(const PortDesc& desc, IMediaDevice* media);
    ~Port() override;

    void dumpState(IPrinter* printer) const override;
    std::string toString() const override;
    const std::string& getName() const override { return mName; }
    int getIndex() const override { return mIndex; }
    int getType() const override { return mType; }
    bool isSingleDevice() const override { return mSingleDevice; }
    int getFormat(PixelFormat& format) override;
    int setFormat(PixelFormat& format) override;
    int importBuffer(int count) override;

    /** The device; empty before init() and after deinit(). */
    virtual std::shared_ptr<IV4L2VideoDevice> getVideoDevice() const;
    /**
     * Makes and opens the device; one held before is dropped, and must be closed by then.
     * A null media device is fatal.
     * @return 0 or the status of the open; the device stays set then.
     */
    virtual int init();
    /** Closes and drops the device; harmless without one. */
    virtual void deinit();
    /** IV4L2VideoDevice::setMonitor(). */
    virtual int setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor);
    /** Streams on. */
    virtual int start();
    /** Streams off. */
    virtual int stop();

private:
    friend class Request;

    /** The device for queueing, without the lock: nothing is queued beside init() or deinit(). */
    const std::shared_ptr<IV4L2VideoDevice>& queueingDevice() const
        CORVANE_NO_THREAD_SAFETY_ANALYSIS {
        return mVideoDevice;
    }
    void replaceDevice(std::shared_ptr<IV4L2VideoDevice> device);
    template <class Call>
    int onDevice(const char* operation, const char* action, Call call);

    const std::string mName;
    const int32_t mIndex;
    const int32_t mType;
    const bool mSingleDevice;
    [[maybe_unused]] const bool mCtrlMeta;
    const std::string mDeviceName;
    IMediaDevice* const mMediaDevice;
    std::shared_ptr<IV4L2VideoDevice> mVideoDevice CORVANE_GUARDED_BY(mDeviceLock);
    mutable Mutex mDeviceLock;  ///< a leaf: held to copy or swap the pointer only
};

/**
 * A set of buffers, at most one per port, queued and completed together.
 *
 * The client's thread fills and queues, the completion thread ends the cycle; an atomic state hands
 * the buffers from one to the other, each waiting for its turn without sleeping.
 */
class CORVANE_EXPORT Request : public IRequest {
public:
    using QueryPort = std::function<std::shared_ptr<Port>(int)>;
    using RequestDone = std::function<void(Request*, int*, size_t)>;

    /**
     * @param mediaDevice makes the media request; null is fatal.
     * @param queryPort finds a port by its index; must not be empty when buffers are queued.
     * @param requestDone told of each completion with the ports of the cycle; may be empty.
     */
    Request(IMediaDevice* mediaDevice, QueryPort queryPort, RequestDone requestDone);
    ~Request() override;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    std::string toString() const override;
    std::shared_ptr<RequestDebugInfo> getDebugInfo() const override;
    int getRequestFD() const override;
    int getStatus() const override { return mStatus.load(std::memory_order_relaxed); }
    void* getCookie() const override { return mCookie.load(std::memory_order_relaxed); }
    void setCookie(void* cookie) override { mCookie.store(cookie, std::memory_order_relaxed); }
    unsigned long* getTrackBuffer() const override;
    void setTrackBuffer(unsigned long* track) override;
    int setMonitor(const std::shared_ptr<IEventMonitor>& monitor) override;
    int addBuffer(int portIndex, std::function<void(FrameBuffer&)> fill) override;
    int queueRequest(int argument) override;

    /**
     * Queues the buffer of every port ever added.
     * @return 0 or the first refusal; buffers queued before it stay queued.
     */
    int queueBuffers(int argument);
    /** Ends the cycle; called by the media request on the completion thread. */
    void requestDone();

private:
    friend class RequestRoll;
    friend class Scene;
    enum State : int32_t { kIdle = 0, kBuffersQueued = 1, kQueued = 2 };
    /** Beside the state, which a cycle leaves idle until its buffers are queued. */
    enum Cycle : uint8_t { kNone, kUnderWay, kRefused };

    void waitForState(State state, const char* operation, const char* advice) const;
    void keepWaiting(State state, const char* operation, const char* advice) const;
    void waitUnderGuard(State state, const char* operation, const char* advice) const;
    std::string nameForGuard(State state) const;
    void enlist(const std::shared_ptr<RequestRoll>& roll, const std::atomic<uint32_t>& queuedCount);
    void show(RequestView& view) const;
    [[noreturn]] void refuseSecondBuffer(int portIndex, const FrameBuffer& existing) const;

    /** A port's buffer; the port is looked up once, as a scene's table does not change. */
    struct PortBuffer {
        FrameBuffer buffer;
        std::shared_ptr<Port> port;
    };

    PortBuffer& bufferOf(int portIndex);
    void findPort(int portIndex, PortBuffer& entry) const;
    TextStream& describe(TextStream&& text) const;

    std::shared_ptr<IMediaRequest> mMediaRequest;
    QueryPort mQueryPort;
    RequestDone mRequestDone;
    std::atomic<void*> mCookie{nullptr};
    std::atomic<int32_t> mState{kIdle};
    std::atomic<int32_t> mStatus{0};
    std::vector<int32_t> mPortIndexes;
    std::unordered_map<int32_t, PortBuffer> mBuffers;
    /** Entries of mBuffers in the order in which they were made: cycles are filled alike. */
    std::vector<std::pair<int32_t, PortBuffer*>> mAdded;

    // What other threads may look at, written without waiting for them.
    static std::atomic<uint32_t> sUnseen;
    static const std::atomic<uint32_t> sUncounted;
    std::shared_ptr<RequestRoll> mRoll;           ///< of the scene that made it; empty without one
    std::atomic<uint32_t>* mCallback = &sUnseen;  ///< the roll's mark
    const std::atomic<uint32_t>* mQueuedCount = &sUncounted;  ///< the scene's
    const mc::MediaRequest* mMediaState = nullptr;  ///< mMediaRequest, where it is the library's
    std::atomic<uint32_t> mNumber{0};  ///< how many requests the scene had queued before
    std::atomic<uint8_t> mCycle{kNone};
    mutable std::atomic<const char*> mWaiter{nullptr};  ///< the operation that waits for the state
    mutable std::atomic<int64_t> mWaitingSince{0};
};

/**
 * A scene over a media device. See IScene for the order of calls. After uninit() or a failed init()
 * formats, import, streaming and queueing are refused with an error line and -1.
 */
class CORVANE_EXPORT Scene : public IScene {
public:
    /**
     * @param debugInfo where times are kept; empty for a record of its own.
     * @param desc kept by reference, see SceneDesc.
     * @param media acquired by its user before init(), released after uninit().
     */
    Scene(std::shared_ptr<SceneDebugInfo> debugInfo, const SceneDesc& desc,
          const std::shared_ptr<IMediaDevice>& media);
    /** Releases what it holds; it does not stop, release or uninit. */
    ~Scene() override;
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    void dumpState(IPrinter* printer) const override;
    std::shared_ptr<SceneDebugInfo> getDebugInfo() const override { return mDebugInfo; }
    void setRequestDoneCallback(std::function<void(IRequest*)> callback) override;
    size_t getNumOfPorts() const override;
    void iteratePorts(std::function<bool(std::shared_ptr<IPort>)> visit) override;
    std::shared_ptr<IRequest> createRequest() override;
    int acquire() override;
    int release() override;
    int getFormat(const std::shared_ptr<IPort>& port, PixelFormat& format) const override;
    int setFormat(const std::shared_ptr<IPort>& port, PixelFormat& format) override;
    int importBuffer(const std::shared_ptr<IPort>& port, int count) override;
    int start() override;
    int stop() override;
    int queueRequest(IRequest* request, int argument) override;

    /**
     * @name Choices of how the scene streams
     * Made before start() by its owner. @return 0, or -1 with an error line when the scene streams.
     * @{
     */
    /**
     * Dequeues a request's buffers on the completing thread, in port order, before the done
     * callback, however many ports the request has; the buffer monitor's thread then sleeps. At
     * first only requests over one port are dequeued so. The configuration mode of the system
     * properties comes before this choice.
     */
    int setDirectDequeue(bool direct);
    /**
     * Tells of every dequeue of every port, also of a failed one, whose index is lost for good.
     * @param callback called on the thread that dequeued, the buffer monitor's or the completing
     *        one, once the index is free again and with no lock held; where requests over one and
     *        over several ports are mixed, on both at once. It must not block or throw; the record
     *        is valid until it returns. Empty (at first): nobody is told, at no cost.
     */
    int setBufferDequeuedCallback(std::function<void(const DequeuedBuffer&)> callback);
    /**
     * Lets memory stay at its buffer index (V4L2VideoDevice::setKeepIndexes()) on every port, which
     * spares the kernel mapping it anew. At first a buffer always takes the lowest free index.
     */
    int setKeepIndexes(bool keep);
    /** @} */

    /**
     * Whether all ports took the last start() or stop(), which return 0 even where one refused: the
     * refusal was reported and ends the service, unless its terminate handler returned.
     * @return 0, or the negated errno with which a port refused VIDIOC_STREAMON or
     *         VIDIOC_STREAMOFF; the last one's of several. Any thread.
     */
    int streamRefusal() const { return mStreamRefusal.load(std::memory_order_relaxed); }

    /**
     * Says in words why the scene does not go on: each request that is under way, completed and not
     * dequeued, or in its done callback, with its number, descriptor and age; each port that a
     * thread of the library is inside a call of, or waits for an index of; and whose turn it is.
     *
     * Any thread, beside anything: it waits for nobody and takes a moment's look, part by part, so
     * that what goes on meanwhile may show twice or not at all. While nothing is stalled it tells
     * what is under way just then. A request's number counts the scene's queued requests from 0; it
     * is exact while one thread queues.
     */
    void explainStall(IPrinter* printer) const;

    /**
     * Opens every port and enables every link. Once in a scene's life.
     * @return 0, or -1 when a port or a link failed; the scene is uninitialised again then.
     */
    int init();
    /** Disables the links and closes the ports; they stay in the table. */
    void uninit();
    bool initPorts();
    bool initLinks();
    /**
     * Takes a port into the table and gives it the buffer monitor.
     * @return 0 (also for null), -1 when the index is taken, or the status of setMonitor.
     */
    int addPort(const std::shared_ptr<Port>& port);
    /** Any thread, once init() is over. @return empty when there is none (logged). */
    std::shared_ptr<Port> queryPort(int index) const;
    /** A request completed; called by the request on the completion thread. */
    void requestDone(Request* request, int* portIndexes, unsigned long count);

private:
    enum State : int32_t { kIdle = 0, kAcquired = 1, kStarted = 2 };

    friend class SceneManager;

    static const char* stateName(int32_t state);
    void explain(IPrinter& printer, std::vector<System::CallUnderWay>& calls) const;
    bool inState(State wanted, const char* operation) const;
    bool beforeStart(const char* operation) const CORVANE_REQUIRES(mStreamLock);
    void refuseStream(const char* operation, const char* failure, const Port& port, int ret);
    void tellOfRequestsInFlight() const;
    void applyChoices() CORVANE_REQUIRES(mStreamLock);
    void startMonitor() CORVANE_REQUIRES(mStreamLock);
    void stopMonitor() CORVANE_EXCLUDES(mThreadLock);

    using Ports = std::unordered_map<int, std::shared_ptr<Port>>;
    /** The table for its owner and for queueing, without the lock: it changes in init() only. */
    const Ports& ports() const CORVANE_NO_THREAD_SAFETY_ANALYSIS { return mPorts; }
    /** The ports in the table's order, for any thread. */
    std::vector<std::shared_ptr<Port>> copyPorts() const;

    const SceneDesc& mDesc;
    std::shared_ptr<SceneDebugInfo> mDebugInfo;
    std::shared_ptr<IMediaDevice> mMediaDevice;
    std::shared_ptr<IV4L2BufferMonitor> mBufferMonitor;
    Ports mPorts CORVANE_GUARDED_BY(mPortsLock);
    std::function<void(IRequest*)> mRequestDoneCallback;
    /** Orders start() and stop(), which hold it throughout, and what is chosen before them. */
    Mutex mStreamLock CORVANE_ACQUIRED_BEFORE(mThreadLock);
    Mutex mThreadLock;
    std::shared_ptr<ThreadLoopHandler> mThreadLoopHandler CORVANE_GUARDED_BY(mThreadLock);
    std::atomic<int32_t> mState{kIdle};
    std::atomic<uint32_t> mQueuedCount{0};
    std::atomic<uint32_t> mDoneCount{0};
    std::atomic<int> mStreamRefusal{0};
    std::function<void(const DequeuedBuffer&)> mBufferDequeuedCallback
        CORVANE_GUARDED_BY(mStreamLock);
    bool mKeepIndexes CORVANE_GUARDED_BY(mStreamLock) = false;
    std::atomic<bool> mUninitialised{false};  ///< by uninit(), for good
    mutable Mutex mPortsLock;                 ///< a leaf: held to insert into or copy the table
    const std::shared_ptr<RequestRoll> mRoll;
    /** While the scene is started: tells of done callbacks that do not return. */
    std::shared_ptr<timeguard::TimeBomb> mCallbackWatch CORVANE_GUARDED_BY(mStreamLock);
};

}  // namespace NSVista::NSCorvane
