// SPDX-License-Identifier: Apache-2.0
// The trace sections of the whole library: their names, and the areas that show them.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/Pipe.h>
#include <corvane/SceneManager.h>
#include <corvane/V4L2SubDevice.h>
#include <corvane/V4L2VideoDevice.h>
#include <corvane/client/SceneSession.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/UniqueFd.h>
#include <corvane/sim/Engine.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>

#include "support/Capture.h"
#include "support/SceneDescs.h"
#include "support/SubDeviceCalls.h"

namespace NSVista::NSCorvane::test {
namespace {

class IdlePipe : public PipeBase {
public:
    using PipeBase::PipeBase;
    void dumpState(IPrinter*) override {}
    int init() override { return 0; }
    void uninit() override {}
};

void manageScenes() {
    SceneManager manager;
    manager.init();
    manager.addScene("s", nullptr);
    manager.getScene("s");
    manager.uninit();
}

/** Streams one request over two ports, which the worker dequeues. */
void stream() {
    mc::DeviceEnumerator::instance().find("");
    client::SessionDesc desc = engineSession("scene", 6, 4);
    desc.buffers = 1;
    desc.direct = false;
    int error = 0;
    const auto session =
        client::SceneSession::open(desc, IDeviceEnumerator::instance().search(VENGINE_MODEL),
                                   *client::makeMemoryFileSource(), error);
    ASSERT_NE(session, nullptr) << error;
    EXPECT_EQ(session->start(), 0);
    EXPECT_EQ(session->submit({}), 0);
    EXPECT_EQ(session->wait(std::chrono::seconds(10), [](client::SessionRequest&) {}), 0);
}

void driveSubDevice() {
    const DefaultMediaConfigs configs = {VENGINE_MODEL, VENGINE_SUBDEV_ENTITY};
    registerDefaultMediaConfigs(&configs);
    DefaultSubDeviceProvider provider;
    auto device = provider.acquire("user");
    const UniqueFd buffer(memfd_create("buffer", MFD_CLOEXEC));
    SubDeviceArguments with(buffer.get());
    for (const SubDeviceCall& call : subDeviceCalls(with))
        call.run(*device, with);
    provider.release("user", device);
    V4L2VideoDevice(0, "closed", "nowhere").releaseBuffer();
}

/** Descriptors and addresses are not the same in each run. */
std::string settled(const Lines& names) {
    std::set<std::string> all;
    for (const std::string& name : names)
        all.insert(
            std::regex_replace(std::regex_replace(name, std::regex("([fF]d[=:])[0-9]+"), "$1N"),
                               std::regex("0x[0-9a-f]+-"), "ADDRESS-"));
    std::string text;
    for (const std::string& name : all)
        text += (text.empty() ? "" : ";") + name;
    return text;
}

/** By area, parted by semicolons; those of the sub-device's calls stand with them. */
const std::map<unsigned, std::string> kSections = {
    {4,
     "DeviceEnumerator::determineMediaDeviceInfoAndTopologyByModelName;"
     "DeviceEnumerator::find;DeviceEnumerator::findMediaTopologyFromCache /dev/media0;"
     "DeviceEnumerator::search vengine;MediaDevice::close /dev/media0 fd=N;"
     "MediaDevice::initLinks #10;MediaDevice::open /dev/media0;"
     "MediaRequest::~MediaRequest close fd=N;Scene::Scene;Scene::acquire;Scene::init;"
     "Scene::release;Scene::start;Scene::stop;Scene::uninit;Scene::~Scene;"
     "SceneManager::addScene;SceneManager::getScene;SceneManager::init;"
     "SceneManager::uninit;V4L2BufferMonitor::requestExit;deinit ports #2;"
     "disable links #1;enumAllMediaLinks;enumerateMediaDevices;enumerateMediaEntity;"
     "pipe: pipe;threadLoop"},
    {5,
     "DefaultSubDeviceProvider::deinitSubDevice;DefaultSubDeviceProvider::initSubDevice;"
     "IV4L2VideoDevice::make;Port::deinit;Port::importBuffer;Port::init;Port::start;"
     "Port::stop;Scene::getFormat;Scene::importBuffer;Scene::setFormat;"
     "V4L2SubDevice::closeDevice;V4L2SubDevice::openDevice;V4L2SubDevice::subscribe;"
     "V4L2SubDevice::unsubscribe;V4L2VideoDevice VIDIOC_REQBUFS count=0;"
     "V4L2VideoDevice: VIDIOC_STREAMOFF;V4L2VideoDevice: VIDIOC_STREAMON;"
     "V4L2VideoDevice::closeDevice;V4L2VideoDevice::importBuffer;"
     "V4L2VideoDevice::openDevice;VIDIOC_REQBUFS"},
    {6,
     "MediaDevice::enableLink;Port::getFormat;Port::setFormat;"
     "V4L2BufferMonitor::attachObserver;V4L2BufferMonitor::detachObserver;"
     "V4L2VideoDevice::getFormat;V4L2VideoDevice::setFormat;V4L2VideoDevice::setMonitor"},
    {8, "Request::queueBuffers"},
    {9, "MediaRequest::queueRequest;Scene::queueRequest"},
    {10,
     "Request::addBuffer;Request::queueRequest;Scene::requestDone;"
     "V4L2VideoDevice::acquireBufferIndex;V4L2VideoDevice::queueBuffer;attachRequestBuffer"},
    {13,
     "MediaRequest::reinit;Request::requestDone;V4L2BufferMonitor::notifyComplete;"
     "V4L2BufferMonitor::notifyRequestDone|requestFd:N"},
    {14,
     "MediaRequest: MEDIA_REQUEST_IOC_REINIT;MediaRequest: request done callback;"
     "MediaRequest::onNotify;V4L2VideoDevice::dequeBuffer;V4L2VideoDevice::onNotify;"
     "V4L2VideoDevice::releaseBufferIndex;detachRequestBuffer;wait_for needToDQBUF"},
    {34, "C V4L2BufferMonitor-#BufInQ"},
    {35, "b V4L2BufferMonitor-ADDRESS-0;e V4L2BufferMonitor-ADDRESS-0"},
};

constexpr unsigned kCallsArea = 5;

Lines sectionsOf(unsigned area) {
    const auto listed = kSections.find(area);
    std::istringstream text(listed != kSections.end() ? listed->second : "");
    Lines names;
    for (std::string name; std::getline(text, name, ';');)
        names.push_back(name);
    if (area == kCallsArea)
        for (const SubDeviceCall& call : subDeviceCalls(SubDeviceArguments(0)))
            names.push_back("V4L2SubDevice::" + call.section);
    return names;
}

TEST(Sections, ShowInTheirAreasByTheirNames) {
    std::set<unsigned> areas = {0, 7, 11, 12, 15};  // nothing is to be seen in these
    for (const auto& [area, names] : kSections)
        areas.insert(area);
    for (const unsigned area : areas)
        inOwnProcess([area] {  // where nothing is cached
            const ReportCapture reports;
            sim::VirtualEngine engine;
            const sim::ScopedKernel kernel(engine);
            PipeFactory::Instance().Register(
                "pipe", [](SceneManager& manager) { return std::make_shared<IdlePipe>(manager); });
            const auto live = [] {
                manageScenes();
                stream();
                driveSubDevice();
            };
            EXPECT_EQ(settled(tracedBy(live, area)), settled(sectionsOf(area))) << area;
        });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
