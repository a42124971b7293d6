// SPDX-License-Identifier: Apache-2.0
#include "Lifetimes.h"

#include <corvane/DequeuedBuffer.h>
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IV4L2SubDevice.h>
#include <corvane/SceneManager.h>
#include <corvane/client/SceneSession.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Service.h>
#include <linux/videodev2.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <utility>

#include "support/SceneDescs.h"
#include "support/SubDeviceCalls.h"

int corvaneStreamMain(int argc, char** argv);
int corvaneInfoMain(int argc, char** argv);

namespace NSVista::NSCorvane::test {

namespace {

using namespace std::chrono_literals;

constexpr int kBuffers = 3;
constexpr int kRounds = 2;
std::atomic<bool> sTerminated{false};

client::SessionDesc describe(unsigned ports) {
    client::SessionDesc desc = engineSession("sweep", ports);
    desc.buffers = kBuffers;
    return desc;
}

std::shared_ptr<IMediaDevice> search(Client& client) {
    std::shared_ptr<IMediaDevice> media;
    client.step("search", [&] {
        media = IDeviceEnumerator::instance().search(VENGINE_MODEL);
        return 0;
    });
    return media;
}

void enumerate(Client& client) {
    client.step("find", [] {
        mc::DeviceEnumerator::instance().find({});
        return 0;
    });
    const auto media = search(client);
    if (client.step("acquire", [&] { return media->acquire(); }) != 0)
        return;
    const auto link = [&](bool enable) {
        return media->enableLink(enable, VENGINE_CORE_ENTITY, 0, vengine_ports[0].name, 0) ? 0 : -1;
    };
    client.step("link", [&] { return link(true); });
    client.step("link", [&] { return link(false); });
    client.step("release", [&] { return media->release(); });
}

/** A scene by the bare interface. */
class BareScene {
public:
    BareScene(Client& client, unsigned ports) : mClient(client), mDesc(describe(ports)) {}

    void live() {
        const auto media = search(mClient);
        if (mClient.step("acquire", [&] { return media->acquire(); }) != 0)
            return;
        mClient.step("construct", [&] {
            mScene.emplace(nullptr, mDesc.scene, media);
            return 0;
        });
        if (mClient.step("init", [&] { return mScene->init(); }) == 0) {
            mClient.step("acquire", [&] { return mScene->acquire(); });
            if (prepare())
                stream();
            mClient.step("destroy", [&] { return mRequests.clear(), 0; });
            mClient.step("release", [&] { return mScene->release(); });
            mClient.step("uninit", [&] { return mScene->uninit(), 0; });
        }
        mClient.step("destroy", [&] { return mScene.reset(), 0; });
        mClient.step("release", [&] { return media->release(); });
    }

private:
    bool prepare() {
        for (const PortDesc& desc : mDesc.ports) {
            const std::shared_ptr<IPort> port = mScene->queryPort(desc.index);
            PixelFormat format{};
            const auto getFormat = [&] { return mScene->getFormat(port, format); };
            const auto setFormat = [&] { return mScene->setFormat(port, format); };
            const auto import = [&] { return mScene->importBuffer(port, kBuffers); };
            if (mClient.step("getFormat", getFormat) != 0)
                return false;
            format.width = 64;
            format.height = 16;
            if (mClient.step("setFormat", setFormat) != 0 || mClient.step("import", import) != 0)
                return false;
            mFrames.emplace_back().allocate(format, {}, *mSource);
        }
        mClient.step("events", [&] {
            mEvents = client::EpollEventMonitor::make();
            return mEvents != nullptr ? 0 : -EMFILE;
        });
        mRequests.resize(kBuffers);
        for (auto& request : mRequests)
            mClient.step("request", [&] {
                request = mScene->createRequest();
                return request->setMonitor(mEvents), 0;
            });
        mScene->setBufferDequeuedCallback([this](const DequeuedBuffer& buffer) { came(buffer); });
        mScene->setRequestDoneCallback([this](IRequest*) { count(mDone); });
        return true;
    }

