// SPDX-License-Identifier: Apache-2.0
#include "SceneText.h"

#include <corvane/IV4L2VideoDevice.h>
#include <corvane/SceneDesc.h>

#include <algorithm>

#include "Text.h"

namespace NSVista::NSCorvane {

std::string toString(const PortDesc& port) {
    TextStream text;
    text << "{";
    if (port.port_name != nullptr)
        text << " .port_name=" << port.port_name;
    text << "(" << std::hex << port.index << ")";
    if (port.device_name != nullptr)
        text << " .device_name=" << port.device_name;
    if (port.single_device)
        text << " .single_device";
    if (port.ctrl_meta)
        text << " .ctrl_meta";
    text << " }";
    return text.str();
}

std::string toString(const LinkDesc& link) {
    TextStream text;
    text << nameOrEmpty(link.source_entity) << "(" << std::hex << link.source_pad << ")-"
         << nameOrEmpty(link.sink_entity) << "(" << link.sink_pad << ")";
    return text.str();
}

std::string toString(const FrameBuffer& buffer) {
    TextStream text;
    text << "{ .planes[" << buffer.planeCount << "]={";
    for (size_t i = 0; i < std::min(buffer.planeCount, FrameBuffer::kMaxPlanes); ++i)
        text << " .fd=" << buffer.planes[i].fd << " .offset=" << buffer.planes[i].offset
             << " .bufsize=" << buffer.planes[i].bufsize;
    text << " } }";
    return text.str();
}

}  // namespace NSVista::NSCorvane
