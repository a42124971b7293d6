// SPDX-License-Identifier: Apache-2.0
#include "Device.h"

#include <corvane/IDeviceEnumerator.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/UniqueFd.h>
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::bench {

void require(bool success, const char* what) {
    if (success)
        return;
    perror(what);
    exit(1);
}

Device::Device(size_t ports, size_t slots)
    : mMedia(IDeviceEnumerator::instance().search(VENGINE_MODEL)) {
    require(mMedia->acquire() == 0, "acquire");
    mc::enumerateMediaDevices([this](const media_device_info& info, const std::string& path) {
        mMediaNode = path;
        return std::string(VENGINE_MODEL) == static_cast<const char*>(info.model);
    });
    for (size_t i = 0; i < ports; ++i) {
        const vengine_port& port = vengine_ports[i];
        const auto pad = static_cast<uint32_t>(i);
        mPorts.push_back({port.name, static_cast<int>(i), port.name, true, false, false});
        if (port.immutable == 0)
            mLinks.push_back(v4l2::isOutput(port.buf_type)
                                 ? LinkDesc{port.name, 0, VENGINE_CORE_ENTITY, pad}
                                 : LinkDesc{VENGINE_CORE_ENTITY, pad, port.name, 0});
    }
    mDesc = {"bench",
             nullptr,
             static_cast<int>(mPorts.size()),
             mPorts.data(),
             static_cast<int>(mLinks.size()),
             mLinks.data()};
    const auto source = client::makeVideoNodeSource(exporter(*mMedia));
    mFrames.resize(slots);
    for (size_t i = 0; i < ports; ++i) {
        const PixelFormat format = setFormat(i);
        for (auto& frames : mFrames)
            require(frames.emplace_back().allocate(format, {}, *source) == 0, "memory");
        for (auto& frames : mFrames)
            prepare(i, frames.back());
    }
}

Device::~Device() {
    mMedia->release();
}

uint32_t Device::bufferType(size_t port) const {
    return vengine_ports[port].buf_type;
}

std::string Device::node(size_t port) const {
    return mMedia->getEntityDevnodePath(mPorts[port].device_name);
}

void Device::prepare(size_t port, client::Frame& frame) {
    if (vengine_ports[port].role != VENGINE_ROLE_TUNING)
        return;
    const vengine_tuning tuning = {VENGINE_TUNING_MAGIC, 0, 0, {}};
    const client::FrameMapping mapping = frame.map(client::CpuAccess::Write);
    require(static_cast<bool>(mapping), "a mapping");
    memcpy(mapping.plane(0).data(), &tuning, sizeof(tuning));
}

std::string Device::exporter(const IMediaDevice& media) {
    return media.getEntityDevnodePath("vengine-mask");
}

PixelFormat Device::setFormat(size_t port) const {
    const UniqueFd node(open(this->node(port).c_str(), O_RDWR | O_CLOEXEC));
    v4l2_format format = {};
    format.type = bufferType(port);
    require(ioctl(node.get(), VIDIOC_G_FMT, &format) == 0, "VIDIOC_G_FMT");
    if (!v4l2::isMeta(format.type)) {
        format.fmt.pix.width = kWidth;  // the same place in both layouts
        format.fmt.pix.height = kHeight;
        require(ioctl(node.get(), VIDIOC_S_FMT, &format) == 0, "VIDIOC_S_FMT");
    }
    PixelFormat result{};
    v4l2::readFormat(format, v4l2::formatClassOfType(format.type), result);
    return result;
}

}  // namespace NSVista::NSCorvane::bench
