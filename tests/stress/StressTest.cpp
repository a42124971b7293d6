// SPDX-License-Identifier: Apache-2.0
// Scenes of two devices are built, streamed, failed and torn down on one event monitor, while other
// threads look at everything there is to be looked at.
#include <corvane/DequeuedBuffer.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/SceneManager.h>
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/client/SessionRequest.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/System.h>
#include <corvane/platform/ULog.h>
#include <corvane/sim/Engine.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kModels[] = {"stress-0", "stress-1"};
constexpr int kBuffers = 4;
/** Set where the library reports on the thread that met a refused driver call. */
thread_local bool sReported = false;

class Random {
public:
    explicit Random(unsigned seed) : mEngine(seed) {}
    /** 0 to @p limit - 1. */
    unsigned below(unsigned limit) {
        return std::uniform_int_distribution<unsigned>(0, limit - 1)(mEngine);
    }

private:
    std::mt19937 mEngine;
};

/** Has everything formatted and keeps nothing. */
class Discarding : public IPrinter {
public:
    void printLine(const char* text) override { length += std::string(text).size(); }
    size_t length = 0;
};

/** What the looking threads see of a worker. */
struct Shown {
    std::mutex lock;
    std::shared_ptr<Scene> scene;
    std::vector<std::shared_ptr<IRequest>> requests;
};

/** One thread's scenes over some ports of a device, one after the other. */
class Worker {
public:
    Worker(SceneManager& manager, std::shared_ptr<client::EpollEventMonitor> events,
           unsigned number)
        : mManager(manager),
          mEvents(std::move(events)),
          mRandom(number),
          mName("scene-" + std::to_string(number)),
          mModel(kModels[number % 2]) {
        for (unsigned port = number / 2; port < VENGINE_PORTS; port += 3) {
            const char* const entity = vengine_ports[port].name;
            mPorts.push_back({entity, static_cast<int>(port), entity, false, false, false});
            if (V4L2_TYPE_IS_OUTPUT(vengine_ports[port].buf_type))
                mLinks.push_back({entity, 0, VENGINE_CORE_ENTITY, port});
            else
                mLinks.push_back({VENGINE_CORE_ENTITY, port, entity, 0});
        }
        mDesc = {mName.c_str(),
                 nullptr,
                 static_cast<int32_t>(mPorts.size()),
                 mPorts.data(),
                 static_cast<int32_t>(mLinks.size()),
                 mLinks.data()};
    }

    /** One scene's life. */
    void live() {
        const auto media = IDeviceEnumerator::instance().search(mModel);
        if (media->acquire() != 0)
            return;
        auto scene = std::make_shared<Scene>(mManager.getDebugInfo(mName), mDesc, media);
        {
            const std::lock_guard lock(shown.lock);
            shown.scene = scene;
        }
        mManager.addScene(mName, scene);
        if (scene->init() == 0) {
            scene->acquire();
            if (prepare(*scene))
                stream(*scene);
            scene->release();
            scene->uninit();
        }
        mManager.delScene(mName);
        {
            const std::lock_guard lock(shown.lock);
            shown.requests.clear();
            shown.scene.reset();
        }
        mFrames.clear();
        scene.reset();
        media->release();
        ++scenes;
    }

    Shown shown;
    std::atomic<uint64_t> scenes{0};
    std::atomic<uint64_t> completed{0};
    std::atomic<uint64_t> dequeued{0};

private:
    bool prepare(Scene& scene) {
        std::vector<PixelFormat> formats;
        for (const auto& desc : mPorts) {
            const auto port = scene.queryPort(desc.index);
            PixelFormat format{};
            if (scene.getFormat(port, format) != 0)
                return false;
            format.width = 64;
            format.height = 16;
            if (scene.setFormat(port, format) != 0 || scene.importBuffer(port, kBuffers) != 0)
                return false;
            formats.push_back(format);
        }
        const std::lock_guard lock(shown.lock);
        for (size_t slot = 0; slot < kBuffers; ++slot) {
            auto& frames = mFrames.emplace_back(formats.size());
            for (size_t i = 0; i < formats.size(); ++i)
                EXPECT_EQ(frames[i].allocate(formats[i], {}, *mSource), 0);
            auto request = scene.createRequest();
            request->setCookie(reinterpret_cast<void*>(slot));
            request->setMonitor(mEvents);
            shown.requests.push_back(std::move(request));
        }
        return true;
    }

