// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Entities, pads and links of a media device.
 */
#pragma once

#include <linux/media.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/** The graph of a media device. Not thread-safe. */
class Graph {
public:
    /** @return nothing when a link names an entity or a pad that is not there. */
    static std::optional<Graph> make(const DeviceDesc& description);

    /** Sets the device number of the node behind an entity. */
    void setDevnode(size_t entity, unsigned major, unsigned minor);

    /** @name Ioctls. Results are 0 or a negated errno.
     * @{ */
    int enumEntity(media_entity_desc& entity) const;
    int enumLinks(media_links_enum& links) const;
    /** MEDIA_IOC_G_TOPOLOGY. */
    int topology(media_v2_topology& topology) const;
    /** @param streaming whether an entity's node streams, which fixes its links. */
    int setupLink(const media_link_desc& link, const std::function<bool(size_t)>& streaming);
    /** @} */

    /** An entity without links, or with an enabled one. */
    bool connected(size_t entity) const;
    /** The link's flags, -EINVAL without such a link. */
    int linkFlags(const GraphLinkDesc& wanted) const;
    /** Index of the first entity of a name. */
    std::optional<size_t> find(const std::string& name) const;

private:
    struct Pad {
        size_t entity;
        uint32_t index;
        bool operator==(const Pad&) const = default;
    };
    struct Entity {
        uint32_t id;
        std::string name;
        uint32_t function;
        uint32_t type;  ///< function, as enumeration shows it
        uint32_t flags;
        std::vector<uint32_t> padFlags;
        uint32_t interface;  ///< MEDIA_INTF_T_* of its node, 0 without one
        unsigned major = 0, minor = 0;
    };
    struct Link {
        Pad source, sink;
        uint32_t flags;
    };

    uint32_t padId(const Pad& pad) const;
    std::optional<Pad> findPad(const std::string& entity, uint32_t index) const;
    std::optional<Pad> findPad(const media_pad_desc& pad) const;
    const Link* findLink(const std::optional<Pad>& source, const std::optional<Pad>& sink) const;
    media_pad_desc describe(const Pad& pad) const;

    std::vector<Entity> mEntities;
    std::vector<Link> mLinks;
};

}  // namespace NSVista::NSCorvane::sim
