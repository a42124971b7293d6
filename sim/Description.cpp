// SPDX-License-Identifier: Apache-2.0
#include <corvane/sim/Description.h>

#include <linux/videodev2.h>
#include <cstring>

#include <algorithm>

#include <corvane/V4L2.h>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::sim {

void DeviceDesc::setNames(const std::string& driver, const std::string& model) {
    memset(info.driver, 0, sizeof(info.driver));
    memset(info.model, 0, sizeof(info.model));
    driver.copy(info.driver, sizeof(info.driver) - 1);
    model.copy(info.model, sizeof(info.model) - 1);
}

EntityDesc& DeviceDesc::addVideoNode(const std::string& name, const VideoDesc& video) {
    uint32_t pad = v4l2::isOutput(video.bufType) ? MEDIA_PAD_FL_SOURCE : MEDIA_PAD_FL_SINK;
    return entities.emplace_back(EntityDesc{name, MEDIA_ENT_F_IO_V4L, {pad}, video});
}

namespace {

SubDeviceDesc describeSubDevice() {
    SubDeviceDesc subDevice;
    subDevice.privateControls.emplace();
    for (const vengine_control& control : vengine_controls)
        subDevice.privateControls->push_back({control.id, control.min, control.max, control.def});
    return subDevice;
}

}  // namespace

bool ControlDesc::hasValue() const {
    return type != V4L2_CTRL_TYPE_INTEGER64 && type != V4L2_CTRL_TYPE_CTRL_CLASS &&
           (flags & V4L2_CTRL_FLAG_HAS_PAYLOAD) == 0;
}

DeviceDesc describeVirtualEngine(const char* model) {
    DeviceDesc device;
    device.setNames(VENGINE_DRIVER, model ? model : VENGINE_MODEL);
    strcpy(device.info.bus_info, "platform:" VENGINE_DRIVER);
    device.info.driver_version = device.info.media_version = 6 << 16 | 1 << 8;
    device.info.hw_revision = 1;

    EntityDesc core{VENGINE_CORE_ENTITY, VENGINE_CORE_FUNCTION, {}};
    for (const vengine_port& port : vengine_ports) {
        core.padFlags.push_back(v4l2::isOutput(port.buf_type) ? MEDIA_PAD_FL_SINK
                                                              : MEDIA_PAD_FL_SOURCE);
    }
    core.padFlags.push_back(MEDIA_PAD_FL_SINK);
    device.entities.push_back(core);
    device.entities.push_back(EntityDesc{VENGINE_SUBDEV_ENTITY,
                                         VENGINE_SUBDEV_FUNCTION,
                                         {MEDIA_PAD_FL_SOURCE},
                                         {},
                                         describeSubDevice()});

    constexpr uint32_t kFixed = MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE;
    for (uint32_t n = 0; n < VENGINE_PORTS; ++n) {
        const vengine_port& port = vengine_ports[n];
        device.addVideoNode(port.name, VideoDesc{port.buf_type, port.format, port.role});
        GraphLinkDesc link{VENGINE_CORE_ENTITY, n, port.name, 0, port.immutable ? kFixed : 0};
        if (v4l2::isOutput(port.buf_type)) {
            std::swap(link.source, link.sink);
            std::swap(link.sourcePad, link.sinkPad);
        }
        device.links.push_back(link);
    }
    device.links.push_back(
        {VENGINE_SUBDEV_ENTITY, 0, VENGINE_CORE_ENTITY, VENGINE_SUBDEV_CORE_PAD, kFixed});
    return device;
}

}  // namespace NSVista::NSCorvane::sim
