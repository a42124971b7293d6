// SPDX-License-Identifier: Apache-2.0
// What a client without the library does: the system calls that a request needs, and no more.
#include <corvane/platform/UniqueFd.h>
#include <fcntl.h>
#include <linux/media.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <deque>
#include <stop_token>
#include <thread>

#include "Way.h"

namespace NSVista::NSCorvane::bench {

void (*noteQueuedBuffer)(int node, const v4l2_buffer& buffer) = nullptr;

namespace {

constexpr uint32_t kWatched = static_cast<uint32_t>(EPOLLPRI) | EPOLLONESHOT;
constexpr uint32_t kStop = ~uint32_t{0};

/** The device streaming, and each step of a request as system calls; a slot's index is its own. */
class BareDevice {
public:
    explicit BareDevice(Device& device) : mDevice(device), mEpoll(epoll_create1(EPOLL_CLOEXEC)) {
        setLinks(true);
        for (size_t i = 0; i < device.ports(); ++i) {
            mNodes.emplace_back(open(device.node(i).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
            v4l2_requestbuffers request = {};
            request.count = static_cast<uint32_t>(mDevice.slots());
            request.type = device.bufferType(i);
            request.memory = V4L2_MEMORY_DMABUF;
            require(ioctl(mNodes[i].get(), VIDIOC_REQBUFS, &request) == 0, "VIDIOC_REQBUFS");
        }
        stream(VIDIOC_STREAMON, "VIDIOC_STREAMON");
        const UniqueFd media(open(device.mediaNode().c_str(), O_RDWR | O_CLOEXEC));
        for (size_t slot = 0; slot < mDevice.slots(); ++slot) {
            int request = -1;
            require(ioctl(media.get(), MEDIA_IOC_REQUEST_ALLOC, &request) == 0, "a request");
            mRequests.emplace_back(request);
            mWatchOperations.push_back(EPOLL_CTL_ADD);
        }
    }
    ~BareDevice() {
        stream(VIDIOC_STREAMOFF, "VIDIOC_STREAMOFF");
        mNodes.clear();
        setLinks(false);
    }
    BareDevice(const BareDevice&) = delete;
    BareDevice& operator=(const BareDevice&) = delete;

    int epoll() const { return mEpoll.get(); }

    void queue(size_t slot) {
        for (size_t i = 0; i < mNodes.size(); ++i)
            queueBuffer(i, slot);
        require(ioctl(mRequests[slot].get(), MEDIA_REQUEST_IOC_QUEUE) == 0, "a request's queue");
        epoll_event event{kWatched, {.u32 = static_cast<uint32_t>(slot)}};
        require(epoll_ctl(mEpoll.get(), mWatchOperations[slot], mRequests[slot].get(), &event) == 0,
                "a watch");
        mWatchOperations[slot] = EPOLL_CTL_MOD;
    }
    void reinit(size_t slot) {
        require(ioctl(mRequests[slot].get(), MEDIA_REQUEST_IOC_REINIT) == 0, "a re-init");
    }
    void dequeue() {
        for (size_t i = 0; i < mNodes.size(); ++i) {
            v4l2_plane planes[FrameBuffer::kMaxPlanes];
            v4l2_buffer buffer = {};
            buffer.type = mDevice.bufferType(i);
            buffer.memory = V4L2_MEMORY_DMABUF;
            if (v4l2::isMultiPlanar(buffer.type)) {
                buffer.m.planes = planes;
                buffer.length = FrameBuffer::kMaxPlanes;
            }
            require(ioctl(mNodes[i].get(), VIDIOC_DQBUF, &buffer) == 0, "VIDIOC_DQBUF");
        }
    }

private:
    void queueBuffer(size_t port, size_t slot) {
        const FrameBuffer& frame = mDevice.buffer(slot, port);
        v4l2_plane planes[FrameBuffer::kMaxPlanes] = {};
        v4l2_buffer buffer = {};
        buffer.type = mDevice.bufferType(port);
        buffer.memory = V4L2_MEMORY_DMABUF;
        buffer.index = static_cast<uint32_t>(slot);
        buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
        buffer.request_fd = mRequests[slot].get();
        if (v4l2::isMultiPlanar(buffer.type)) {
            for (size_t i = 0; i < frame.planeCount; ++i) {
                planes[i].m.fd = frame.planes[i].fd;
                planes[i].length = planes[i].bytesused = frame.planes[i].bufsize;
            }
            buffer.m.planes = planes;
            buffer.length = static_cast<uint32_t>(frame.planeCount);
        } else {
            buffer.m.fd = frame.planes[0].fd;
            buffer.length = buffer.bytesused = frame.planes[0].bufsize;
        }
        if (noteQueuedBuffer != nullptr)
            noteQueuedBuffer(mNodes[port].get(), buffer);
        require(ioctl(mNodes[port].get(), VIDIOC_QBUF, &buffer) == 0, "VIDIOC_QBUF");
    }
    void stream(unsigned long request, const char* what) {
        for (size_t i = 0; i < mNodes.size(); ++i) {
            auto type = static_cast<int>(mDevice.bufferType(i));
            require(ioctl(mNodes[i].get(), request, &type) == 0, what);
        }
    }
    void setLinks(bool on) {
        for (const LinkDesc& link : mDevice.links())
            require(mDevice.media()->enableLink(on, link.source_entity, link.source_pad,
                                                link.sink_entity, link.sink_pad),
                    "a link");
    }

    Device& mDevice;
    UniqueFd mEpoll;
    std::vector<UniqueFd> mNodes;
    std::vector<UniqueFd> mRequests;
    std::vector<int> mWatchOperations;  ///< per request: an idle one would report an error
};

class Bare : public Way {
public:
    Bare(Device& device, bool company) : Way(device), mBare(device) {
        if (company)
            mCompany = std::jthread([](const std::stop_token& stop) {
                std::mutex lock;
                std::unique_lock held(lock);
                std::condition_variable_any().wait(held, stop, [] { return false; });
            });
    }

    void run(uint64_t requests) override {
        uint64_t queued = 0;
        for (; queued < std::min<uint64_t>(requests, mDevice.slots()); ++queued)
            queue(queued);
        for (uint64_t done = 0; done < requests;) {
            epoll_event events[16];
            const int count = epoll_wait(mBare.epoll(), events, 16, -1);
            for (int i = 0; i < count; ++i, ++done) {
                const uint32_t slot = events[i].data.u32;
                mBare.reinit(slot);
                mBare.dequeue();
                watch.dequeued(slot);
                watch.called(slot);
                if (queued < requests) {
                    ++queued;
                    queue(slot);
                }
            }
        }
    }

private:
    void queue(size_t slot) {
        watch.queued(slot);
        mBare.queue(slot);
    }
    BareDevice mBare;
    std::jthread mCompany;
};

class HandOver : public Way {
public:
    explicit HandOver(Device& device) : Way(device), mBare(device), mStop(eventfd(0, EFD_CLOEXEC)) {
        epoll_event event{EPOLLIN, {.u32 = kStop}};
        require(epoll_ctl(mBare.epoll(), EPOLL_CTL_ADD, mStop.get(), &event) == 0, "a watch");
        mEvents = std::thread([this] { watchRequests(); });
        mWorker = std::thread([this] { work(); });
    }
    ~HandOver() override {
        eventfd_write(mStop.get(), 1);
        mEvents.join();
        handOver(kStop);
        mWorker.join();
    }

    void run(uint64_t requests) override {
        mCountdown.start(requests, mDevice.slots());
        for (size_t slot = 0; slot < std::min<uint64_t>(requests, mDevice.slots()); ++slot)
            queue(slot);
        mCountdown.wait();
    }

private:
    void queue(size_t slot) {
        watch.queued(slot);
        mBare.queue(slot);
    }
    void handOver(uint32_t slot) {
        {
            const std::lock_guard lock(mLock);
            mFinished.push_back(slot);
        }
        mChanged.notify_one();
    }
    void watchRequests() {
        while (true) {
            epoll_event events[16];
            const int count = epoll_wait(mBare.epoll(), events, 16, -1);
            for (int i = 0; i < count; ++i) {
                const uint32_t slot = events[i].data.u32;
                if (slot == kStop)
                    return;
                mBare.reinit(slot);
                watch.called(slot);
                handOver(slot);
            }
        }
    }
    void work() {
        while (true) {
            uint32_t slot = 0;
            {
                std::unique_lock lock(mLock);
                mChanged.wait(lock, [this] { return !mFinished.empty(); });
                slot = mFinished.front();
                mFinished.pop_front();
            }
            if (slot == kStop)
                return;
            mBare.dequeue();
            watch.dequeued(slot);
            if (mCountdown.next())
                queue(slot);
        }
    }

    BareDevice mBare;
    UniqueFd mStop;
    Countdown mCountdown;
    std::mutex mLock;
    std::condition_variable mChanged;
    std::deque<uint32_t> mFinished;
    std::thread mEvents;
    std::thread mWorker;
};

}  // namespace

std::unique_ptr<Way> makeBare(Device& device, bool company) {
    return std::make_unique<Bare>(device, company);
}

std::unique_ptr<Way> makeHandOver(Device& device) {
    return std::make_unique<HandOver>(device);
}

}  // namespace NSVista::NSCorvane::bench
