// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Pipes: the client components that build scenes.
 */
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

class IMediaDevice;
class IScene;
class SceneManager;
struct SceneDebugInfo;

/** Base of all pipes. A pipe is created, called and dropped by its SceneManager, on its thread. */
class CORVANE_EXPORT PipeBase {
public:
    /** @param sceneManager outlives the pipe. */
    explicit PipeBase(SceneManager& sceneManager) : mSceneManager(sceneManager) {}
    virtual ~PipeBase();
    PipeBase(const PipeBase&) = delete;
    PipeBase& operator=(const PipeBase&) = delete;

    /** Prints the pipe's state. */
    virtual void dumpState(IPrinter* printer) = 0;
    /** Builds and registers the scenes. @return 0; on any other value the pipe is dropped. */
    virtual int init() = 0;
    /** Releases the scenes and removes them with delScene(). */
    virtual void uninit() = 0;

    /** SceneManager::getDebugInfo(). */
    std::shared_ptr<SceneDebugInfo> getDebugInfo(const std::string& name) const;
    /** Not supported, fatal: media devices come from IDeviceEnumerator. */
    std::shared_ptr<IMediaDevice> getDevice(const std::string& name);
    /** Not supported, fatal. */
    std::vector<std::shared_ptr<IMediaDevice>> getDevice(const std::vector<std::string>& names);
    /** SceneManager::addScene(). */
    int addScene(const std::string& name, std::shared_ptr<IScene> scene);
    /** SceneManager::delScene(). */
    int delScene(const std::string& name);

protected:
    SceneManager& mSceneManager;
};

/** Makes a pipe for a manager. */
using PipeCreator = std::function<std::shared_ptr<PipeBase>(SceneManager&)>;

/**
 * The process's registry of pipes. Not locked: register before any SceneManager::init(), typically
 * from static initialisers.
 */
class CORVANE_EXPORT PipeFactory {
public:
    static PipeFactory& Instance();
    PipeFactory(const PipeFactory&) = delete;
    PipeFactory& operator=(const PipeFactory&) = delete;

    /** Registers a creator; a name registered again gets the new creator and is listed twice. */
    void Register(const std::string& name, const PipeCreator& creator);
    /** Every registered name, in order, repeats included. */
    const std::vector<std::string>& GetList();
    /** @return the pipe, or empty for an unknown name. A registered empty creator is fatal. */
    std::shared_ptr<PipeBase> Create(const std::string& name, SceneManager& sceneManager);

private:
    PipeFactory() = default;

    std::vector<std::string> mList;
    std::unordered_map<std::string, PipeCreator> mCreators;
};

}  // namespace NSVista::NSCorvane
