// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cerrno>
#include <utility>

#include "DeviceCore.h"

namespace NSVista::NSCorvane::sim {

Device::Device(std::unique_ptr<DeviceCore> core) : mCore(std::move(core)) {
}
Device::~Device() = default;

std::string Device::path() const {
    return mCore->mediaPath;
}

std::string Device::nodePath(const std::string& entity) const {
    const DeviceLock lock(mCore->mutex());
    std::optional<size_t> index = mCore->graph().find(entity);
    return index ? mCore->entityPaths[*index] : std::string();
}

void Device::setBufferLimit(unsigned limit) {
    const DeviceLock lock(mCore->mutex());
    mCore->setBufferLimit(std::clamp(limit, 1u, kQueueCapacity));
}

void Device::setTiming(const Timing& timing) {
    const DeviceLock lock(mCore->mutex());
    mCore->pipeline().setTiming(timing);
}

void Device::hold() {
    const DeviceLock lock(mCore->mutex());
    mCore->pipeline().hold();
}

void Device::completeNext(unsigned count) {
    const DeviceLock lock(mCore->mutex());
    mCore->pipeline().completeNext(count);
}

void Device::resume() {
    const DeviceLock lock(mCore->mutex());
    mCore->pipeline().resume();
}

void Device::failBuffer(const std::string& entity, unsigned nth) {
    mCore->faults().fail({Operation::BUFFER, 0, entity}, EIO, nth);
}

int Device::linkFlags(const std::string& source, uint32_t sourcePad, const std::string& sink,
                      uint32_t sinkPad) const {
    const DeviceLock lock(mCore->mutex());
    return mCore->graph().linkFlags({source, sourcePad, sink, sinkPad, 0});
}

uint32_t Device::nextFrame() const {
    const DeviceLock lock(mCore->mutex());
    return mCore->pipeline().nextFrame();
}

DeviceCounts Device::counts() const {
    const DeviceLock lock(mCore->mutex());
    DeviceCounts counts;
    mCore->pipeline().count(counts);
    for (const auto& queue : mCore->queues()) {
        counts.remaps += queue->remaps();
        counts.mappedPlanes += queue->mappedPlanes();
    }
    counts.requests = mCore->requestsAlive;
    counts.openFiles = mCore->filesOpen;
    return counts;
}

SubDeviceCounts Device::subDeviceCounts() const {
    return mCore->subDevices().empty() ? SubDeviceCounts() : mCore->subDevices()[0]->counts();
}

std::vector<IoctlRecord> Device::takeIoctlRecords() {
    return mCore->subDevices().empty() ? std::vector<IoctlRecord>()
                                       : mCore->subDevices()[0]->takeRecords();
}

}  // namespace NSVista::NSCorvane::sim
