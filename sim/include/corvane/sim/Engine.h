// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The virtual engine: a kernel in the process, with media devices that no machine needs to have.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>
#include <corvane/platform/System.h>
#include <corvane/sim/Description.h>
#include <corvane/sim/Faults.h>

namespace NSVista::NSCorvane::sim {

class DeviceCore;

/** The order in which requests in flight complete. */
enum class Order {
    IN_ORDER,  ///< as they were queued
    REVERSED,  ///< the last of each group first
    RANDOM,    ///< each group shuffled
};

/** When requests complete. */
struct Timing {
    std::chrono::nanoseconds latency{0};  ///< from the queueing to the earliest completion
    std::chrono::nanoseconds jitter{0};   ///< up to this much more, at random
    Order order = Order::IN_ORDER;
    unsigned group = 1;  ///< requests of one group, for REVERSED and RANDOM
    /** A group that stays short completes when its oldest request is overdue by this much. */
    std::chrono::nanoseconds patience{std::chrono::milliseconds(200)};
    uint32_t seed = 1;  ///< of the jitter and the shuffling
    /** Requests that are due complete on the queueing thread, inside MEDIA_REQUEST_IOC_QUEUE. */
    bool onQueueingThread = false;
};

/** What a device holds and has done. */
struct DeviceCounts {
    uint64_t queued = 0;      ///< requests accepted by MEDIA_REQUEST_IOC_QUEUE
    uint64_t completed = 0;   ///< requests processed to their end
    uint64_t cancelled = 0;   ///< requests that a stream-off ended
    uint64_t remaps = 0;      ///< planes for which another dma-buf replaced the one at their index
    size_t inFlight = 0;      ///< requests queued and neither completed nor cancelled
    size_t requests = 0;      ///< media requests alive
    size_t openFiles = 0;     ///< descriptors open on the device, its nodes and its requests
    size_t mappedPlanes = 0;  ///< dma-bufs that queues hold
};

/** A private ioctl as it was sent to the sub-device. */
struct IoctlRecord {
    uint32_t code;
    std::vector<uint8_t> bytes;  ///< as many as the code's size field says

    bool operator==(const IoctlRecord&) const = default;
};

/** What the sub-device's driver holds for its callers and has been told. */
struct SubDeviceCounts {
    size_t kva = 0;            ///< mappings into the kernel's address space
    size_t iova = 0;           ///< mappings into the device's address space
    size_t fences = 0;         ///< references to fences that were handed out
    size_t memory = 0;         ///< memory requests allocated and not freed
    size_t subscriptions = 0;  ///< event subscriptions
    size_t leftAtClose = 0;    ///< of all the above, given back only by the close
    uint64_t eventsDropped = 0;
    uint64_t cleared = 0;  ///< calls that cleared a user's instance
};

/** The test's side of one virtual media device. Any thread. Lives as long as its engine. */
class CORVANE_EXPORT Device {
public:
    explicit Device(std::unique_ptr<DeviceCore> core);
    ~Device();

    /** Path of the media device node. */
    std::string path() const;
    /** Path of an entity's node, empty without one. */
    std::string nodePath(const std::string& entity) const;

    /** Most buffers that VIDIOC_REQBUFS grants every node: 1 to 64; at first what they say. */
    void setBufferLimit(unsigned limit);
    /** Sets when requests complete, those in flight included where they wait for a group. */
    void setTiming(const Timing& timing);
    /** Completes nothing more until completeNext() or resume(). */
    void hold();
    /** While held: lets @p count requests complete as soon as they can. */
    void completeNext(unsigned count = 1);
    /** Ends hold(). */
    void resume();
    /** Makes the @p nth buffer from now that @p entity's node completes carry the error flag. */
    void failBuffer(const std::string& entity, unsigned nth = 1);

    /** The link's flags now (MEDIA_LNK_FL_*), or a negated errno for an unknown link. */
    int linkFlags(const std::string& source, uint32_t sourcePad, const std::string& sink,
                  uint32_t sinkPad) const;
    /** The number that the next queued request will have, which is that of its test picture. */
    uint32_t nextFrame() const;
    DeviceCounts counts() const;

    /** @name The sub-device (the first where there are several; nothing where there is none)
     * @{ */
    SubDeviceCounts subDeviceCounts() const;
    /** Every private ioctl sent since the last call, also those refused or made to fail. */
    std::vector<IoctlRecord> takeIoctlRecords();
    /** @} */

private:
    friend class Engine;
    std::unique_ptr<DeviceCore> mCore;
};

/** The order in which "/dev" lists its nodes. */
enum class DirectoryOrder { NEWEST_FIRST, OLDEST_FIRST };

/**
 * A kernel of virtual media devices. It behaves like Linux in results, flags, ordering and
 * lifetimes for everything that streaming with media requests uses. Its descriptors are real ones:
 * they can be polled and duplicated and must be closed through this kernel. Descriptors, paths and
 * directories that are not the engine's go on to the Linux kernel; only "/dev" and "/sys/dev/char"
 * are the engine's alone, so that a machine's own devices never mix with virtual ones.
 *
 * A media request's descriptor shows EPOLLPRI from its completion to its reinitialisation, a
 * sub-device's while events are pending. Of the kernel's own answers these cannot be had: an idle
 * request shows nothing where Linux shows EPOLLERR, and a watch that does not ask for EPOLLPRI
 * works normally afterwards.
 *
 * Nodes that capture video have the standard control V4L2_CID_BRIGHTNESS, added to the luma of the
 * node's pictures: at once, or of a request for its frame and from then on.
 *
 * Any dma-buf that can be mapped serves: memory files as well as real ones.
 */
class CORVANE_EXPORT Engine : public System::Kernel {
public:
    Engine();
    /** Completes nothing more and closes every descriptor still open. */
    ~Engine() override;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /**
     * Adds a media device with its nodes.
     * @return the device, owned by the engine; null when a link names an entity or a pad that the
     *         description does not have, or a node's name or number is taken.
     */
    Device* addDevice(const DeviceDesc& description);
    void setDirectoryOrder(DirectoryOrder order);
    Faults& faults();
    /** Descriptors of the engine that are open. */
    size_t openFiles() const;

    int open(const char* path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int openDir(const char* path, DIR** dir) override;
    int readDir(DIR* dir, struct dirent** entry) override;
    int closeDir(DIR* dir) override;
    int stat(const char* path, struct stat* info) override;
    int readLink(const char* path, char* buffer, size_t size) override;

private:
    struct State;
    std::unique_ptr<State> mState;
};

/** An engine with one device. */
class CORVANE_EXPORT VirtualEngine : public Engine {
public:
    /** The virtual engine of vengine-desc.h. @param model in place of its own name. */
    explicit VirtualEngine(const char* model = nullptr);
    /** A device as it is described, by readDescription() for one. */
    explicit VirtualEngine(const DeviceDesc& description);

    /** False of a description that addDevice() refuses; there is no device() then. */
    explicit operator bool() const { return mDevice != nullptr; }
    Device& device() { return *mDevice; }

private:
    Device* mDevice;
};

/** Installs a kernel for as long as it lives. */
class CORVANE_EXPORT ScopedKernel {
public:
    explicit ScopedKernel(System::Kernel& kernel) : mPrevious(System::setKernel(&kernel)) {}
    ~ScopedKernel() { System::setKernel(mPrevious); }
    ScopedKernel(const ScopedKernel&) = delete;
    ScopedKernel& operator=(const ScopedKernel&) = delete;

private:
    System::Kernel* mPrevious;
};

}  // namespace NSVista::NSCorvane::sim
