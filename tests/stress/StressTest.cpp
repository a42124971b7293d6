// SPDX-License-Identifier: Apache-2.0
// Scenes and sessions of three devices are built, streamed, failed and torn down at any moment,
// some on one event monitor, while other threads look at everything there is to be looked at and
// calls of the kernel give way to other threads at random.
//   corvane_stress [--seconds N] [--seed N]
#include <corvane/DequeuedBuffer.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/SceneManager.h>
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/client/SceneSession.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/System.h>
#include <corvane/platform/ULog.h>
#include <corvane/sim/Engine.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "support/PassingKernel.h"
#include "support/SceneDescs.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/** The last one is for sessions. */
constexpr const char* kModels[] = {"stress-0", "stress-1", "stress-2"};
constexpr int kBuffers = 4;
/** Set where the library reports on the thread that met a refused driver call. */
thread_local bool sReported = false;

std::chrono::seconds sDuration{3};
unsigned sSeed = 1;

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

/** Lets other threads run around calls of the kernel, at random. */
class YieldingKernel : public PassingKernel {
public:
    using PassingKernel::PassingKernel;

    int open(const char* path, int flags) override {
        return yielding([&] { return mKernel.open(path, flags); });
    }
    int close(int fd) override {
        return yielding([&] { return mKernel.close(fd); });
    }
    int ioctl(int fd, unsigned long request, void* arg) override {
        return yielding([&] { return mKernel.ioctl(fd, request, arg); });
    }
    int readLink(const char* path, char* buffer, size_t size) override {
        return yielding([&] { return mKernel.readLink(path, buffer, size); });
    }

private:
    template <class Call>
    static int yielding(Call call) {
        giveWay();
        const int result = call();
        const int error = errno;
        giveWay();
        errno = error;
        return result;
    }
    static void giveWay() {
        static std::atomic<unsigned> threads{0};
        thread_local Random random(sSeed * 1000 + threads++);
        if (const unsigned die = random.below(64); die == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(random.below(300)));
        else if (die < 16)
            std::this_thread::yield();
    }
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
    /** @param events shared with others; null for one of each scene's own. */
    Worker(SceneManager& manager, std::shared_ptr<client::EpollEventMonitor> events,
           unsigned number)
        : mManager(manager),
          mShared(std::move(events)),
          mRandom(sSeed + number),
          mName("scene-" + std::to_string(number)),
          mModel(kModels[number % 2]),
          mDesc(engineSession(mName, VENGINE_PORTS, number / 2, 3)) {}

    /** One scene's life. */
    void live() {
        const auto media = IDeviceEnumerator::instance().search(mModel);
        if (media->acquire() != 0)
            return;
        auto scene = std::make_shared<Scene>(mManager.getDebugInfo(mName), mDesc.scene, media);
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
        for (const auto& desc : mDesc.ports) {
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
        mEvents = mShared != nullptr ? mShared : client::EpollEventMonitor::make();
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
        scene.setBufferDequeuedCallback([this](const DequeuedBuffer& buffer) {
            ++dequeued;
            const std::lock_guard lock(mLock);
            ++mDequeued;
            mIsLost = mIsLost || buffer.result < 0;
            mDone.notify_all();
        });
        mIdle = {0, 1, 2, 3};
        mQueueable = kBuffers;
        mIsLost = false;
        mCompleted = mDequeued = 0;
        scene.setRequestDoneCallback([this](IRequest* request) {
            const std::lock_guard lock(mLock);
            mIdle.push_back(reinterpret_cast<size_t>(request->getCookie()));
            ++mCompleted;
            mDone.notify_all();
            ++completed;
        });
        sReported = false;
        scene.start();
        // A node that did not stream on would never complete what it is given.
        const auto queueSome = [this, &scene](unsigned cycles) {
            for (; cycles != 0 && !mIsLost; --cycles)
                if (const int slot = waitIdle(1);
                    slot < 0 || !queue(scene, static_cast<size_t>(slot)))
                    break;
        };
        std::thread other(queueSome, sReported ? 0 : mRandom.below(30));
        queueSome(sReported ? 0 : mRandom.below(30));
        other.join();
        if (mShared != nullptr || mRandom.below(2) == 0)
            waitIdle(mQueueable);
        mEvents.reset();
        if (mShared == nullptr)
            waitDequeued();
        scene.stop();
    }

    /** Without an event monitor nothing completes any more, but what did is dequeued. */
    void waitDequeued() {
        std::unique_lock lock(mLock);
        EXPECT_TRUE(mDone.wait_for(
            lock, 20s, [this] { return mDequeued >= mCompleted * mDesc.ports.size(); }));
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
        for (size_t i = 0; i < mDesc.ports.size(); ++i)
            request.addBuffer(mDesc.ports[i].index, [this, slot, i](FrameBuffer& buffer) {
                buffer = mFrames[slot][i].buffer();
            });
        if (scene.queueRequest(&request, 0) == 0)
            return true;
        --mQueueable;
        return false;
    }

    SceneManager& mManager;
    const std::shared_ptr<client::EpollEventMonitor> mShared;
    std::shared_ptr<client::EpollEventMonitor> mEvents;
    Random mRandom;
    const std::string mName;
    const std::string mModel;
    const BareDesc mDesc;
    std::unique_ptr<client::IDmaBufSource> mSource = client::makeMemoryFileSource();
    std::vector<std::vector<client::Frame>> mFrames;  ///< per request, per port
    std::atomic<size_t> mQueueable{kBuffers};         ///< requests whose queueing was not refused
    std::atomic<bool> mIsLost{false};                 ///< an index, by a dequeue that failed
    std::mutex mLock;
    std::condition_variable mDone;
    std::vector<size_t> mIdle;
    size_t mCompleted = 0, mDequeued = 0;
};

/** Sessions one after the other, fed by one thread, emptied by another and ended at any moment. */
class SessionWorker {
public:
    explicit SessionWorker(unsigned number)
        : mRandom(sSeed + 100 + number),
          mDesc(engineSession("session-" + std::to_string(number), VENGINE_PORTS, number, 2)) {}

