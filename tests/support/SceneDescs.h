// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Descriptors of scenes and sessions on the virtual engine.
 */
#pragma once

#include <corvane/SceneDesc.h>
#include <corvane/client/SceneSession.h>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::test {

/**
 * Small pictures of the engine's ports @p first, @p first + @p step and so on, before @p end, with
 * the links that can be set.
 */
inline client::SessionDesc engineSession(std::string name, unsigned end, unsigned first = 0,
                                         unsigned step = 1) {
    client::SessionDesc desc;
    desc.name = std::move(name);
    for (unsigned i = first; i < end; i += step) {
        const vengine_port& port = vengine_ports[i];
        desc.ports.push_back({port.name, static_cast<int>(i), port.name, 0, 64, 16});
        if (port.immutable != 0)
            continue;
        if (V4L2_TYPE_IS_OUTPUT(port.buf_type))
            desc.links.push_back({port.name, 0, VENGINE_CORE_ENTITY, i});
        else
            desc.links.push_back({VENGINE_CORE_ENTITY, i, port.name, 0});
    }
    return desc;
}

/** A scene of a session's ports and links, with all that its descriptor points to. */
class BareDesc {
public:
    explicit BareDesc(client::SessionDesc session) : mSession(std::move(session)) {
        for (const client::SessionPort& port : mSession.ports)
            ports.push_back(
                {port.name.c_str(), port.index, port.entity.c_str(), false, false, false});
        for (const client::SessionLink& link : mSession.links)
            links.push_back(
                {link.sourceEntity.c_str(), link.sourcePad, link.sinkEntity.c_str(), link.sinkPad});
        scene = {mSession.name.c_str(),
                 nullptr,
                 static_cast<int32_t>(ports.size()),
                 ports.data(),
                 static_cast<int32_t>(links.size()),
                 links.data()};
    }
    BareDesc(const BareDesc&) = delete;
    BareDesc& operator=(const BareDesc&) = delete;

    std::vector<PortDesc> ports;
    std::vector<LinkDesc> links;
    SceneDesc scene = {};

private:
    const client::SessionDesc mSession;
};

}  // namespace NSVista::NSCorvane::test
