// SPDX-License-Identifier: Apache-2.0
// A pipe and the host that loads it: pipes register by name, the host's SceneManager makes them
// all.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/Pipe.h>
#include <corvane/SceneManager.h>
#include <corvane/client/SceneSession.h>
#include <corvane/platform/Printer.h>
#include <corvane/sim/Engine.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

using namespace NSVista;
using namespace NSVista::NSCorvane;

namespace {

constexpr const char kName[] = "preview";

// [pipe]
class PreviewPipe : public PipeBase {
public:
    using PipeBase::PipeBase;

    int init() override {
        client::SessionDesc desc;
        desc.name = kName;
        desc.ports = {{"main", 0, "vengine-main", 0, 640, 480}};
        desc.links = {{"vengine-core", 0, "vengine-main", 0}};
        const auto source = client::makeMemoryFileSource();
        int error = 0;
        mSession = client::SceneSession::open(desc, IDeviceEnumerator::instance().search("vengine"),
                                              *source, error, getDebugInfo(kName));
        if (mSession == nullptr)
            return error;
        addScene(kName, mSession->scene());  // for the host's dumps
        mSession->setDoneCallback([this](client::SessionRequest& request) {
            ++mFrames;
            mSession->submitAgain(request);
        });
        if (const int result = mSession->start(); result != 0)
            return result;
        while (mSession->submit({}) == 0) {
        }
        return 0;
    }
    void uninit() override {
        mSession->stop(std::chrono::seconds(1));
        delScene(kName);
        mSession.reset();  // the last one to hold the scene
    }
    void dumpState(IPrinter* printer) override {
        printer->printFormatLine("<<PreviewPipe>> frames=%d", mFrames.load());
        if (mSession)
            mSession->dumpState(printer);
    }
    int frames() const { return mFrames; }

private:
    std::unique_ptr<client::SceneSession> mSession;
    std::atomic<int> mFrames{0};
};

std::shared_ptr<PreviewPipe> gPipe;  // for this host's curiosity only

[[maybe_unused]] const bool kIsRegistered = [] {
    PipeFactory::Instance().Register(kName, [](SceneManager& manager) {
        return gPipe = std::make_shared<PreviewPipe>(manager);
    });
    return true;
}();
// [pipe]

}  // namespace

int main() {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);

    // [host]
    SceneManager manager;
    if (manager.init() != 0)
        return 1;
    while (gPipe->frames() < 100)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    FilePrinter printer(stdout);
    manager.dumpState(&printer);
    manager.uninit();
    // [host]
    gPipe.reset();
    return 0;
}
