// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A media device as a user of the tools sees it.
 */
#pragma once

#include <linux/media.h>

#include <string>
#include <vector>

#include <corvane/client/SceneSession.h>
#include <corvane/client/VideoNode.h>

namespace NSVista::NSCorvane::tools {

/** An entity with its device node. */
struct Entity {
    media_entity_desc desc;
    std::string name;
    std::string devnode;  ///< empty when it has none
    std::vector<media_pad_desc> pads;

    bool isVideoNode() const { return desc.type == MEDIA_ENT_F_IO_V4L; }
    /** What it is, in words. */
    const char* kind() const;
};

/** A node that streams with media requests. */
struct NodePort {
    int index;  ///< among the device's ports, in the order of the entities
    std::string entity;
    std::string nodePath;
    client::VideoNode node;
};

/** A media device as it was found. */
struct Device {
    std::string path;
    std::string model;
    std::string driver;
    media_device_info info;
    std::vector<Entity> entities;
    std::vector<media_link_desc> links;  ///< each once
    std::vector<NodePort> ports;

    /** @return null when absent. */
    const Entity* find(const std::string& name) const;
    const Entity* find(unsigned id) const;
    /** A link's end as text, "entity:pad". */
    std::string endText(const media_pad_desc& pad) const;
    /** The first entity other than a video node that has a node; null when there is none. */
    const Entity* subDevice() const;
    /** The links that touch the ports and can be changed. */
    std::vector<client::SessionLink> linksOf(const std::vector<NodePort>& chosen) const;
};

/** All media devices in the order met; @p model keeps those of one model, empty all. */
std::vector<Device> findDevices(const std::string& model);

/** The models of all media devices, in the order met. */
std::vector<std::string> findModels();

}  // namespace NSVista::NSCorvane::tools
