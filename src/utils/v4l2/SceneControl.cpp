// SPDX-License-Identifier: Apache-2.0
#include <corvane/SceneControl.h>

#include <corvane/IMediaDevice.h>
#include <corvane/SceneDesc.h>
#include <corvane/V4L2BufferMonitor.h>
#include <corvane/V4L2VideoDevice.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/ThreadLoop.h>
#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/Trace.h>

#include <cerrno>
#include <utility>

#include "CallbackWatch.h"
#include "CpuTime.h"
#include "DriverCall.h"
#include "RequestRoll.h"
#include "SceneText.h"
#include "StallReport.h"
#include "Stamp.h"
#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-SceneControl")

namespace NSVista::NSCorvane {

namespace {

/** Why a stream-on is refused, most often; null where the error says it all. */
const char* likelyCause(int error) {
    switch (error) {
        case -EPIPE:
        case -ENOLINK:
            return "no enabled link leads to the port: name its link in the scene's descriptor";
        case -EBUSY:
            return "another process or scene streams the node or its pipeline";
        default:
            return nullptr;
    }
}

/** What a caller in the wrong state has left out. */
const char* stepBefore(int32_t state, int32_t wanted) {
    if (state > wanted)
        return "stop() comes first";
    return state == 0 ? "acquire() comes first" : "start() comes first";
}

bool enableLink(const std::shared_ptr<IMediaDevice>& media, bool enable, const LinkDesc& link) {
    return media != nullptr && media->enableLink(enable, link.source_entity, link.source_pad,
                                                 link.sink_entity, link.sink_pad);
}

}  // namespace

Scene::Scene(std::shared_ptr<SceneDebugInfo> debugInfo, const SceneDesc& desc,
             const std::shared_ptr<IMediaDevice>& media) try
    : mDesc(desc),
      mDebugInfo(std::move(debugInfo)),
      mMediaDevice(media),
      mRoll(std::make_shared<RequestRoll>(nameOrEmpty(desc.scene_name))) {
    const TraceSection section(area::kLifecycle, "Scene::Scene");
    if (mDebugInfo == nullptr)
        mDebugInfo = std::make_shared<SceneDebugInfo>();
    if (mDebugInfo == nullptr)
        CORVANE_FATAL("std::make_shared<SceneDebugInfo>");
    mBufferMonitor = IV4L2BufferMonitor::make("V4L2BufferMonitor");
    if (mBufferMonitor == nullptr)
        CORVANE_FATAL("IV4L2BufferMonitor::make");
}
CORVANE_NO_THROW

Scene::~Scene() {
    const TraceSection section(area::kLifecycle, "Scene::~Scene");
    stopMonitor();
}

int Scene::init() try {
    const TraceSection section(area::kLifecycle, "Scene::init");
    CORVANE_LOGD("Scene::init + %s  #DECKEY", nameOrEmpty(mDesc.scene_name));
    const CpuTimer timer;
    const bool ok = initPorts() && initLinks();
    if (!ok)
        uninit();
    CORVANE_LOGK("Scene::init - %s ret:%d (cputime %s ns)  #DECKEY", nameOrEmpty(mDesc.scene_name),
                 ok, timer.text().c_str());
    return ok ? 0 : -1;
}
CORVANE_NO_THROW

void Scene::uninit() try {
    const TraceSection section(area::kLifecycle, "Scene::uninit");
    mUninitialised.store(true, std::memory_order_relaxed);
    CORVANE_LOGD("Scene::uninit + %s  #DECKEY", nameOrEmpty(mDesc.scene_name));
    const CpuTimer timer;
    {
        const TraceSection links(area::kLifecycle,
                                 CORVANE_TRACE_NAME("disable links #%d", mDesc.num_links));
        for (int32_t i = 0; i < mDesc.num_links; ++i)
            enableLink(mMediaDevice, false, mDesc.links[i]);
    }
    {
        const TraceSection ports(area::kLifecycle,
                                 CORVANE_TRACE_NAME("deinit ports #%zu", this->ports().size()));
        for (const auto& [index, port] : this->ports())
            port->deinit();
    }
    CORVANE_LOGK("Scene::uninit - %s (cputime %s ns)  #DECKEY", nameOrEmpty(mDesc.scene_name),
                 timer.text().c_str());
}
CORVANE_NO_THROW

bool Scene::initPorts() try {
    for (int32_t i = 0; i < mDesc.num_ports; ++i) {
        const PortDesc& desc = mDesc.ports[i];
        if (desc.port_name == nullptr || desc.device_name == nullptr)
            CORVANE_FATAL("%s: Bad port/device name", toString(desc).c_str());
        const auto port = std::make_shared<Port>(desc, mMediaDevice.get());
        if (port->init() != 0) {
            CORVANE_LOGE("%s: Port::init", toString(desc).c_str());
            port->deinit();
            return false;
        }
        // A port that is not taken in does not fail the scene, but an open device must not be
        // dropped.
        addPort(port);
        if (ports().at(port->getIndex()) != port)
            port->deinit();
    }
    return true;
}
CORVANE_NO_THROW

bool Scene::initLinks() try {
    for (int32_t i = 0; i < mDesc.num_links; ++i) {
        const LinkDesc& link = mDesc.links[i];
        if (!enableLink(mMediaDevice, true, link)) {
            CORVANE_LOGE("%s: Failed on enableLink", toString(link).c_str());
            return false;
        }
    }
    return true;
}
CORVANE_NO_THROW

int Scene::addPort(const std::shared_ptr<Port>& port) try {
    if (port == nullptr)
        return 0;
    const int index = port->getIndex();
    bool inserted = false;
    {
        const MutexLock lock(mPortsLock);
        inserted = mPorts.emplace(index, port).second;
    }
    if (!inserted) {
        CORVANE_LOGE("Port index %#x has already existed", index);
        return -1;
    }
    if (mBufferMonitor == nullptr)
        return 0;
    const int ret = port->setMonitor(mBufferMonitor);
    if (ret != 0)
        CORVANE_LOGE("setMonitor failed for buffer_monitor:%p - %d",
                     static_cast<void*>(mBufferMonitor.get()), ret);
    return ret;
}
CORVANE_NO_THROW

std::shared_ptr<Port> Scene::queryPort(int index) const {
    const auto found = ports().find(index);
    if (found == ports().end()) {
        CORVANE_LOGE("Invalid port index: %#x", index);
        return nullptr;
    }
    return found->second;
}

std::vector<std::shared_ptr<Port>> Scene::copyPorts() const {
    std::vector<std::shared_ptr<Port>> copies;
    const MutexLock lock(mPortsLock);
    copies.reserve(mPorts.size());
    for (const auto& [index, port] : mPorts)
        copies.push_back(port);
    return copies;
}

size_t Scene::getNumOfPorts() const {
    const MutexLock lock(mPortsLock);
    return mPorts.size();
}

void Scene::iteratePorts(std::function<bool(std::shared_ptr<IPort>)> visit) try {
    if (!visit)
        CORVANE_FATAL("Bad function");
    for (const auto& port : copyPorts())
        if (!visit(port))
            return;
}
CORVANE_NO_THROW

void Scene::setRequestDoneCallback(std::function<void(IRequest*)> callback) {
    mRequestDoneCallback = std::move(callback);
}

int Scene::acquire() {
    const TraceSection section(area::kLifecycle, "Scene::acquire");
    if (const int32_t previous = mState.exchange(kAcquired); previous != kIdle)
        CORVANE_FATAL("Bad state transition: %d -> ACQUIRED", previous);
    return 0;
}

int Scene::release() {
    const TraceSection section(area::kLifecycle, "Scene::release");
    if (const int32_t previous = mState.exchange(kIdle); previous != kAcquired)
        CORVANE_FATAL("Bad state transition: %d -> IDLE", previous);
    return 0;
}

const char* Scene::stateName(int32_t state) {
    switch (state) {
        case kIdle:
            return "IDLE";
        case kAcquired:
            return "ACQUIRED";
        case kStarted:
            return "STARTED";
        default:
            return "?";
    }
}

/** Whether the scene is usable and in the wanted state; reports for @p operation when not. */
bool Scene::inState(State wanted, const char* operation) const {
    const int32_t state = mState.load(std::memory_order_relaxed);
    const bool usable = !mUninitialised.load(std::memory_order_relaxed);
    if (state == wanted && usable)
        return true;
    if (state != wanted) {
        CORVANE_LOGE_AS(operation, "state %d != %s", state, stateName(wanted));
        CORVANE_LOGE_AS(operation, "%s: it is %s, %s", nameOrEmpty(mDesc.scene_name),
                        stateName(state), stepBefore(state, wanted));
    } else {
        CORVANE_LOGE_AS(operation, "%s: uninitialised, or its init() failed: build a new scene",
                        nameOrEmpty(mDesc.scene_name));
    }
    return false;
}

/** Whether choices of how to stream can still be made; reports for @p operation when not. */
bool Scene::beforeStart(const char* operation) const {
    if (mState.load(std::memory_order_relaxed) != kStarted)
        return true;
    CORVANE_LOGE_AS(operation, "Only before start()");
    return false;
}

int Scene::setDirectDequeue(bool direct) {
    const MutexLock streaming(mStreamLock);
    if (!beforeStart("setDirectDequeue"))
        return -1;
    // What IV4L2BufferMonitor::make() made.
    static_cast<V4L2BufferMonitor&>(*mBufferMonitor).setDirectDequeue(direct);
    return 0;
}

int Scene::setBufferDequeuedCallback(std::function<void(const DequeuedBuffer&)> callback) {
    const MutexLock streaming(mStreamLock);
    if (!beforeStart("setBufferDequeuedCallback"))
        return -1;
    mBufferDequeuedCallback = std::move(callback);
    return 0;
}

int Scene::setKeepIndexes(bool keep) {
    const MutexLock streaming(mStreamLock);
    if (!beforeStart("setKeepIndexes"))
        return -1;
    mKeepIndexes = keep;
    return 0;
}

/** Tells the ports' devices, which exist by now, what was chosen for them. */
void Scene::applyChoices() {
    for (const auto& [index, port] : ports()) {
        // What IV4L2VideoDevice::make() made.
        const auto device = std::static_pointer_cast<V4L2VideoDevice>(port->getVideoDevice());
        if (device == nullptr)
            continue;
        device->setDequeuedCallback(mBufferDequeuedCallback);
        device->setKeepIndexes(mKeepIndexes);
        device->setSceneName(mRoll->sceneName());
    }
}

void Scene::startMonitor() {
    if (mBufferMonitor == nullptr)
        return;
    auto handler = ThreadLoopHandler::make();
    if (handler == nullptr)
        CORVANE_FATAL_AS("start", "ThreadLoopHandler::make");
    handler->setThreadName(mBufferMonitor->getThreadName());
    auto guard =
        timeguard::TimeBomb::make(mBufferMonitor->getThreadName(), kDriverLimitNs, kDriverPeriodNs,
                                  "The buffer monitor's thread is not ready to run.");
    const int ret = handler->run(mBufferMonitor);
    guard.reset();
    if (ret != 0)
        CORVANE_FATAL_AS("start", "ThreadLoopHandler::make");
    const MutexLock lock(mThreadLock);
    mThreadLoopHandler.swap(handler);
}

void Scene::stopMonitor() {
    std::shared_ptr<ThreadLoopHandler> handler;
    {
        const MutexLock lock(mThreadLock);
        handler.swap(mThreadLoopHandler);
    }
    if (handler != nullptr)
        handler->requestExitAndWait();
}

/** Ends a refused stream call; other ports go on. */
void Scene::refuseStream(const char* operation, const char* failure, const Port& port, int ret) {
    mStreamRefusal.store(ret, std::memory_order_relaxed);
    CORVANE_LOGE_AS(operation, "Failed to %s port: %s", operation, port.getName().c_str());
    driverRefused(failure, ret, (" <" + port.getName() + ">").c_str());
}

/** Their completions would find no observer. */
void Scene::tellOfRequestsInFlight() const {
    const auto inFlight = static_cast<int32_t>(mQueuedCount.load(std::memory_order_relaxed) -
                                               mDoneCount.load(std::memory_order_relaxed));
    if (inFlight > 0)
        CORVANE_LOGW_AS("stop",
                        "%s: %d request(s) are with the driver: drain them, or take their event "
                        "monitor away, before stop()",
                        nameOrEmpty(mDesc.scene_name), inFlight);
}

int Scene::start() try {
    const TraceSection section(area::kLifecycle, "Scene::start");
    const MutexLock streaming(mStreamLock);
    CORVANE_LOGI("+ Scene::start");
    const CpuTimer timer;
    if (!inState(kAcquired, "start"))
        return -1;
    mStreamRefusal.store(0, std::memory_order_relaxed);
    applyChoices();
    // The monitor's thread runs before any port streams.
    startMonitor();
    stampLogTime(mDebugInfo->streamOnBegin);
    auto guard = guardDriver("VIDIOC_STREAMON timed out.");
    for (const auto& [index, port] : ports()) {
        CORVANE_LOGD("Start port: %s  #DECKEY", port->getName().c_str());
        if (const int ret = port->start(); ret < 0) {
            guard.reset();
            if (const char* const cause = likelyCause(ret))
                CORVANE_LOGE("%s: %s", port->getName().c_str(), cause);
            refuseStream("start", "VIDIOC_STREAMON fail", *port, ret);
        }
    }
    guard.reset();
    stampLogTime(mDebugInfo->streamOnEnd);
    mCallbackWatch = watchCallbacks(mRoll);
    mState.store(kStarted, std::memory_order_relaxed);
    CORVANE_LOGI("- Scene::start (cputime %s ns)", timer.text().c_str());
    return 0;
}
CORVANE_NO_THROW

int Scene::stop() try {
    const TraceSection section(area::kLifecycle, "Scene::stop");
    const MutexLock streaming(mStreamLock);
    CORVANE_LOGI("+ Scene::stop");
    const CpuTimer timer;
    if (!inState(kStarted, "stop"))
        return -1;
    mStreamRefusal.store(0, std::memory_order_relaxed);
    tellOfRequestsInFlight();
    stampLogTime(mDebugInfo->streamOffBegin);
    auto guard = guardDriver("VIDIOC_STREAMOFF timed out.");
    for (const auto& [index, port] : ports())
        if (const int ret = port->stop(); ret < 0) {
            guard.reset();
            refuseStream("stop", "VIDIOC_STREAMOFF fail", *port, ret);
        }
    guard.reset();
    stampLogTime(mDebugInfo->streamOffEnd);
    stopMonitor();
    mCallbackWatch.reset();
    mState.store(kAcquired, std::memory_order_relaxed);
    CORVANE_LOGI("- Scene::stop (cputime %s ns)", timer.text().c_str());
    return 0;
}
CORVANE_NO_THROW

std::shared_ptr<IRequest> Scene::createRequest() try {
    auto request = std::make_shared<Request>(
        mMediaDevice.get(), [this](int index) { return queryPort(index); },
        [this](Request* done, int* portIndexes, size_t count) {
            requestDone(done, portIndexes, count);
        });
    request->enlist(mRoll, mQueuedCount);
    return request;
}
CORVANE_NO_THROW

int Scene::queueRequest(IRequest* request, int argument) try {
    const TraceSection section(area::kQueueRequest, "Scene::queueRequest");
    if (request == nullptr)
        CORVANE_FATAL("Bad request");
    if (!inState(kStarted, "queueRequest"))
        return -1;
    const int ret = request->queueRequest(argument);
    if (ret != 0) {
        CORVANE_LOGE("Failed to queue request: %s", request->toString().c_str());
        return ret;
    }
    mQueuedCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
CORVANE_NO_THROW

void Scene::requestDone(Request* request, int* portIndexes, unsigned long count) try {
    const TraceSection section(area::kQueue, "Scene::requestDone");
    if (request == nullptr) {
        CORVANE_LOGW("Bad request");
        return;
    }
    if (mBufferMonitor != nullptr && request->getStatus() == 0)
        mBufferMonitor->notifyRequestDone(request->getRequestFD(), portIndexes, count);
    mDoneCount.fetch_add(1, std::memory_order_relaxed);
    if (!mRequestDoneCallback) {
        CORVANE_LOGW("Bad request done callback");
        return;
    }
    // The callback may destroy the request, but not the mark.
    std::atomic<uint32_t>& mark = *request->mCallback;
    mark.store(request->mNumber.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    mRequestDoneCallback(request);
    mark.store(0, std::memory_order_release);  // the roll may drop it now
}
CORVANE_NO_THROW

int Scene::getFormat(const std::shared_ptr<IPort>& port, PixelFormat& format) const {
    const TraceSection section(area::kStreaming, "Scene::getFormat");
    if (port == nullptr)
        CORVANE_FATAL("port == nullptr");
    return inState(kAcquired, "getFormat") ? port->getFormat(format) : -1;
}

int Scene::setFormat(const std::shared_ptr<IPort>& port, PixelFormat& format) {
    const TraceSection section(area::kStreaming, "Scene::setFormat");
    if (port == nullptr)
        CORVANE_FATAL("port == nullptr");
    return inState(kAcquired, "setFormat") ? port->setFormat(format) : -1;
}

int Scene::importBuffer(const std::shared_ptr<IPort>& port, int count) {
    const TraceSection section(area::kStreaming, "Scene::importBuffer");
    if (port == nullptr)
        CORVANE_FATAL("port == nullptr");
    return inState(kAcquired, "importBuffer") ? port->importBuffer(count) : -1;
}

void Scene::explainStall(IPrinter* printer) const try {
    auto calls = System::callsUnderWay();
    explain(*printer, calls);
}
CORVANE_NO_THROW

void Scene::explain(IPrinter& printer, std::vector<System::CallUnderWay>& calls) const {
    StallReport report;
    report.scene = mRoll->sceneName();
    report.state = stateName(mState.load(std::memory_order_relaxed));
    report.queued = mQueuedCount.load(std::memory_order_relaxed);
    report.done = mDoneCount.load(std::memory_order_relaxed);
    report.requests = mRoll->view();
    // What the interfaces' make() operations made.
    report.due = static_cast<V4L2BufferMonitor&>(*mBufferMonitor).determineNeedToDQBUFCount();
    for (const auto& port : copyPorts())
        if (const auto device = std::static_pointer_cast<V4L2VideoDevice>(port->getVideoDevice()))
            report.ports.push_back({port->getName(), device->standing()});
    report.print(printer, calls);
}

void Scene::dumpState(IPrinter* printer) const try {
    printer->printFormatLine("<<Scene>> state=%s #Request(Queued,Done)=(%u,%u)",
                             stateName(mState.load(std::memory_order_relaxed)),
                             mQueuedCount.load(std::memory_order_relaxed),
                             mDoneCount.load(std::memory_order_relaxed));
    if (mBufferMonitor != nullptr)
        mBufferMonitor->dumpState(printer);
    for (const auto& port : copyPorts())
        port->dumpState(printer);
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