    void stream() {
        mClient.step("start", [&] { return mScene->start(); });
        size_t requests = 0;
        for (int round = 0; round < kRounds && isFine(); ++round) {
            for (const auto& request : mRequests)
                if (isFine() && queue(*request))
                    ++requests;
            waitFor(requests);
        }
        mClient.step("stop", [&] { return mScene->stop(); });
        mEvents.reset();
    }

    bool queue(IRequest& request) {
        const auto add = [&](size_t port) {
            return request.addBuffer(mDesc.ports[port].index, [this, port](FrameBuffer& buffer) {
                buffer = mFrames[port].buffer();
            });
        };
        for (size_t i = 0; i < mDesc.ports.size(); ++i)
            mClient.step("stream", [&] { return add(i); });
        mRefused = mClient.step("stream", [&] { return mScene->queueRequest(&request, 0); }) != 0;
        return !mRefused;
    }

    /** Lets everything come back that was accepted. */
    void waitFor(size_t requests) {
        std::unique_lock lock(mLock);
        const auto isBack = [&] {
            return mDone >= requests && mDequeued >= requests * mDesc.ports.size();
        };
        if (!mChanged.wait_for(lock, 3s, isBack))
            Client::trouble("requests did not come back");
    }
    void came(const DequeuedBuffer& buffer) {
        const memory::Inside client(false);
        if (buffer.result < 0) {
            mClient.tellStep(buffer.result);
            mLost = true;
        }
        count(mDequeued);
    }
    void count(size_t& what) {
        const std::lock_guard lock(mLock);
        ++what;
        mChanged.notify_all();
    }
    bool isFine() const { return !mRefused && !mLost && !sTerminated; }

