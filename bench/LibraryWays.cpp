// SPDX-License-Identifier: Apache-2.0
// The library as a client uses it: a scene by hand, or a session.
#include <corvane/DequeuedBuffer.h>
#include <corvane/IRequest.h>
#include <corvane/SceneControl.h>
#include <corvane/client/SceneSession.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>
#include <vector>

#include "Way.h"

namespace NSVista::NSCorvane::bench {

namespace {

class Library : public Way {
public:
    Library(Device& device, std::shared_ptr<IEventMonitor> monitor, bool direct)
        : Way(device),
          mScene(nullptr, device.desc(), device.media()),
          mEvents(std::move(monitor)),
          mSlots(mDevice.slots()) {
        // A worker dequeues after the callback; else the callback comes last.
        mEndsPerRequest = direct || device.ports() == 1 ? 1 : device.ports() + 1;
        require(mScene.init() == 0 && mScene.acquire() == 0, "a scene");
        // An index more than requests: who uses all up has each release warn and wake somebody.
        for (size_t i = 0; i < device.ports(); ++i)
            require(mScene.importBuffer(mScene.queryPort(static_cast<int>(i)),
                                        static_cast<int>(mDevice.slots()) + 1) == 0,
                    "an import");
        mScene.setDirectDequeue(direct);
        mScene.setRequestDoneCallback([this](IRequest* request) {
            const auto slot = reinterpret_cast<size_t>(request->getCookie());
            if (mEndsPerRequest == 1)
                watch.dequeued(slot);
            watch.called(slot);
            cameBack(slot);
        });
        if (mEndsPerRequest != 1)
            mScene.setBufferDequeuedCallback([this](const DequeuedBuffer& buffer) {
                const size_t slot = mSlotOfFd[static_cast<size_t>(buffer.requestFd)];
                if (--mSlots[slot].dequeuesToCome == 0)
                    watch.dequeued(slot);
                cameBack(slot);
            });
        require(mScene.start() == 0, "a start");
        for (size_t slot = 0; slot < mSlots.size(); ++slot) {
            mSlots[slot].request = mScene.createRequest();
            mSlots[slot].request->setCookie(reinterpret_cast<void*>(slot));
            mSlots[slot].request->setMonitor(mEvents);
            const auto fd = static_cast<size_t>(mSlots[slot].request->getRequestFD());
            mSlotOfFd.resize(std::max(mSlotOfFd.size(), fd + 1));
            mSlotOfFd[fd] = slot;
        }
    }
    ~Library() override {
        mEvents.reset();
        mScene.stop();
        mSlots.clear();
        mScene.release();
        mScene.uninit();
    }

    void run(uint64_t requests) override {
        mCountdown.start(requests, mSlots.size());
        for (size_t slot = 0; slot < std::min<uint64_t>(requests, mSlots.size()); ++slot)
            queue(slot);
        mCountdown.wait();
    }

private:
    struct Slot {
        std::shared_ptr<IRequest> request;
        std::atomic<size_t> endsToCome{0};
        size_t dequeuesToCome = 0;  ///< the worker's, while the request is under way
    };

    void queue(size_t slot) {
        watch.queued(slot);
        mSlots[slot].dequeuesToCome = mDevice.ports();
        mSlots[slot].endsToCome.store(mEndsPerRequest, std::memory_order_relaxed);
        for (size_t i = 0; i < mDevice.ports(); ++i) {
            const FrameBuffer& frame = mDevice.buffer(slot, i);
            mSlots[slot].request->addBuffer(static_cast<int>(i),
                                            [&frame](FrameBuffer& buffer) { buffer = frame; });
        }
        require(mScene.queueRequest(mSlots[slot].request.get(), 0) == 0, "a queue");
    }
    void cameBack(size_t slot) {
        if (mSlots[slot].endsToCome.fetch_sub(1, std::memory_order_acq_rel) == 1)
            if (mCountdown.next())
                queue(slot);
    }

    Scene mScene;
    std::shared_ptr<IEventMonitor> mEvents;
    std::vector<Slot> mSlots;
    std::vector<size_t> mSlotOfFd;  ///< by request descriptor
    size_t mEndsPerRequest;         ///< callback, and dequeues where they come later
    Countdown mCountdown;
};

class Session : public Way {
public:
    Session(Device& device, bool callback) : Way(device), mCallback(callback) {
        client::SessionDesc desc;
        desc.name = "bench";
        desc.buffers = static_cast<int>(device.slots());
        for (size_t i = 0; i < device.ports(); ++i)
            desc.ports.push_back({device.port(i).port_name, device.port(i).index,
                                  device.port(i).device_name, 0, 0, 0});
        for (const LinkDesc& link : device.links())
            desc.links.push_back(
                {link.source_entity, link.source_pad, link.sink_entity, link.sink_pad});
        const auto source = client::makeVideoNodeSource(Device::exporter(*device.media()));
        int error = 0;
        mSession = client::SceneSession::open(std::move(desc), device.media(), *source, error);
        require(mSession != nullptr, "a session");
        mSession->visitAll([](client::SessionRequest& request) {
            for (size_t i = 0; i < request.frameCount(); ++i)
                Device::prepare(i, request.frame(i));
        });
        if (callback)
            mSession->setDoneCallback([this](client::SessionRequest& request) {
                watch.called(slotOf(request));
                if (mCountdown.next())
                    require(mSession->submitAgain(request, mFill) == 0, "a submission");
            });
        require(mSession->start() == 0, "a session's start");
    }

    void run(uint64_t requests) override {
        if (mCallback) {
            mCountdown.start(requests, mDevice.slots());
            for (size_t i = 0; i < std::min<uint64_t>(requests, mDevice.slots()); ++i)
                require(mSession->submit(mFill) == 0, "a submission");
            mCountdown.wait();
            mSession->drain(std::chrono::seconds(10));  // a callback returns before it is free
            return;
        }
        uint64_t queued = 0;
        for (uint64_t done = 0; done < requests; ++done) {
            for (; queued < requests; ++queued)
                if (mSession->submit(mFill) != 0)
                    break;
            require(mSession->wait(std::chrono::seconds(10),
                                   [this](client::SessionRequest& request) {
                                       watch.called(slotOf(request));
                                   }) == 0,
                    "a wait");
        }
    }

private:
    size_t slotOf(const client::SessionRequest& request) const {
        return request.number() % mDevice.slots();
    }

    const bool mCallback;
    Countdown mCountdown;
    const std::function<void(client::SessionRequest&)> mFill =
        [this](client::SessionRequest& request) { watch.queued(slotOf(request)); };
    std::unique_ptr<client::SceneSession> mSession;
};

}  // namespace

std::unique_ptr<Way> makeLibrary(Device& device, std::shared_ptr<IEventMonitor> monitor,
                                 bool direct) {
    return std::make_unique<Library>(device, std::move(monitor), direct);
}

std::unique_ptr<Way> makeSession(Device& device, bool callback) {
    return std::make_unique<Session>(device, callback);
}

}  // namespace NSVista::NSCorvane::bench
