// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The video device's implementation.
 */
#pragma once

#include <linux/videodev2.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <forward_list>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <corvane/IV4L2VideoDevice.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {

struct DequeuedBuffer;

/**
 * A V4L2 video node.
 *
 * queueBuffer() and dequeBuffer() share the free-index bitset only, which is lock-free; its mutex
 * serves a queuer that sleeps while no index is free.
 */
class CORVANE_EXPORT V4L2VideoDevice : public IV4L2VideoDevice,
                                       public std::enable_shared_from_this<V4L2VideoDevice> {
public:
    static constexpr int kMaxBuffers = 64;

    V4L2VideoDevice(int portIndex, const std::string& name, const std::string& devnodePath);
    /** Fatal while the device is open. */
    ~V4L2VideoDevice() override;
    V4L2VideoDevice(const V4L2VideoDevice&) = delete;
    V4L2VideoDevice& operator=(const V4L2VideoDevice&) = delete;

    void onNotify(int) override;
    void dumpState(IPrinter* printer) const override;
    int setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor) override;
    int openDevice() override;
    int closeDevice() override;
    int getFormat(PixelFormat& format) override;
    int setFormat(PixelFormat& format) override;
    int importBuffer(int count) override;
    int streamOn() override;
    int streamOff() override;
    int queueBuffer(const FrameBuffer& buffer, IMediaRequest* request, int argument) override;
    int dequeBuffer() override;

    /** The state in a line. Any thread. */
    std::string toString() const;
    /** What of the node's buffers is where, at one moment; see standing(). */
    struct Standing;
    Standing standing() const;
    /** Names the scene for lines about the node's waits. Before streaming. */
    void setSceneName(const std::string& name) { mSceneName = name; }
    /**
     * VIDIOC_REQBUFS with count 0, of the memory type that importBuffer() set. A refusal is
     * reported and ends the service. Not while a completion may be running.
     * @return 0 or the negated errno.
     */
    int releaseBuffer();
    /**
     * The lowest free index, taken. Blocks without a limit while none is free, reported each second
     * after three.
     * @return -EPIPE when the node has streamed off and none is free; waits under way end so.
     */
    int acquireBufferIndex();
    /** Gives an index back and wakes queuers that wait for one. Fatal for one never imported. */
    void releaseBufferIndex(unsigned int index);
    /** onNotify() without its trace section. */
    void startToDequeueBuffer();

    /**
     * Tells of every dequeue, also of a failed one. Before streaming, while nothing is queued.
     * @param callback called on the thread that dequeued, once the index is free again and with no
     *        lock held; must not throw. The record is the callback's until it returns. Empty (the
     *        default): nobody is told.
     */
    void setDequeuedCallback(std::function<void(const DequeuedBuffer&)> callback);
    /**
     * Queues a buffer where its memory was queued last, so that the kernel need not map it anew.
     * Before streaming, while nothing is queued; off by default.
     *
     * Memory is known by the descriptor and the offset of the first plane. It goes to a free index
     * that was last queued with it, else to the lowest free one that had no memory since the
     * import, else to the lowest free one. A descriptor's number that was closed and given to
     * another dma-buf passes for the old one: that costs a remap which is not counted, no more, as
     * the kernel compares the dma-bufs themselves.
     */
    void setKeepIndexes(bool keep);
    /** Buffers that came with other memory than their index had; counted while indexes are kept. */
    uint32_t remappedBuffers() const { return mLastMemory.remapped(); }
    /**
     * One line on a buffer for an error report: each plane's descriptor and what it stands for,
     * offset and size, and the size that the format (VIDIOC_G_FMT) asks for. Any thread; for
     * failure paths, as it asks the kernel.
     */
    std::string describe(const FrameBuffer& buffer) const;
    /** The same on a buffer that was queued: its plane count is the format's, not what stands
     * there. */
    std::string describeQueued(FrameBuffer buffer) const;

