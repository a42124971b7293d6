// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A scene over a kernel that does nothing: what remains is the library's own work.
 */
#pragma once

#include <linux/videodev2.h>
#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <thread>

#include <corvane/IEventMonitor.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::test {

/** Grants everything at once; a node gives its buffers back in the order they were queued. */
class NullKernel : public System::Kernel {
public:
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> queued{0};
    std::atomic<uint64_t> dequeued{0};
    std::atomic<bool> hold{false};     ///< keeps a dequeue waiting
    std::atomic<bool> holding{false};  ///< a dequeue waits

    int open(const char*, int) override { return newFd(); }
    int close(int) override { return count(0); }
    int openDir(const char*, DIR**) override { return count(-ENOENT); }
    int readDir(DIR*, struct dirent**) override { return count(-EBADF); }
    int closeDir(DIR*) override { return count(-EBADF); }
    int stat(const char*, struct stat*) override { return count(-ENOENT); }
    int readLink(const char*, char*, size_t) override { return count(-ENOENT); }

    int ioctl(int fd, unsigned long request, void* arg) override {
        count(0);
        switch (request) {
            case VIDIOC_QUERYCAP:
                static_cast<v4l2_capability*>(arg)->capabilities =
                    V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING;
                return 0;
            case MEDIA_IOC_REQUEST_ALLOC:
                *static_cast<int*>(arg) = newFd();
                return 0;
            case VIDIOC_QBUF: {
                const auto* buffer = static_cast<v4l2_buffer*>(arg);
                Node& node = nodeOf(fd);
                const uint32_t head = node.head.load(std::memory_order_relaxed);
                node.ring[head % node.ring.size()] = {buffer->index, buffer->request_fd};
                node.head.store(head + 1, std::memory_order_release);
                queued.fetch_add(1, std::memory_order_relaxed);
                return 0;
            }
            case VIDIOC_DQBUF: {
                Node& node = nodeOf(fd);
                const uint32_t tail = node.tail.load(std::memory_order_relaxed);
                if (tail == node.head.load(std::memory_order_acquire))
                    return -EAGAIN;
                while (hold.load(std::memory_order_acquire))
                    holding.store(true, std::memory_order_release);
                auto* buffer = static_cast<v4l2_buffer*>(arg);
                const Queued& oldest = node.ring[tail % node.ring.size()];
                buffer->index = oldest.index;
                buffer->request_fd = oldest.requestFd;
                buffer->flags = V4L2_BUF_FLAG_REQUEST_FD;
                node.tail.store(tail + 1, std::memory_order_relaxed);
                dequeued.fetch_add(1, std::memory_order_release);
                return 0;
            }
            default:
                return 0;
        }
    }

private:
    static constexpr int kFirstFd = 1000;
    struct Queued {
        uint32_t index;
        int requestFd;
    };
    struct Node {
        std::array<Queued, 64> ring{};
        std::atomic<uint32_t> head{0};
        std::atomic<uint32_t> tail{0};
    };

    int count(int result) {
        calls.fetch_add(1, std::memory_order_relaxed);
        return result;
    }
    int newFd() {
        count(0);
        return kFirstFd + mOpened.fetch_add(1);
    }
    Node& nodeOf(int fd) { return mNodes.at(static_cast<size_t>(fd - kFirstFd)); }

    std::atomic<int> mOpened{0};
    std::array<Node, 64> mNodes;
};

/** Watches nothing: completions are made by hand. */
class NullEventMonitor : public IEventMonitor {
public:
    std::atomic<uint64_t> rearmed{0};
    IEventObserver* observer = nullptr;

