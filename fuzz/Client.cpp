// SPDX-License-Identifier: Apache-2.0
// A client that calls what it likes when it likes, with null pointers and bad descriptors, over the
// virtual engine. What would wait for ever by what is documented is left out: a request is not
// touched while it is under way, and no more are queued than there are buffer indexes.
#include <corvane/DequeuedBuffer.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/SceneManager.h>
#include <corvane/V4L2SubDevice.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/mc/MediaTopology.h>

#include <map>
#include <memory>

#include "World.h"
#include "vengine-desc.h"

using namespace NSVista::NSCorvane;

namespace {

constexpr const char kNone[] = "no such entity";
const char* const kEntities[] = {vengine_ports[0].name,
                                 vengine_ports[1].name,
                                 vengine_ports[3].name,
                                 vengine_ports[7].name,
                                 kNone,
                                 VENGINE_SUBDEV_ENTITY,
                                 VENGINE_CORE_ENTITY,
                                 nullptr};

struct Life {
    PortDesc ports[3] = {};
    LinkDesc links[2] = {};
    SceneDesc desc = {};
    std::unique_ptr<Scene> scene;
    std::map<int, int> imported;  ///< buffers by port
    std::vector<std::shared_ptr<IRequest>> requests;
    int spent = 0;  ///< indexes of each port that may be taken
};

class Client {
public:
    explicit Client(fuzz::Bytes& bytes) : mBytes(bytes) {
        mc::enumerateMediaDevices([this](const media_device_info& info, const std::string& path) {
            mMedia = std::make_shared<mc::MediaDevice>(
                path, std::make_shared<media_device_info>(info), mc::enumMediaTopology(path));
            return true;
        });
    }

    void live() {
        while (!mBytes.isEmpty())
            call(mBytes.take() % 32);
    }
    void end() {
        mEvents->forget();
        for (Life& life : mLives)
            if (life.scene != nullptr)
                life.scene->stop();
    }

private:
    const char* entity() { return kEntities[mBytes.take() % std::size(kEntities)]; }
    /** Small numbers, also below none and above all. */
    int number() { return static_cast<int8_t>(mBytes.take()); }

