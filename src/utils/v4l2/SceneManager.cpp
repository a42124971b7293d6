// SPDX-License-Identifier: Apache-2.0
#include <corvane/SceneManager.h>

#include <corvane/IDeviceEnumerator.h>
#include <corvane/IScene.h>
#include <corvane/SceneControl.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/Trace.h>

#include <utility>

#include "CpuTime.h"
#include "StallReport.h"
#include "Stamp.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-SceneManager")

namespace NSVista::NSCorvane {

namespace {

/** "time+DURATIONus" of one pair of stamps. */
std::string pairText(const struct timespec& begin, const struct timespec& end) {
    const struct timespec from = loadStamp(begin);
    return convertToFormattedLogTime(from) + "+" +
           std::to_string(determineDiffTimespecInNs(loadStamp(end), from) / 1000) + "us";
}

std::string debugInfoText(const SceneDebugInfo& info) {
    return "{ streamOn(" + pairText(info.streamOnBegin, info.streamOnEnd) + ") streamOff(" +
           pairText(info.streamOffBegin, info.streamOffEnd) + ") }";
}

}  // namespace

void registerDefaultMediaConfigs(const DefaultMediaConfigs* configs) {
    mc::DeviceEnumerator::instance().registerDefaultMediaConfigs(configs);
}

int64_t determineDiffTimespecInNs(const struct timespec& a, const struct timespec& b) {
    return timeDiffInNs(a, b);
}

SceneManager::SceneManager() : mDeviceEnumerator(IDeviceEnumerator::instance()) {
}

SceneManager::~SceneManager() {
    takePipes().clear();
    Map<IScene> scenes;
    const MutexLock lock(mSceneLock);
    scenes.swap(mScenes);
}

SceneManager::Map<PipeBase> SceneManager::takePipes() {
    Map<PipeBase> pipes;
    const MutexLock lock(mPipeLock);
    pipes.swap(mPipes);
    return pipes;
}

size_t SceneManager::sceneCount() const {
    const MutexLock lock(mSceneLock);
    return mScenes.size();
}

int SceneManager::init() try {
    const TraceSection section(area::kLifecycle, "SceneManager::init");
    if (const size_t scenes = sceneCount(); scenes != 0)
        CORVANE_LOGE("there're still %zu scenes!", scenes);
    CORVANE_LOGI("+ SceneManager::init");
    const CpuTimer timer;
    const std::vector<std::string> names = PipeFactory::Instance().GetList();
    for (const auto& name : names) {
        const TraceSection creating(area::kLifecycle, CORVANE_TRACE_NAME("pipe: %s", name.c_str()));
        auto pipe = PipeFactory::Instance().Create(name, *this);
        if (pipe == nullptr)
            CORVANE_FATAL("Bad pipe");
        if (const int ret = pipe->init(); ret != 0)
            return ret;
        const MutexLock lock(mPipeLock);
        // A pipe replaced under its name leaves with the local pointer, after the lock.
        mPipes[name].swap(pipe);
    }
    CORVANE_LOGI("- SceneManager::init (cputime %s ns)", timer.text().c_str());
    return 0;
}
CORVANE_NO_THROW

void SceneManager::uninit() try {
    const TraceSection section(area::kLifecycle, "SceneManager::uninit");
    CORVANE_LOGI("+ SceneManager::uninit");
    const CpuTimer timer;
    Map<PipeBase> pipes = takePipes();
    for (const auto& [name, pipe] : pipes)
        pipe->uninit();
    pipes.clear();
    if (const size_t scenes = sceneCount(); scenes != 0)
        CORVANE_LOGE("there're still %zu scenes!", scenes);
    CORVANE_LOGI("- SceneManager::uninit (cputime %s ns)", timer.text().c_str());
}
CORVANE_NO_THROW

int SceneManager::addScene(const std::string& name, std::shared_ptr<IScene> scene) try {
    const TraceSection section(area::kLifecycle, "SceneManager::addScene");
    bool inserted = false;
    {
        const MutexLock lock(mSceneLock);
        inserted = mScenes.try_emplace(name, std::move(scene)).second;
    }
    if (!inserted)
        CORVANE_LOGE("Scene %s has already existed", name.c_str());
    CORVANE_LOGI("Add scene %s to map", name.c_str());
    return 0;
}
CORVANE_NO_THROW

int SceneManager::delScene(const std::string& name) try {
    Map<IScene>::node_type removed;
    const MutexLock lock(mSceneLock);
    removed = mScenes.extract(name);
    return 0;
}
CORVANE_NO_THROW

std::shared_ptr<IScene> SceneManager::getScene(const std::string& name) const try {
    const TraceSection section(area::kLifecycle, "SceneManager::getScene");
    std::shared_ptr<IScene> scene;
    bool known = false;
    {
        const MutexLock lock(mSceneLock);
        const auto found = mScenes.find(name);
        known = found != mScenes.end();
        if (known)
            scene = found->second;
    }
    if (!known) {
        CORVANE_LOGE("Not found scene %s", name.c_str());
        return nullptr;
    }
    CORVANE_LOGI("Get scene %s", name.c_str());
    return scene;
}
CORVANE_NO_THROW

std::shared_ptr<SceneDebugInfo> SceneManager::getDebugInfo(const std::string& name) try {
    std::shared_ptr<SceneDebugInfo> record;
    {
        const MutexLock lock(mDebugInfoLock);
        auto& entry = mDebugInfos[name];
        if (entry == nullptr)
            entry = std::make_shared<SceneDebugInfo>();
        record = entry;
    }
    if (record == nullptr)
        CORVANE_FATAL("std::make_shared<SceneDebugInfo>");
    return record;
}
CORVANE_NO_THROW

std::shared_ptr<IMediaDevice> SceneManager::getDevice(const std::string& name) {
    const TraceSection section(area::kLifecycle,
                               CORVANE_TRACE_NAME("SceneManager::getDevice %s", name.c_str()));
    CORVANE_FATAL("Unsupported");
}

std::vector<std::shared_ptr<IMediaDevice>> SceneManager::getDevice(
    const std::vector<std::string>&) {
    const TraceSection section(area::kLifecycle, "SceneManager::getDevice");
    CORVANE_FATAL("Unsupported");
}

SceneManager::Map<IScene> SceneManager::copyScenes() const {
    const MutexLock lock(mSceneLock);
    return mScenes;
}

void SceneManager::explainStall(IPrinter* printer) const try {
    auto calls = System::callsUnderWay();
    for (const auto& [name, scene] : copyScenes())
        if (const auto* const known = dynamic_cast<const Scene*>(scene.get()))
            known->explain(*printer, calls);
    for (const auto& call : calls)
        printer->printFormatLine("in %s", textOf(call).c_str());
}
CORVANE_NO_THROW

void SceneManager::dumpState(IPrinter* printer) const try {
    const Map<IScene> scenes = copyScenes();
    for (const auto& [name, scene] : scenes) {
        if (scene != nullptr)
            scene->dumpState(printer);
        printer->printLine("");
    }
    Map<SceneDebugInfo> debugInfos;
    {
        const MutexLock lock(mDebugInfoLock);
        debugInfos = mDebugInfos;
    }
    for (const auto& [name, info] : debugInfos) {
        printer->printFormatLine("Scene:'%s' %s", name.c_str(), debugInfoText(*info).c_str());
        printer->printLine("");
    }
    mDeviceEnumerator.dumpState(printer);
    Map<PipeBase> pipes;
    {
        const MutexLock lock(mPipeLock);
        pipes = mPipes;
    }
    printer->printLine("");
    for (const auto& [name, pipe] : pipes) {
        pipe->dumpState(printer);
        printer->printLine("");
    }
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
