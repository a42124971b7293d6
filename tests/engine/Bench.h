// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The virtual engine by bare ioctls: the kernel's where the environment has CORVANE_TEST_MODEL,
 * else the process's. Both have to answer alike. What a case needs of one side only, its fixture
 * says.
 */
#pragma once

#include <corvane/client/DmaBuf.h>
#include <corvane/kvxdip.h>
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/media.h>
#include <poll.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vengine-picture.h"

namespace NSVista::NSCorvane::test {

enum : unsigned { kMain, kInput, kMirror, kStats, kNegative, kTuning, kFlip, kGrey, kMask };

/** The engine under test and its test side. One at a time. */
class Bench {
public:
    Bench();
    ~Bench();
    static Bench& current();

    bool inProcess() const { return mEngine != nullptr; }
    System::Kernel& kernel() const { return inProcess() ? *mEngine : System::linuxKernel(); }
    /** In the process only, as device(). */
    sim::VirtualEngine& engine() const { return *mEngine; }
    sim::Device& device() const { return mEngine->device(); }
    /** Path of an entity's node; of the media device without a name. */
    std::string path(const std::string& entity) const;
    client::IDmaBufSource& source() const { return *mSource; }

    bool fault(const std::string& line) const;
    std::string faults() const;
    /** As the driver's parameters: n > 1 groups of n in reverse, -n shuffled. */
    void setOrder(int order, unsigned delayUs = 0) const;
    /** What the engine holds for its users, by name; nothing when nobody uses it. */
    std::string held() const;
    /** The private ioctls since the last call, as the driver's record has them. */
    std::string takeRecord() const;

private:
    std::unique_ptr<sim::VirtualEngine> mEngine;
    std::unique_ptr<client::IDmaBufSource> mSource;
};

/** @return 0 or what the ioctl gives, or the negated errno. */
int call(int fd, unsigned long code, void* arg = nullptr);
/** @return the events, 0 when there are none within the limit. */
short pollFor(int fd, short events, int milliseconds = 20000);
inline bool done(int request, int milliseconds = 20000) {
    return pollFor(request, POLLPRI, milliseconds) == POLLPRI;
}

class Fd {
public:
    explicit Fd(int fd = -1) : mFd(fd) {}
    explicit Fd(const std::string& entity, int flags = O_RDWR | O_NONBLOCK)
        : mFd(Bench::current().kernel().open(Bench::current().path(entity).c_str(), flags)) {}
    Fd(Fd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~Fd() {
        if (mFd >= 0)
            Bench::current().kernel().close(mFd);
    }
    operator int() const { return mFd; }

private:
    int mFd;
};

Fd newRequest(int media);
int setControl(int sub, int32_t value);
int subscribe(int sub, unsigned long code = VIDIOC_SUBSCRIBE_EVENT,
              uint32_t type = V4L2_EVENT_FRAME_SYNC);
uint32_t entityId(int media, const std::string& name);
int setLink(int media, unsigned port, uint32_t flags);

/** One node with its buffers: planes begin at an offset in dma-bufs that are longer than they. */
class Port {
public:
    static constexpr uint32_t kGuard = 128;

    Port(const vengine_port& port, std::string nodeName, unsigned buffers);

    uint32_t type() const { return desc.buf_type; }
    bool meta() const { return type() >= V4L2_BUF_TYPE_META_CAPTURE; }
    bool output() const { return V4L2_TYPE_IS_OUTPUT(type()); }
    bool multiplanar() const { return V4L2_TYPE_IS_MULTIPLANAR(type()); }
    uint32_t offset(size_t plane) const { return kGuard / (static_cast<uint32_t>(plane) + 1); }
    size_t bytes(size_t plane) const { return layout.sizeimage[plane] + 2 * kGuard; }
    /** The greatest offset of a plane in its dma-buf, which is whole pages long on a kernel. */
    uint32_t room(size_t plane) const {
        const size_t page = Bench::current().inProcess() ? 1 : 4096;
        return static_cast<uint32_t>((bytes(plane) + page - 1) / page * page) -
               layout.sizeimage[plane];
    }

    /** Opens the node, sets the format and asks for the buffers. @return how many were granted. */
    int prepare();
    int requestBuffers(unsigned wanted, uint32_t memoryType = V4L2_MEMORY_DMABUF);
    int stream(bool on);
    /**
     * Queues a buffer.
     * @param request negative for none.
     * @param change last changes to the record.
     */
    int queue(unsigned buffer, int request, const std::function<void(Port&)>& change = {});
    /** @return the buffer's index, -EIO for one with the error flag, or the negated errno. */
    int dequeue(uint32_t planeCount = VIDEO_MAX_PLANES);
    /** A whole dma-buf; the pages stay mapped, and nothing here has caches to be told of. */
    uint8_t* data(unsigned buffer, unsigned plane);
    vengine_picture picture(unsigned buffer);
    /**
     * Whether whole dma-bufs hold what a run makes of a source, and before, behind and between it
     * what they held.
     */
    bool shows(unsigned buffer, const vengine_source& source, uint32_t run = 0, uint8_t held = 0);

    const vengine_port& desc;
    const std::string name;
    unsigned count;
    vengine_layout layout;  ///< plane sizes also of a metadata node
    std::vector<client::DmaBuf> memory;
    Fd node;
    v4l2_buffer record = {};  ///< of the last queueing or dequeueing
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
};

/** A case for both sides; when it ends nobody may hold anything of the engine. */
class EngineTest : public testing::Test {
protected:
    ~EngineTest() override;

    /** A port, linked, with its format and buffers. */
    Port& add(unsigned number, unsigned buffers = 4);
    Port& start(unsigned number, unsigned buffers = 4);
    /** Queues a buffer of each port, then the request. @return the first failure. */
    static int submit(int request, const std::vector<Port*>& with, unsigned buffer);
    /** A request of its own that was submitted, or an invalid one. */
    Fd submitNew(const std::vector<Port*>& with, unsigned buffer);
    std::vector<Fd> submitAll(const std::vector<Port*>& with, unsigned buffers);
    /** One whole cycle of a request; the buffer's memory is as the engine left it. */
    int cycle(Port& port, unsigned buffer = 0);

    Bench bench;
    Fd media{""};
    std::deque<Port> ports;
};

/** A case that needs the process's own side: what it sets and counts the driver does not know. */
class ProcessTest : public EngineTest {
    void SetUp() override {
        if (!bench.inProcess())
            GTEST_SKIP() << "needs the engine in the process";
    }
};

}  // namespace NSVista::NSCorvane::test