    void stream(Scene& scene) {
        scene.setDirectDequeue(mRandom.below(2) == 0);
        scene.setKeepIndexes(mRandom.below(2) == 0);
        scene.setBufferDequeuedCallback([this](const DequeuedBuffer&) { ++dequeued; });
        mIdle = {0, 1, 2, 3};
        scene.setRequestDoneCallback([this](IRequest* request) {
            const std::lock_guard lock(mLock);
            mIdle.push_back(reinterpret_cast<size_t>(request->getCookie()));
            mDone.notify_all();
            ++completed;
        });
        sReported = false;
        scene.start();
        // A node that did not stream on would never complete what it is given.
        for (unsigned cycles = sReported ? 0 : mRandom.below(60); cycles != 0; --cycles)
            if (const int slot = waitIdle(1); slot < 0 || !queue(scene, static_cast<size_t>(slot)))
                break;
        waitIdle(mQueueable);
        mQueueable = kBuffers;
        scene.stop();
    }

    /** Waits for @p count idle requests. @return one of them, taken out when @p count is 1. */
    int waitIdle(size_t count) {
        std::unique_lock lock(mLock);
        if (!mDone.wait_for(lock, 20s, [&] { return mIdle.size() >= count; })) {
            ADD_FAILURE() << mName << ": " << mIdle.size() << " of " << count << " requests done";
            return -1;
        }
        const auto slot = static_cast<int>(mIdle.front());
        if (count == 1)
            mIdle.erase(mIdle.begin());
        return slot;
    }

    bool queue(Scene& scene, size_t slot) {
        IRequest& request = *shown.requests[slot];
        for (size_t i = 0; i < mPorts.size(); ++i)
            request.addBuffer(mPorts[i].index, [this, slot, i](FrameBuffer& buffer) {
                buffer = mFrames[slot][i].buffer();
            });
        if (scene.queueRequest(&request, 0) == 0)
            return true;
        --mQueueable;
        return false;
    }

    SceneManager& mManager;
    std::shared_ptr<client::EpollEventMonitor> mEvents;
    Random mRandom;
    const std::string mName;
    const std::string mModel;
    std::vector<PortDesc> mPorts;
    std::vector<LinkDesc> mLinks;
    SceneDesc mDesc{};
    std::unique_ptr<client::IDmaBufSource> mSource = client::makeMemoryFileSource();
    std::vector<std::vector<client::Frame>> mFrames;  ///< per request, per port
    size_t mQueueable = kBuffers;                     ///< requests whose queueing was not refused
    std::mutex mLock;
    std::condition_variable mDone;
    std::vector<size_t> mIdle;
};

/** Looks at what a worker shows. */
void look(Worker& worker, IPrinter& printer) {
    std::shared_ptr<Scene> scene;
    std::vector<std::shared_ptr<IRequest>> requests;
    {
        const std::lock_guard lock(worker.shown.lock);
        scene = worker.shown.scene;
        requests = worker.shown.requests;
    }
    for (const auto& request : requests) {
        printer.printLine(request->toString().c_str());
        EXPECT_EQ(request->getStatus(), 0);
        EXPECT_GE(request->getRequestFD(), 0);
        EXPECT_NE(request->getDebugInfo(), nullptr);
        request->getCookie();
        request->getTrackBuffer();
    }
    if (scene == nullptr)
        return;
    scene->dumpState(&printer);
    scene->getNumOfPorts();
    scene->iteratePorts([&printer](const std::shared_ptr<IPort>& port) {
        printer.printLine(port->toString().c_str());
        if (const auto device = std::static_pointer_cast<Port>(port)->getVideoDevice())
            device->dumpState(&printer);
        port->dumpState(&printer);
        return true;
    });
}

