// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The manager of pipes and scenes.
 */
#pragma once

#include <time.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <corvane/Pipe.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

class IDeviceEnumerator;

/** @return a - b in nanoseconds. */
CORVANE_EXPORT int64_t determineDiffTimespecInNs(const struct timespec& a,
                                                 const struct timespec& b);

/**
 * What a host process creates once: it creates the registered pipes and knows scenes and their
 * debug records by name.
 *
 * Any thread; each map has a lock of its own, none is held while pipes or scenes are called, and
 * objects that leave a map are destroyed after its lock is released. init() and uninit() are called
 * by one owner.
 */
class CORVANE_EXPORT SceneManager {
public:
    SceneManager();
    /** Drops the pipes, then the scenes; they may call the manager from their destructors. */
    ~SceneManager();
    SceneManager(const SceneManager&) = delete;
    SceneManager& operator=(const SceneManager&) = delete;

    /**
     * Creates and initialises every registered pipe in the order of registration.
     * @return 0 or the status of the first pipe that failed; pipes before it stay.
     */
    int init();
    /** Uninitialises and drops the pipes. Debug records stay. */
    void uninit();
    /** Registers a scene; the first of a name stays. @return 0. */
    int addScene(const std::string& name, std::shared_ptr<IScene> scene);
    /** Forgets a scene. @return 0. */
    int delScene(const std::string& name);
    /** @return empty when there is none (logged). */
    std::shared_ptr<IScene> getScene(const std::string& name) const;
    /** The record of a scene name, made on first use and kept for good; never empty. */
    std::shared_ptr<SceneDebugInfo> getDebugInfo(const std::string& name);
    /** Not supported, fatal: media devices come from IDeviceEnumerator. */
    std::shared_ptr<IMediaDevice> getDevice(const std::string& name);
    /** Not supported, fatal. */
    std::vector<std::shared_ptr<IMediaDevice>> getDevice(const std::vector<std::string>& names);
    /**
     * Says of every scene why it does not go on, see Scene::explainStall(), and which other calls
     * of the driver have not returned. Any thread, beside anything.
     */
    void explainStall(IPrinter* printer) const;
    /** Prints scenes, debug records, the device enumerator and pipes. */
    void dumpState(IPrinter* printer) const;

private:
    template <class T>
    using Map = std::unordered_map<std::string, std::shared_ptr<T>>;

    size_t sceneCount() const;
    Map<IScene> copyScenes() const;
    Map<PipeBase> takePipes();

    IDeviceEnumerator& mDeviceEnumerator;
    mutable Mutex mPipeLock;
    Map<PipeBase> mPipes CORVANE_GUARDED_BY(mPipeLock);
    mutable Mutex mSceneLock;
    Map<IScene> mScenes CORVANE_GUARDED_BY(mSceneLock);
    mutable Mutex mDebugInfoLock;
    Map<SceneDebugInfo> mDebugInfos CORVANE_GUARDED_BY(mDebugInfoLock);
};

}  // namespace NSVista::NSCorvane
