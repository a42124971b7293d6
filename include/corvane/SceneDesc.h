// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The descriptors of a scene, which a client fills in as constant tables.
 *
 * The library reads descriptors in place and never copies them: a descriptor, its arrays and all
 * strings it points to must stay valid and unchanged until the scene made from it is destroyed.
 */
#pragma once

#include <cstdint>

/** One video node of a scene. */
struct PortDesc {
    const char* port_name;    ///< names the port in logs; must not be null
    int32_t index;            ///< unique within the scene; the port's key everywhere
    const char* device_name;  ///< media entity whose node is opened; must not be null
    bool type_flag;           ///< port type: true gives 0, false gives 2
    bool single_device;       ///< the node is a single device
    bool ctrl_meta;           ///< kept beside single_device, for the client's use
};

/** One media link to enable. Links are identified by their two pad numbers alone. */
struct LinkDesc {
    const char* source_entity;
    uint32_t source_pad;
    const char* sink_entity;
    uint32_t sink_pad;
};

/** A scene: ports and links. */
struct SceneDesc {
    const char* scene_name;
    const void* client_data;  ///< for the client's use; the library does not read it
    int32_t num_ports;        ///< 0 or less: none
    const PortDesc* ports;
    int32_t num_links;  ///< 0 or less: none
    const LinkDesc* links;
};
