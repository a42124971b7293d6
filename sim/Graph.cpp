// SPDX-License-Identifier: Apache-2.0
#include "Graph.h"

#include <cerrno>
#include <cstring>

#include <algorithm>

namespace NSVista::NSCorvane::sim {

namespace {

/** Functions that the enumeration's users of old do not know are mapped to ones that they do. */
uint32_t enumeratedType(const EntityDesc& entity) {
    if (entity.function >= MEDIA_ENT_F_OLD_BASE && entity.function <= MEDIA_ENT_F_TUNER)
        return entity.function;
    return entity.subDevice ? MEDIA_ENT_F_V4L2_SUBDEV_UNKNOWN : MEDIA_ENT_T_DEVNODE_UNKNOWN;
}

}  // namespace

std::optional<Graph> Graph::make(const DeviceDesc& description) {
    Graph graph;
    uint32_t id = 1;
    for (const EntityDesc& entity : description.entities) {
        graph.mEntities.push_back({id, entity.name, enumeratedType(entity), entity.padFlags});
        // Pads and interfaces take their numbers from the same sequence.
        id += 1 + static_cast<uint32_t>(entity.padFlags.size()) +
              (entity.video || entity.subDevice ? 1 : 0);
    }
    for (const GraphLinkDesc& link : description.links) {
        auto source = graph.findPad(link.source, link.sourcePad);
        auto sink = graph.findPad(link.sink, link.sinkPad);
        if (!source || !sink)
            return std::nullopt;
        graph.mLinks.push_back({*source, *sink, link.flags});
    }
    return graph;
}

void Graph::setDevnode(size_t entity, unsigned major, unsigned minor) {
    mEntities[entity].major = major;
    mEntities[entity].minor = minor;
}

int Graph::enumEntity(media_entity_desc& entity) const {
    uint32_t id = entity.id & ~MEDIA_ENT_ID_FLAG_NEXT;
    bool next = entity.id & MEDIA_ENT_ID_FLAG_NEXT;
    auto found = std::find_if(mEntities.begin(), mEntities.end(),
                              [&](const Entity& e) { return next ? e.id > id : e.id == id; });
    if (found == mEntities.end())
        return -EINVAL;
    size_t index = static_cast<size_t>(found - mEntities.begin());
    entity = {};
    entity.id = found->id;
    found->name.copy(entity.name, sizeof(entity.name) - 1);
    entity.type = found->type;
    entity.pads = static_cast<uint16_t>(found->padFlags.size());
    entity.links =
        static_cast<uint16_t>(std::count_if(mLinks.begin(), mLinks.end(), [&](const Link& link) {
            return link.source.entity == index;
        }));
    entity.dev.major = found->major;
    entity.dev.minor = found->minor;
    return 0;
}

int Graph::enumLinks(media_links_enum& links) const {
    auto found = std::find_if(mEntities.begin(), mEntities.end(),
                              [&](const Entity& e) { return e.id == links.entity; });
    if (found == mEntities.end())
        return -EINVAL;
    size_t index = static_cast<size_t>(found - mEntities.begin());
    if (links.pads) {
        for (uint32_t pad = 0; pad < found->padFlags.size(); ++pad)
            links.pads[pad] = describe({index, pad});
    }
    if (links.links) {
        media_link_desc* out = links.links;
        for (const Link& link : mLinks) {
            if (link.source.entity != index)
                continue;
            *out = {};
            out->source = describe(link.source);
            out->sink = describe(link.sink);
            out->flags = link.flags;
            ++out;
        }
    }
    memset(links.reserved, 0, sizeof(links.reserved));
    return 0;
}

int Graph::setupLink(const media_link_desc& desc, const std::function<bool(size_t)>& streaming) {
    const Link* found = findLink(findPad(desc.source), findPad(desc.sink));
    if (!found)
        return -EINVAL;
    Link& link = mLinks[static_cast<size_t>(found - mLinks.data())];
    uint32_t fixed = ~static_cast<uint32_t>(MEDIA_LNK_FL_ENABLED);
    if ((link.flags & fixed) != (desc.flags & fixed))
        return -EINVAL;
    if (link.flags == desc.flags)
        return 0;
    if (link.flags & MEDIA_LNK_FL_IMMUTABLE)
        return -EINVAL;
    if (streaming(link.source.entity) || streaming(link.sink.entity))
        return -EBUSY;
    link.flags = desc.flags;
    return 0;
}

bool Graph::connected(size_t entity) const {
    bool any = false;
    for (const Link& link : mLinks) {
        if (link.source.entity != entity && link.sink.entity != entity)
            continue;
        if (link.flags & MEDIA_LNK_FL_ENABLED)
            return true;
        any = true;
    }
    return !any;
}

int Graph::linkFlags(const GraphLinkDesc& wanted) const {
    const Link* link =
        findLink(findPad(wanted.source, wanted.sourcePad), findPad(wanted.sink, wanted.sinkPad));
    return link ? static_cast<int>(link->flags) : -EINVAL;
}

std::optional<size_t> Graph::find(const std::string& name) const {
    for (size_t i = 0; i < mEntities.size(); ++i) {
        if (mEntities[i].name == name)
            return i;
    }
    return std::nullopt;
}

std::optional<Graph::Pad> Graph::findPad(const std::string& entity, uint32_t index) const {
    std::optional<size_t> found = find(entity);
    if (!found || index >= mEntities[*found].padFlags.size())
        return std::nullopt;
    return Pad{*found, index};
}

std::optional<Graph::Pad> Graph::findPad(const media_pad_desc& pad) const {
    for (size_t i = 0; i < mEntities.size(); ++i) {
        if (mEntities[i].id == pad.entity && pad.index < mEntities[i].padFlags.size())
            return Pad{i, pad.index};
    }
    return std::nullopt;
}

const Graph::Link* Graph::findLink(const std::optional<Pad>& source,
                                   const std::optional<Pad>& sink) const {
    if (!source || !sink)
        return nullptr;
    for (const Link& link : mLinks) {
        if (link.source == *source && link.sink == *sink)
            return &link;
    }
    return nullptr;
}

media_pad_desc Graph::describe(const Pad& pad) const {
    media_pad_desc desc = {};
    desc.entity = mEntities[pad.entity].id;
    desc.index = static_cast<uint16_t>(pad.index);
    desc.flags = mEntities[pad.entity].padFlags[pad.index];
    return desc;
}

}  // namespace NSVista::NSCorvane::sim
