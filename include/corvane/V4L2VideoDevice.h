/**
 * @file
 * The video device's implementation.
 */
#pragma once

#include <linux/videodev2.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

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
    /** The device must be closed (fatal). */
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

    std::string toString() const;
    /** VIDIOC_REQBUFS with count 0. @return 0 or the negated errno. */
    int releaseBuffer();
    /** The lowest free index, taken; blocks without a limit while none is free. */
    int acquireBufferIndex();
    /** Gives an index back and wakes queuers that wait for one. */
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

private:
    /** The memory that each index was last queued with. Any thread. */
    class LastMemory {
    public:
        static constexpr uint64_t kNone = ~uint64_t{0};

        LastMemory() { forget(); }
        static uint64_t of(const FrameBuffer& buffer);
        /** Forgets all memory; the count stays. */
        void forget();
        /** The bit of @p freeBits (not 0) that suits @p memory best. */
        uint64_t choose(uint64_t freeBits, uint64_t memory) const;
        /** Called by who holds the index. */
        void note(unsigned int index, uint64_t memory);
        uint32_t remapped() const { return mRemapped.load(std::memory_order_relaxed); }

    private:
        std::atomic<uint64_t> mMemory[kMaxBuffers];
        std::atomic<uint32_t> mRemapped{0};
    };

    /** A weak pointer that threads read while another replaces it. */
    class MonitorRef {
    public:
        std::shared_ptr<IV4L2BufferMonitor> lock() const;
        void store(const std::shared_ptr<IV4L2BufferMonitor>& monitor);

    private:
        void enter() const;
        void leave() const { mBusy.clear(std::memory_order_release); }

        mutable std::atomic_flag mBusy = ATOMIC_FLAG_INIT;  ///< held for a few instructions
        std::weak_ptr<IV4L2BufferMonitor> mMonitor;
    };

    bool isMultiPlanar() const;
    unsigned long fdOwner() const { return reinterpret_cast<unsigned long>(&mFd); }
    std::shared_ptr<V4L2VideoDevice> self(const char* operation);
    void readFormat(const v4l2_format& from, PixelFormat& to) const;
    void fillBuffer(const FrameBuffer& from, v4l2_buffer& to, v4l2_plane* planes) const;
    void reportRefusedBuffer(const v4l2_buffer& refused, const FrameBuffer& buffer, int ret) const;
    int requestBuffers(unsigned int count, unsigned int memory, unsigned int& granted);
    int acquireIndexFor(uint64_t memory);
    void waitForFreeIndex();
    void tellDequeued(const v4l2_buffer& buffer, int result) const;

    const int32_t mPortIndex;
    const std::string mName;
    const std::string mDevnodePath;
    int32_t mFd = -1;
    uint32_t mCaps = 0;
    uint32_t mMemory = 0;
    uint32_t mBufType = 0;
    MonitorRef mMonitor;
    std::atomic<bool> mQueued{false};
    std::atomic<uint32_t> mReqBufCount{0};
    std::unique_ptr<uint64_t[]> mSlots CORVANE_GUARDED_BY(mSlotsMutex);
    mutable Mutex mSlotsMutex;
    std::atomic<uint64_t> mFreeBits{0};
    Mutex mFreeMutex;
    std::condition_variable mFreeCond;
    std::function<void(const DequeuedBuffer&)> mDequeued;
    std::atomic<bool> mKeepIndexes{false};
    LastMemory mLastMemory;
};

}  // namespace NSVista::NSCorvane