/** Makes driver calls fail that a client survives, and changes when requests complete. */
void disturb(sim::Engine& engine, std::vector<sim::Device*>& devices, Random& random) {
    constexpr unsigned long kCalls[] = {VIDIOC_QUERYCAP, VIDIOC_G_FMT,     VIDIOC_S_FMT,
                                        VIDIOC_REQBUFS,  VIDIOC_QBUF,      VIDIOC_DQBUF,
                                        VIDIOC_STREAMON, VIDIOC_STREAMOFF, MEDIA_IOC_SETUP_LINK};
    constexpr sim::Order kOrders[] = {sim::Order::IN_ORDER, sim::Order::REVERSED,
                                      sim::Order::RANDOM};
    sim::Faults& faults = engine.faults();
    faults.clear();
    faults.fail(sim::Call::ioctl(kCalls[random.below(std::size(kCalls))]), EIO,
                1 + random.below(100));
    if (random.below(4) == 0)
        faults.fail({.operation = sim::Operation::OPEN}, EBUSY, 1 + random.below(8));
    sim::Device& device = *devices[random.below(2)];
    device.failBuffer(vengine_ports[random.below(VENGINE_PORTS)].name, 1 + random.below(50));
    device.setTiming({.latency = std::chrono::microseconds(random.below(300)),
                      .jitter = std::chrono::microseconds(random.below(300)),
                      .order = kOrders[random.below(3)],
                      .group = 1 + random.below(3),
                      .patience = 2ms,
                      .seed = random.below(1000)});
}

std::chrono::seconds duration() {
    const char* const seconds = getenv("CORVANE_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 3);
}

TEST(Stress, SurvivesFaultsAndLookersOnWhileScenesComeAndGo) {
    sim::Engine engine;
    std::vector<sim::Device*> devices;
    for (const char* model : kModels)
        devices.push_back(engine.addDevice(sim::describeVirtualEngine(model)));
    const sim::ScopedKernel installed(engine);
    for (const char* model : kModels)
        ASSERT_NE(IDeviceEnumerator::instance().search(model), nullptr);
    Utils::ULog::RingULogger log{100};
    Utils::ULog::ULogger::install(&log);
    Utils::setExceptionHandler([](const char*, const char*) {});
    Utils::setTerminateHandler([] { sReported = true; });
    {
        SceneManager manager;
        const auto events = client::EpollEventMonitor::make();
        std::vector<std::unique_ptr<Worker>> workers;
        for (unsigned number = 0; number < 6; ++number)
            workers.push_back(std::make_unique<Worker>(manager, events, number));
        std::atomic<bool> over{false};
        const auto untilOver = [&over](auto body) {
            return std::thread([&over, body]() mutable {
                while (!over)
                    body();
            });
        };
        std::vector<std::thread> threads;
        for (const auto& worker : workers)
            threads.push_back(untilOver([&worker] { worker->live(); }));
        threads.push_back(untilOver([&, random = Random(7)]() mutable {
            disturb(engine, devices, random);
            std::this_thread::sleep_for(5ms);
        }));
        threads.push_back(untilOver([&, printer = Discarding()]() mutable {
            manager.dumpState(&printer);
            events->dumpState(&printer);
            System::dumpState(&printer);
        }));
        threads.push_back(untilOver([&, printer = Discarding()]() mutable {
            for (const auto& worker : workers)
                look(*worker, printer);
        }));
        std::this_thread::sleep_for(duration());
        over = true;
        for (auto& thread : threads)
            thread.join();
        for (const auto& worker : workers) {
            EXPECT_GT(worker->scenes, 0U);
            EXPECT_GT(worker->completed, 0U);
            EXPECT_GT(worker->dequeued, worker->completed);
            printf("%lu scenes, %lu requests\n", worker->scenes.load(), worker->completed.load());
        }
    }
    Utils::setTerminateHandler(nullptr);
    Utils::setExceptionHandler(nullptr);
    Utils::ULog::ULogger::install(nullptr);
    EXPECT_TRUE(System::openFds().empty());
    EXPECT_EQ(engine.openFiles(), 0U);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