    void dumpState(IPrinter*) const override {}
    const char* getThreadName() const override { return "null"; }
    int attachObserver(IEventObserver* attached, uint32_t) override {
        observer = attached;
        return 0;
    }
    int rearmObserver(IEventObserver*, uint32_t) override {
        rearmed.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    int detachObserver(IEventObserver*) override { return 0; }
};

/** A media device of nodes that exist for the NullKernel only. */
class NullMediaDevice : public IMediaDevice {
public:
    void dumpState(IPrinter*, signed char) const override {}
    std::shared_ptr<media_device_info> getDeviceInfo() const override { return nullptr; }
    bool hasEntity(const std::string&) const override { return true; }
    std::string getEntityDevnodePath(const std::string& name) const override { return name; }
    int acquire() override { return 0; }
    int release() override { return 0; }
    bool enableLink(bool, const char*, unsigned, const char*, unsigned) override { return true; }
    std::shared_ptr<IMediaRequest> makeRequest() override {
        return std::make_shared<mc::MediaRequest>(0);
    }
};

/** One started scene of @p ports ports over a NullKernel, with one request to cycle. */
class NullEngine {
public:
    static constexpr int kBuffers = 4;

    /**
     * @param direct dequeues on the completing thread.
     * @param shared the kernel of several; null for one of its own.
     */
    explicit NullEngine(int ports, bool direct = false, NullKernel* shared = nullptr)
        : mOwnKernel(shared != nullptr ? nullptr : new NullKernel),
          kernel(shared != nullptr ? *shared : *mOwnKernel),
          mPrevious(System::setKernel(&kernel)) {
        for (int i = 0; i < ports; ++i)
            mPorts.push_back({"port", i, "node", false, false, false});
        mDesc = {"null", nullptr, ports, mPorts.data(), 0, nullptr};
        mScene = std::make_unique<Scene>(nullptr, mDesc, std::make_shared<NullMediaDevice>());
        mScene->init();
        mScene->acquire();
        mScene->iteratePorts([this](const std::shared_ptr<IPort>& port) {
            return mScene->importBuffer(port, kBuffers) == 0;
        });
        mScene->setDirectDequeue(direct);
        mScene->setRequestDoneCallback([this](IRequest*) { ++completed; });
        mScene->start();
        mRequest = mScene->createRequest();
        mRequest->setMonitor(monitor);
    }
    ~NullEngine() {
        drain();
        mScene->stop();
        mRequest.reset();
        mScene->release();
        mScene->uninit();
        mScene.reset();
        System::setKernel(mPrevious);
    }

    /** Fills, queues and completes the request once. */
    void cycle() {
        for (const auto& port : mPorts)
            mRequest->addBuffer(port.index, [](FrameBuffer& buffer) {
                buffer.planes[0] = {3, 0, 4096};
                buffer.planeCount = 1;
            });
        mScene->queueRequest(mRequest.get(), 0);
        monitor->observer->onEvent({EPOLLPRI});
    }
    /** Waits until at most @p left buffers are to be dequeued by the worker. */
    void drain(uint64_t left = 0) const {
        while (kernel.dequeued.load(std::memory_order_acquire) + left <
               kernel.queued.load(std::memory_order_relaxed))
            std::this_thread::yield();
    }
    /** Makes the worker find all but one of the requests that can be in flight at once. */
    void fallBehind() {
        if (mPorts.size() == 1)
            return;
        kernel.hold = true;
        cycle();
        while (!kernel.holding.load(std::memory_order_acquire))
            std::this_thread::yield();
        for (int i = 1; i < kBuffers; ++i)
            cycle();
        kernel.hold = false;
        drain();
    }

private:
    std::unique_ptr<NullKernel> mOwnKernel;

public:
    NullKernel& kernel;
    std::shared_ptr<NullEventMonitor> monitor = std::make_shared<NullEventMonitor>();
    uint64_t completed = 0;

private:
    System::Kernel* mPrevious;
    std::vector<PortDesc> mPorts;
    SceneDesc mDesc{};
    std::unique_ptr<Scene> mScene;
    std::shared_ptr<IRequest> mRequest;
};

}  // namespace NSVista::NSCorvane::test
