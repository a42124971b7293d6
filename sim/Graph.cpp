// SPDX-License-Identifier: Apache-2.0
#include "Graph.h"

#include <cerrno>
#include <cstring>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace NSVista::NSCorvane::sim {

namespace {

/** Functions that the enumeration's users of old do not know are mapped to ones that they do. */
uint32_t enumeratedType(const EntityDesc& entity) {
    if (entity.type != 0)
        return entity.type;
    if (entity.function >= MEDIA_ENT_F_OLD_BASE && entity.function <= MEDIA_ENT_F_TUNER)
        return entity.function;
    return entity.subDevice ? MEDIA_ENT_F_V4L2_SUBDEV_UNKNOWN : MEDIA_ENT_T_DEVNODE_UNKNOWN;
}

uint32_t interfaceOf(const EntityDesc& entity) {
    if (entity.subDevice)
        return MEDIA_INTF_T_V4L_SUBDEV;
    if (!entity.video)
        return 0;
    constexpr std::string_view kTouch = "v4l-touch";
    return entity.node.name.starts_with(kTouch) ? MEDIA_INTF_T_V4L_TOUCH : MEDIA_INTF_T_V4L_VIDEO;
}

/** Numbers of pads, links and interfaces, each kind apart from the others and from entities. */
enum : uint32_t { kPads = 1U << 24, kLinks = 2U << 24, kInterfaces = 3U << 24 };

/** Hands a list of the topology out; without a place for it tells only how long it is. */
template <class Item>
int handOut(const std::vector<Item>& items, uint32_t room, uint64_t pointer) {
    if (pointer == 0)
        return 0;
    if (room < items.size())
        return -ENOSPC;
    std::copy(items.begin(), items.end(), reinterpret_cast<Item*>(pointer));
    return 0;
}

}  // namespace

std::optional<Graph> Graph::make(const DeviceDesc& description) {
    Graph graph;
    uint32_t id = 1;
    for (const EntityDesc& entity : description.entities) {
        id = entity.id != 0 ? entity.id : id;
        graph.mEntities.push_back({id, entity.name, entity.function, enumeratedType(entity),
                                   entity.flags, entity.padFlags, interfaceOf(entity)});
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
    entity.flags = found->flags;
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

uint32_t Graph::padId(const Pad& pad) const {
    uint32_t id = kPads + 1 + pad.index;
    for (size_t entity = 0; entity < pad.entity; ++entity)
        id += static_cast<uint32_t>(mEntities[entity].padFlags.size());
    return id;
}

int Graph::topology(media_v2_topology& topology) const {
    std::vector<media_v2_entity> entities;
    std::vector<media_v2_interface> interfaces;
    std::vector<media_v2_pad> pads;
    std::vector<media_v2_link> links;
    uint32_t linkId = kLinks;
    for (const Link& link : mLinks)
        links.push_back({++linkId, padId(link.source), padId(link.sink), link.flags, {}});
    for (size_t n = 0; n < mEntities.size(); ++n) {
        const Entity& from = mEntities[n];
        media_v2_entity& entity = entities.emplace_back();
        entity.id = from.id;
        from.name.copy(entity.name, sizeof(entity.name) - 1);
        entity.function = from.function;
        entity.flags = from.flags;
        for (uint32_t pad = 0; pad < from.padFlags.size(); ++pad)
            pads.push_back({padId({n, pad}), from.id, from.padFlags[pad], pad, {}});
        if (from.interface == 0)
            continue;
        media_v2_interface& interface = interfaces.emplace_back();
        interface.id = kInterfaces + static_cast<uint32_t>(interfaces.size());
        interface.intf_type = from.interface;
        interface.devnode = {from.major, from.minor};
        links.push_back(
            {++linkId,
             interface.id,
             from.id,
             MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE | MEDIA_LNK_FL_INTERFACE_LINK,
             {}});
    }
    topology.topology_version = 0;
    topology.reserved1 = topology.reserved2 = topology.reserved3 = topology.reserved4 = 0;
    const int results[] = {
        handOut(entities, topology.num_entities, topology.ptr_entities),
        handOut(interfaces, topology.num_interfaces, topology.ptr_interfaces),
        handOut(pads, topology.num_pads, topology.ptr_pads),
        handOut(links, topology.num_links, topology.ptr_links),
    };
    topology.num_entities = static_cast<uint32_t>(entities.size());
    topology.num_interfaces = static_cast<uint32_t>(interfaces.size());
    topology.num_pads = static_cast<uint32_t>(pads.size());
    topology.num_links = static_cast<uint32_t>(links.size());
    return *std::min_element(std::begin(results), std::end(results));
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