private:
    /** The format, without a report where the driver refuses it: no planes then. */
    PixelFormat askFormat() const;
    /** The memory that each index was last queued with. Any thread. */
    class LastMemory {
    public:
        static constexpr uint64_t kNone = ~uint64_t{0};

        LastMemory() { forget(); }
        static uint64_t of(const FrameBuffer& buffer);
        /** Forgets all memory; the count stays. */
        void forget();
        /** Whether an index was last queued with @p memory. */
        bool isAt(int index, uint64_t memory) const {
            return mMemory[index].load(std::memory_order_relaxed) == memory;
        }
        /** The index of @p freeBits (not 0) that suits @p memory best. */
        int choose(uint64_t freeBits, uint64_t memory) const;
        /** Called by who holds the index. */
        void note(int index, uint64_t memory);
        uint32_t remapped() const { return mRemapped.load(std::memory_order_relaxed); }

    private:
        std::atomic<uint64_t> mMemory[kMaxBuffers];
        std::atomic<uint32_t> mRemapped{0};
    };

    /**
     * A weak pointer that threads read, without a lock, while another replaces it.
     *
     * What was stored once stays until the device goes, at a fixed place and unchanged: a reader
     * that found it may go on reading while another is stored. A device has one monitor in its
     * life, or few.
     */
    class MonitorRef {
    public:
        std::shared_ptr<IV4L2BufferMonitor> lock() const {
            const Weak* current = mCurrent.load(std::memory_order_acquire);
            return current != nullptr ? current->lock() : nullptr;
        }
        void store(const std::shared_ptr<IV4L2BufferMonitor>& monitor);
        void clear() { mCurrent.store(nullptr, std::memory_order_release); }

    private:
        using Weak = std::weak_ptr<IV4L2BufferMonitor>;

        std::atomic<const Weak*> mCurrent{nullptr};
        Mutex mLock;
        std::forward_list<Weak> mStored CORVANE_GUARDED_BY(mLock);
    };

    // Written by the owner's thread; texts and getters may read them beside it.
    int fd() const { return mFd.load(std::memory_order_relaxed); }
    uint32_t caps() const { return mCaps.load(std::memory_order_relaxed); }
    uint32_t memory() const { return mMemory.load(std::memory_order_relaxed); }
    uint32_t bufType() const { return mBufType.load(std::memory_order_relaxed); }
    std::shared_ptr<V4L2VideoDevice> self(const char* operation);
    void fillBuffer(const FrameBuffer& from, v4l2_buffer& to, v4l2_plane* planes) const;
    void reportRefusedBuffer(const v4l2_buffer& refused, const FrameBuffer& buffer, int ret) const;
    int requestBuffers(unsigned int count, unsigned int memoryType, unsigned int& granted);
    int acquireIndexFor(uint64_t memory);
    bool waitForFreeIndex();
    void setStreamEnded(bool ended);
    void tellDequeued(const v4l2_buffer& buffer, int result);

    const int32_t mPortIndex;
    const std::string mName;
    const std::string mDevnodePath;
    std::string mSceneName;
    std::atomic<int32_t> mFd{-1};
    std::atomic<uint32_t> mCaps{0};
    std::atomic<uint32_t> mMemory{0};
    std::atomic<uint32_t> mBufType{0};
    MonitorRef mMonitor;
    std::atomic<bool> mQueued{false};
    std::atomic<uint32_t> mReqBufCount{0};
    std::unique_ptr<uint64_t[]> mSlots CORVANE_GUARDED_BY(mSlotsMutex);
    mutable Mutex mSlotsMutex;
    std::atomic<uint64_t> mFreeBits{0};
    Mutex mFreeMutex;
    std::condition_variable mFreeCond;
    /** Odd from a stream-off on, until the next stream-on or import. */
    uint32_t mStreamEnds CORVANE_GUARDED_BY(mFreeMutex) = 0;
    std::function<void(const DequeuedBuffer&)> mDequeued;
    std::atomic<bool> mKeepIndexes{false};
    LastMemory mLastMemory;

    // What other threads may look at; standing() tells.
    /** Request that each taken index was queued with last; its complement when it was refused. */
    std::atomic<int32_t> mHolders[kMaxBuffers] = {};
    std::atomic<bool> mQueueing{false};  ///< in VIDIOC_QBUF
    std::atomic<uint8_t> mDequeue{0};    ///< Standing::Dequeue
    std::atomic<uint32_t> mLostBuffers{0};
    std::atomic<uint32_t> mIndexWaiters{0};
    std::atomic<int64_t> mIndexWaitSince{0};
};

/** A snapshot, part by part, of a node that may be streaming. */
struct CORVANE_EXPORT V4L2VideoDevice::Standing {
    enum Dequeue : uint8_t {
        kNone,
        kInDriver,    ///< in VIDIOC_DQBUF
        kInCallback,  ///< in the callback of setDequeuedCallback()
    };
    /** A buffer index that is not free. */
    struct Buffer {
        unsigned index;
        int requestFd;    ///< that it was queued with last; of none before the first time
        bool wasRefused;  ///< by VIDIOC_QBUF; the index stays taken
    };
    int fd = -1;
    std::vector<Buffer> taken;
    bool isQueueing = false;  ///< a thread is in VIDIOC_QBUF
    uint32_t imported = 0;    ///< indexes
    uint32_t lost = 0;        ///< failed dequeues since the import, whose indexes are lost
    Dequeue dequeue = kNone;
    uint32_t indexWaiters = 0;   ///< threads that wait for a free index
    int64_t indexWaitSince = 0;  ///< the longest of these waits, CLOCK_MONOTONIC in nanoseconds
};

}  // namespace NSVista::NSCorvane
