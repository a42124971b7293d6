/**
 * @file
 * What the tool knows of the system's media devices.
 */
#pragma once

#include <linux/media.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace corvane::info {

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

/** A media device as it was found. */
struct Device {
    std::string path;
    std::string model;
    media_device_info info;
    std::vector<Entity> entities;
    std::vector<media_link_desc> links;  ///< each once

    /** @return null when absent. */
    const Entity* find(const std::string& name) const;
    const Entity* find(unsigned id) const;
};

/** A kernel record's character array, which may lack its terminating zero. */
template <size_t Size>
std::string textOf(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}

/** All media devices in the order met; @p model keeps those of one model, empty all. */
std::vector<Device> findDevices(const std::string& model);

}  // namespace corvane::info