    Client& mClient;
    const BareDesc mDesc;
    std::optional<Scene> mScene;
    std::unique_ptr<client::IDmaBufSource> mSource = client::makeMemoryFileSource();
    std::vector<client::Frame> mFrames;
    std::shared_ptr<client::EpollEventMonitor> mEvents;
    std::vector<std::shared_ptr<IRequest>> mRequests;
    bool mRefused = false;
    std::atomic<bool> mLost{false};
    std::mutex mLock;
    std::condition_variable mChanged;
    size_t mDone = 0, mDequeued = 0;
};

/** @return whether all went well. */
bool session(Client& client, client::SessionDesc desc) {
    const auto media = search(client);
    const auto source = client::makeMemoryFileSource();
    std::unique_ptr<client::SceneSession> session;
    bool isGood = client.step("open", [&] {
        int error = 0;
        session = client::SceneSession::open(std::move(desc), media, *source, error);
        return error;
    }) == 0;
    if (session == nullptr)
        return false;
    client.step("begin", [&] { return session->start(); });
    int underWay = 0;
    const client::SceneSession::Visit inspect = [&](client::SessionRequest& request) {
        const memory::Inside outside(false);
        --underWay;
        for (size_t i = 0; i < request.frameCount(); ++i)
            if (const int result = request.frame(i).result(); result < 0) {
                client.tellStep(result);
                isGood = false;
            }
    };
    const auto submit = [&] { return session->submit({}); };
    const auto wait = [&] { return session->wait(3s, inspect); };
    for (int i = 0; i < kRounds * kBuffers && isGood && !sTerminated; ++i) {
        isGood = client.step("stream", submit) == 0;
        underWay += isGood ? 1 : 0;
        if (underWay == kBuffers)
            isGood = client.step("stream", wait) == 0 && isGood;
    }
    client.step("stream", [&] { return session->drain(3s); });
    while (underWay != 0 && client.step("stream", wait) == 0) {
    }
    client.step("end", [&] { return session->stop(3s); });
    client.step("destroy", [&] { return session.reset(), 0; });
    return isGood && !sTerminated;
}

template <unsigned kPorts>
void bareScene(Client& client) {
    BareScene(client, kPorts).live();
}

/** One buffer is dequeued on the event thread, several are or are not. */
template <unsigned kPorts>
void sceneSession(Client& client) {
    client::SessionDesc desc = describe(kPorts);
    desc.direct = kPorts != 6;
    session(client, std::move(desc));
}

std::shared_ptr<IV4L2SubDevice> bringUp(Client& client, const char* user) {
    std::shared_ptr<IV4L2SubDevice> device;
    client.step("bringup", [&] {
        device = IDefaultSubDeviceProvider::instance()->acquire(user);
        return device != nullptr ? 0 : -1;
    });
    return device;
}

void giveBack(Client& client, const char* user, std::shared_ptr<IV4L2SubDevice>& device) {
    client.step("teardown",
                [&] { return IDefaultSubDeviceProvider::instance()->release(user, device), 0; });
}

void registerDefaults() {
    const DefaultMediaConfigs defaults{VENGINE_MODEL, VENGINE_SUBDEV_ENTITY};
    registerDefaultMediaConfigs(&defaults);
}

void subDevice(Client& client) {
    registerDefaults();
    client::DmaBuf memory;
    client::makeMemoryFileSource()->allocate(4096, memory);
    SubDeviceArguments with(memory.fd());
    v4l2_event event{};
    auto device = bringUp(client, "SWEEP");
    if (device != nullptr) {
        for (const SubDeviceCall& call : subDeviceCalls(with))
            client.step("use", [&] { return call.run(*device, with); });
        client.step("use", [&] { return device->queryEvent(event) == -ENOENT ? 0 : -1; });
    }
    giveBack(client, "SWEEP", device);
}

void provider(Client& client) {
    registerDefaults();
    for (int round = 0; round < 2; ++round) {
        auto first = bringUp(client, "FIRST");
        auto second = bringUp(client, "SECOND");
        giveBack(client, "FIRST", first);
        auto third = bringUp(client, "THIRD");
        giveBack(client, "SECOND", second);
        giveBack(client, "THIRD", third);
    }
}

/** A program's run. */
void runTool(Client& client, int (*main)(int, char**), std::vector<const char*> words) {
    words.push_back(nullptr);
    const int code = client.step("tool", [&] {
        const memory::Inside outside(false);  // who runs out of memory there says so by itself
        return -main(static_cast<int>(words.size()) - 1, const_cast<char**>(words.data()));
    });
    record("@exit %d\n", -code);
}

void streamTool(Client& client) {
    runTool(
        client, corvaneStreamMain,
        {"corvane-stream", "--sim", "--requests", "6", "--events", "--dump", "--size", "64x16"});
}

void infoTool(Client& client) {
    runTool(client, corvaneInfoMain,
            {"corvane-info", "--sim", "--dump", "--control", "1", "--set-link",
             "vengine-core:0->vengine-main:0=on"});
}

}  // namespace

void Client::tellStep(int result) const {
    record("@step %s %d\n", kernel.phase(), result);
}

void Client::trouble(const std::string& what) {
    record("@trouble %s\n", what.c_str());
}

const std::vector<Lifetime>& lifetimes() {
    static const std::vector<Lifetime> all = {
        {"enumerate", enumerate},         {"scene-1", bareScene<1>},
        {"scene-3", bareScene<3>},        {"scene-6", bareScene<6>},
        {"session-1", sceneSession<1>},   {"session-3", sceneSession<3>},
        {"session-6", sceneSession<6>},   {"sub-device", subDevice},
        {"provider", provider},           {"corvane-stream", streamTool, true},
        {"corvane-info", infoTool, true},
    };
    return all;
}

bool streamFresh(Client& client) {
    return session(client, describe(2));
}

bool takeTermination() {
    return sTerminated.exchange(false);
}

void watchTermination() {
    Utils::setTerminateHandler([] { sTerminated = true; });
}

}  // namespace NSVista::NSCorvane::test
