// SPDX-License-Identifier: Apache-2.0
#include "DeviceCore.h"

#include <algorithm>
#include <utility>

namespace NSVista::NSCorvane::sim {

DeviceCore::DeviceCore(const DeviceDesc& description, Graph graph, FileTable& files, Faults& faults)
    : mInfo(description.info),
      mFiles(files),
      mFaults(faults),
      mGraph(std::move(graph)),
      mPipeline(*this) {
    uint32_t ordinal = 0;
    for (size_t i = 0; i < description.entities.size(); ++i) {
        const EntityDesc& entity = description.entities[i];
        if (entity.video)
            mQueues.push_back(std::make_unique<BufferQueue>(*this, entity, i, ordinal++));
        else if (entity.subDevice)
            mSubDevices.push_back(
                std::make_unique<SubDevice>(entity.name, *entity.subDevice, filesOpen));
    }
    mPipeline.start();
}

DeviceCore::~DeviceCore() {
    mPipeline.stop();
}

int DeviceCore::setupLink(const media_link_desc& link) {
    return mGraph.setupLink(link, [this](size_t entity) CORVANE_REQUIRES(deviceState) {
        return std::any_of(mQueues.begin(), mQueues.end(),
                           [entity](const auto& queue) CORVANE_REQUIRES(deviceState) {
                               return queue->entity() == entity && queue->streaming();
                           });
    });
}

int32_t DeviceCore::brightness() const {
    return mSubDevices.empty() ? 0 : mSubDevices.front()->control(VENGINE_CTRL_BRIGHTNESS);
}

void DeviceCore::frameDone(uint32_t frame, const timespec& time) {
    for (const auto& subDevice : mSubDevices)
        subDevice->frameDone(frame, time);
}

}  // namespace NSVista::NSCorvane::sim
