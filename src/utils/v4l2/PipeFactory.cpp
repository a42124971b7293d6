// SPDX-License-Identifier: Apache-2.0
#include <corvane/Pipe.h>

#include <corvane/IScene.h>
#include <corvane/SceneManager.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>

#include <utility>

CORVANE_LOG_UNIT("corvane-SceneManager")

namespace NSVista::NSCorvane {

PipeBase::~PipeBase() = default;

std::shared_ptr<SceneDebugInfo> PipeBase::getDebugInfo(const std::string& name) const {
    return mSceneManager.getDebugInfo(name);
}

std::shared_ptr<IMediaDevice> PipeBase::getDevice(const std::string& name) {
    return mSceneManager.getDevice(name);
}

std::vector<std::shared_ptr<IMediaDevice>> PipeBase::getDevice(
    const std::vector<std::string>& names) {
    return mSceneManager.getDevice(names);
}

int PipeBase::addScene(const std::string& name, std::shared_ptr<IScene> scene) {
    return mSceneManager.addScene(name, std::move(scene));
}

int PipeBase::delScene(const std::string& name) {
    return mSceneManager.delScene(name);
}

PipeFactory& PipeFactory::Instance() {
    static PipeFactory factory;
    return factory;
}

void PipeFactory::Register(const std::string& name, const PipeCreator& creator) try {
    mCreators[name] = creator;
    mList.push_back(name);
}
CORVANE_NO_THROW

const std::vector<std::string>& PipeFactory::GetList() {
    return mList;
}

std::shared_ptr<PipeBase> PipeFactory::Create(const std::string& name,
                                              SceneManager& sceneManager) try {
    const auto found = mCreators.find(name);
    if (found == mCreators.end())
        return nullptr;
    if (!found->second)
        CORVANE_FATAL("Bad function");
    return found->second(sceneManager);
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