    void describe(Life& life) {
        for (PortDesc& port : life.ports)
            port = {mBytes.take() % 16 != 0 ? "port" : nullptr,
                    mBytes.take() % 8,
                    entity(),
                    true,
                    false,
                    true};
        for (LinkDesc& link : life.links)
            link = {entity(), mBytes.take() % 12U, entity(), mBytes.take() % 12U};
        life.desc = {mBytes.take() % 16 != 0 ? "scene" : nullptr,
                     nullptr,
                     number() % 4,
                     life.ports,
                     number() % 3,
                     life.links};
    }
    void destroy(Life& life) {
        life.requests.clear();
        life.scene.reset();
        life.imported.clear();
        life.spent = 0;
    }
    void call(unsigned what) {
        if (what < 6)
            return callMedia(what);
        if (what < 9)
            return callSubDevice(mBytes.take());
        Life& life = mLives[what % 2];
        const unsigned verb = mBytes.take() % 32;
        if (verb == 31) {
            destroy(life);
            describe(life);
            life.scene = std::make_unique<Scene>(nullptr, life.desc, mMedia);
            life.scene->setDirectDequeue(true);  // a fatal line of another thread would end all
        } else if (life.scene != nullptr) {
            callScene(life, *life.scene, verb);
        }
    }
    template <size_t kCount>
    static void pick(const std::function<void()> (&calls)[kCount], unsigned which) {
        calls[which % kCount]();
    }
    void callMedia(unsigned what) {
        const auto enableLink = [this] {
            const char* const source = entity();
            mMedia->enableLink(number() > 0, source, mBytes.take() % 12U, entity(), mBytes.take());
        };
        const std::function<void()> calls[] = {
            [this] { mMedia->acquire(); },
            [this] { mMedia->release(); },
            enableLink,
            [this] { mMedia->dumpState(&mPrinter, 'V'); },
            [this] { mMedia->getEntityDevnodePath(mBytes.takeText()); },
            [this] { mEvents->report(mBytes.take() % 4 != 0 ? EPOLLPRI : mBytes.take() & ~2U); },
        };
        pick(calls, what);
    }
    void callSubDevice(unsigned what) {
        V4L2SubDevice& device = mSubDevice;
        std::vector<int> fences(mBytes.take(), -1);
        std::unordered_set<int> fds;
        for (int count = number(); count > 0; --count)
            fds.insert(number());
        const std::function<void()> calls[] = {
            [&] { device.openDevice(); },
            [&] { device.closeDevice(); },
            [&] { device.subscribe(); },
            [&] { device.unsubscribe(); },
            [&] { device.setInitInfo(nullptr); },
            [&] { device.getControl(number(), nullptr); },
            [&] { device.setControl(number(), number()); },
            [&] {
                device.requestMemory({number() > 0, mBytes.take(), mBytes.take()});
            },
            [&] { device.mapKVA(fds); },
            [&] { device.unmapKVA(fds); },
            [&] { device.mapIOVA(number(), true); },
            [&] { device.unmapIOVA(number(), true); },
            [&] { device.releaseFenceFd(fences); },
            [&] { device.releaseUserResource(mBytes.take(), mBytes.take()); },
            [&] { device.dumpState(&mPrinter); },
        };
        pick(calls, what);
    }
    void callScene(Life& life, Scene& scene, unsigned verb) {
        PixelFormat format{mBytes.take(), 64, 16, mBytes.take(), {}};
        const int index = mBytes.take() % 8;
        const std::shared_ptr<IPort> port = scene.queryPort(index);
        IRequest* const request = requestOf(life);
        const auto import = [&] {
            if (const int count = number() % 70; scene.importBuffer(port, count) == 0)
                life.imported[index] = count;
        };
        const auto setDone = [&] {
            std::function<void(IRequest*)> done;
            if (number() > 0)
                done = [](IRequest* which) { which->toString(); };
            scene.setRequestDoneCallback(done);
        };
        const auto visit = [](const std::shared_ptr<IPort>& visited) {
            return !visited->toString().empty();
        };
        const auto queueNext = [&] { queue(life, scene, request); };
        const auto fillNext = [&] {
            if (request != nullptr)
                addBuffer(*request, index);
        };
        const std::function<void()> calls[] = {
            [&] { scene.dumpState(&mPrinter); },
            [&] { scene.init(); },
            [&] { scene.uninit(); },
            [&] { scene.acquire(); },
            [&] { scene.release(); },
            [&] { scene.getFormat(port, format); },
            [&] { scene.setFormat(port, format); },
            import,
            [&] { scene.start(); },
            [&] { mEvents->forget(), scene.stop(); },
            [&] { life.requests.push_back(scene.createRequest()); },
            [&] { request != nullptr ? request->setMonitor(number() ? mEvents : nullptr) : 0; },
            fillNext,
            fillNext,
            queueNext,
            queueNext,
            queueNext,
            setDone,
            [&] { scene.addPort(number() > 0 ? scene.queryPort(index) : nullptr); },
            [&] { scene.iteratePorts(visit); },
            [&] { scene.setKeepIndexes(number() > 0); },
        };
        pick(calls, verb);
    }
    IRequest* requestOf(Life& life) {
        const size_t which = mBytes.take() % 9;
        return which < life.requests.size() ? life.requests[which].get() : nullptr;
    }
    bool isIdle(const IRequest& request) {
        return request.toString().find(".state=0") != std::string::npos;
    }
    void addBuffer(IRequest& request, int index) {
        if (!isIdle(request))
            return;
        const uint8_t planes = mBytes.take() % 5;
        const int fd = mBytes.take() % 8 != 0 ? fuzz::memoryFd() : number();
        const uint32_t size = mBytes.take() % 8 != 0 ? 1 << 18 : mBytes.take<uint32_t>();
        const std::function<void(FrameBuffer&)> fill = [&](FrameBuffer& buffer) {
            buffer.planeCount = planes;
            for (auto& plane : buffer.planes)
                plane = {fd, 0, size};
        };
        request.addBuffer(index, planes != 4 || fd >= 0 ? fill : nullptr);
    }
    void queue(Life& life, Scene& scene, IRequest* request) {
        int least = 64;
        for (const auto& [port, count] : life.imported)
            least = std::min(least, count > 0 ? count : 64);
        bool hasAll = life.imported.size() == scene.getNumOfPorts();
        if (request != nullptr && (!hasAll || life.spent >= least || !isIdle(*request)))
            return;
        ++life.spent;
        if (scene.queueRequest(request, number()) == 0 && mEvents->report())
            --life.spent;
    }

    fuzz::Bytes& mBytes;
    fuzz::Reading mPrinter;
    std::shared_ptr<mc::MediaDevice> mMedia;
    std::shared_ptr<fuzz::Events> mEvents = std::make_shared<fuzz::Events>();
    V4L2SubDevice mSubDevice{"/dev/v4l-subdev0", VENGINE_SUBDEV_ENTITY};
    Life mLives[2];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Bytes bytes(data, size);
    fuzz::QuickEngine engine;
    const sim::ScopedKernel installed(engine);
    auto* const client = new Client(bytes);
    // What a client or a fatal line leaves is not taken down, but for the threads.
    static_cast<void>(fuzz::endures([client] { client->live(); }));
    static_cast<void>(fuzz::endures([client] { client->end(); }));
    return 0;
}