    void live() {
        mDesc.direct = mRandom.below(2) == 0;
        const auto source = client::makeMemoryFileSource();
        int error = 0;
        auto opened = client::SceneSession::open(
            mDesc, IDeviceEnumerator::instance().search(kModels[2]), *source, error);
        if (opened == nullptr)
            return;
        sReported = false;
        opened->start();
        const std::chrono::milliseconds patience(sReported ? 0 : mRandom.below(3) * 1000);
        {
            const std::lock_guard lock(mLock);
            mSession = std::move(opened);
        }
        std::atomic<bool> over{sReported};
        std::thread taker([&] {
            while (!over)
                if (mSession->wait(1ms, {}) == 0)
                    ++completed;
        });
        for (unsigned cycles = over ? 0 : mRandom.below(60); cycles != 0; --cycles)
            if (mSession->submit({}) == -EAGAIN)
                std::this_thread::yield();
        over = true;
        taker.join();
        {
            const std::lock_guard lock(mLock);
            opened = std::move(mSession);
        }
        if (mRandom.below(2) == 0)
            opened->stop(patience);
        ++sessions;
    }
    void look(IPrinter& printer) {
        const std::lock_guard lock(mLock);
        if (mSession == nullptr)
            return;
        mSession->dumpState(&printer);
        for (const client::PortStatistics& port : mSession->statistics())
            EXPECT_LE(port.dequeued, port.queued + mDesc.ports.size() * kBuffers);
        mSession->scene()->dumpState(&printer);
    }

    std::atomic<uint64_t> sessions{0};
    std::atomic<uint64_t> completed{0};

private:
    Random mRandom;
    client::SessionDesc mDesc;
    std::mutex mLock;  ///< held while the session is looked at
    std::unique_ptr<client::SceneSession> mSession;
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
    sim::Device& device = *devices[random.below(std::size(kModels))];
    device.failBuffer(vengine_ports[random.below(VENGINE_PORTS)].name, 1 + random.below(50));
    device.setTiming({.latency = std::chrono::microseconds(random.below(300)),
                      .jitter = std::chrono::microseconds(random.below(300)),
                      .order = kOrders[random.below(3)],
                      .group = 1 + random.below(3),
                      .patience = 2ms,
                      .seed = random.below(1000)});
}

TEST(Stress, SurvivesFaultsAndLookersOnWhileScenesComeAndGo) {
    sim::Engine engine;
    std::vector<sim::Device*> devices;
    for (const char* model : kModels)
        devices.push_back(engine.addDevice(sim::describeVirtualEngine(model)));
    YieldingKernel kernel(engine);
    const sim::ScopedKernel installed(kernel);
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
            workers.push_back(
                std::make_unique<Worker>(manager, number < 4 ? events : nullptr, number));
        SessionWorker sessions[2] = {SessionWorker(0), SessionWorker(1)};
        std::atomic<bool> over{false};
        const auto untilOver = [&over](auto body) {
            return std::thread([&over, body]() mutable {
                while (!over)
                    body();
            });
        };
        std::vector<std::thread> threads;
        threads.reserve(workers.size() + 5);
        for (const auto& worker : workers)
            threads.push_back(untilOver([&worker] { worker->live(); }));
        for (SessionWorker& session : sessions)
            threads.push_back(untilOver([&session] { session.live(); }));
        threads.push_back(untilOver([&, random = Random(sSeed)]() mutable {
            disturb(engine, devices, random);
            std::this_thread::sleep_for(5ms);
        }));
        threads.push_back(untilOver([&, printer = Discarding()]() mutable {
            manager.dumpState(&printer);
            manager.explainStall(&printer);
            events->dumpState(&printer);
            System::dumpState(&printer);
        }));
        threads.push_back(untilOver([&, printer = Discarding()]() mutable {
            for (const auto& worker : workers)
                look(*worker, printer);
            for (SessionWorker& session : sessions)
                session.look(printer);
        }));
        std::this_thread::sleep_for(sDuration);
        over = true;
        for (auto& thread : threads)
            thread.join();
        for (const auto& worker : workers) {
            EXPECT_GT(worker->scenes, 0U);
            EXPECT_GT(worker->completed, 0U);
            EXPECT_GT(worker->dequeued, worker->completed);
            printf("%" PRIu64 " scenes, %" PRIu64 " requests\n", worker->scenes.load(),
                   worker->completed.load());
        }
        for (const SessionWorker& session : sessions) {
            EXPECT_GT(session.sessions, 0U);
            EXPECT_GT(session.completed, 0U);
            printf("%" PRIu64 " sessions, %" PRIu64 " requests\n", session.sessions.load(),
                   session.completed.load());
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

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--seconds") == 0)
            NSVista::NSCorvane::test::sDuration = std::chrono::seconds(atoi(argv[i + 1]));
        else if (strcmp(argv[i], "--seed") == 0)
            NSVista::NSCorvane::test::sSeed = static_cast<unsigned>(atoi(argv[i + 1]));
    }
    return RUN_ALL_TESTS();
}
