// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Media devices on a fake kernel: their infos, entities, pads and links.
 */
#pragma once

#include <initializer_list>

#include "support/FakeKernel.h"

namespace NSVista::NSCorvane::test {

/** A name that fills its field has no terminating zero, as the kernel's records allow. */
inline media_entity_desc entityOf(uint32_t id, const char* name, uint16_t pads, uint16_t links) {
    media_entity_desc entity = {};
    entity.id = id;
    std::string(name).copy(entity.name, sizeof(entity.name));
    entity.type = 7;
    entity.pads = pads;
    entity.links = links;
    entity.dev.major = 81;
    entity.dev.minor = id;
    return entity;
}

inline media_pad_desc padOf(uint32_t entity, uint16_t index, uint32_t flags) {
    return {entity, index, flags, {}};
}

inline media_link_desc linkOf(const media_pad_desc& source, const media_pad_desc& sink,
                              uint32_t flags) {
    return {source, sink, flags, {}};
}

inline media_device_info infoOf(const char* model) {
    media_device_info info = {"drv", "", "s1", "platform:x", 0x601c0, 0, 0x10, {}};
    std::string(model).copy(info.model, sizeof(info.model));
    return info;
}

/** infoOf() in a state dump. */
inline std::string infoText(const std::string& model) {
    return " .driver=drv .model=" + model +
           " .serial=s1 .bus_info=platform:x .media_version=0x601c0 .hw_revision=0"
           " .driver_version=0x10";
}

/** One media device. Links are those of the entity at the same place. */
struct MediaGraph {
    const char* model;
    std::vector<media_entity_desc> entities = {};
    std::vector<std::vector<media_pad_desc>> pads = {};
    std::vector<std::vector<media_link_desc>> links = {};
};

/** A kernel that lists and describes media devices, by the name of their node. */
class MediaKernel : public FakeKernel {
public:
    MediaKernel(std::initializer_list<std::pair<const std::string, MediaGraph>> graphs)
        : mGraphs(graphs) {
        for (const auto& [name, graph] : mGraphs)
            directory.push_back(name);
        on<media_device_info>(MEDIA_IOC_DEVICE_INFO, [this](int fd, media_device_info& info) {
            info = infoOf(graphOf(fd).model);
            return 0;
        });
        on<media_entity_desc>(MEDIA_IOC_ENUM_ENTITIES, [this](int fd, media_entity_desc& entity) {
            const uint32_t after = entity.id & ~MEDIA_ENT_ID_FLAG_NEXT;
            if (after == entity.id)
                return -EINVAL;  // the walk must ask for the next one
            for (const auto& known : graphOf(fd).entities)
                if (known.id > after)
                    return entity = known, 0;
            return -EINVAL;
        });
        on<media_links_enum>(MEDIA_IOC_ENUM_LINKS, [this](int fd, media_links_enum& walk) {
            const MediaGraph& graph = graphOf(fd);
            for (size_t i = 0; i < graph.entities.size(); ++i) {
                if (graph.entities[i].id != walk.entity)
                    continue;
                if ((walk.pads == nullptr) != graph.pads[i].empty() ||
                    (walk.links == nullptr) != graph.links[i].empty())
                    return -EFAULT;
                std::copy(graph.pads[i].begin(), graph.pads[i].end(), walk.pads);
                std::copy(graph.links[i].begin(), graph.links[i].end(), walk.links);
                return 0;
            }
            return -EINVAL;
        });
    }

private:
    const MediaGraph& graphOf(int fd) { return mGraphs.at(pathOf(fd).substr(strlen("/dev/"))); }
    const std::map<std::string, MediaGraph> mGraphs;
};

/** A sensor (1) linked to a processor (2), and an entity (5) without pads. */
inline MediaGraph smallGraph(const char* model) {
    const media_pad_desc source = padOf(1, 0, MEDIA_PAD_FL_SOURCE);
    const media_pad_desc sink = padOf(2, 3, MEDIA_PAD_FL_SINK);
    return {model,
            {entityOf(1, "sensor", 1, 1), entityOf(2, "proc", 1, 0), entityOf(5, "lone", 0, 0)},
            {{source}, {sink}, {}},
            {{linkOf(source, sink, 0)}, {}, {}}};
}

}  // namespace NSVista::NSCorvane::test
