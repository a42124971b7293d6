// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A snapshot of a media device's graph.
 */
#pragma once

#include <linux/media.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane::mc {

CORVANE_EXPORT std::string toString(const media_entity_desc& entity);
CORVANE_EXPORT std::string toString(const media_pad_desc& pad);
CORVANE_EXPORT std::string toString(const media_link_desc& link);

/** One entity with its pads and links. Immutable. */
class CORVANE_EXPORT MediaEntity {
public:
    /** @param links, pads as many as @p desc says, copied; null for none. */
    MediaEntity(const media_entity_desc& desc, const media_link_desc* links,
                const media_pad_desc* pads);

    const media_entity_desc& desc() const { return mDesc; }
    const std::vector<media_link_desc>& links() const { return mLinks; }
    const std::vector<media_pad_desc>& pads() const { return mPads; }

    /**
     * The entity's device node, through "/sys/dev/char".
     * @return the path, or empty when sysfs or /dev does not have it (logged).
     */
    std::string determineDevnodePath() const;
    void dumpState(IPrinter* printer) const;

private:
    media_entity_desc mDesc;
    std::vector<media_link_desc> mLinks;
    std::vector<media_pad_desc> mPads;
};

/**
 * All entities and links of one media device, taken once by enumMediaTopology() and shared
 * read-only from then on: a MediaLink points into it.
 */
class CORVANE_EXPORT MediaTopology {
public:
    /** @param name path of the media device node. */
    explicit MediaTopology(const std::string& name) : mName(name) {}

    void insertEntityDesc(const media_entity_desc& desc) { mEntityDescs.push_back(desc); }
    /** Of several entities of one name the first stays. */
    void insertEntity(const std::shared_ptr<MediaEntity>& entity);
    void insertLinkDesc(const media_link_desc& link) { mLinkDescs.push_back(link); }
    /** @return null when absent. */
    std::shared_ptr<MediaEntity> findEntity(const char* name) const;

    const std::string& name() const { return mName; }
    /** In enumeration order. */
    const std::vector<media_entity_desc>& entityDescs() const { return mEntityDescs; }
    /** Entity by entity in enumeration order; a link stands once, with the entity of its source. */
    const std::vector<media_link_desc>& linkDescs() const { return mLinkDescs; }

    /** @param detail 'V' prints everything, anything else one line. */
    void dumpState(IPrinter* printer, int detail) const;

private:
    std::string mName;
    std::map<std::string, std::shared_ptr<MediaEntity>> mEntities;
    std::vector<media_entity_desc> mEntityDescs;
    std::vector<media_link_desc> mLinkDescs;
};

/** A media device's own view of one link: the descriptor with flags that change. */
class CORVANE_EXPORT MediaLink {
public:
    /** @param desc not owned, must outlive the link. */
    explicit MediaLink(const media_link_desc& desc) : mDesc(&desc), mFlags(desc.flags) {}

    /** "sourcePad-sinkPad", decimal. */
    static std::string key(unsigned int sourcePad, unsigned int sinkPad);
    bool isEqual(unsigned int sourcePad, unsigned int sinkPad) const {
        return mDesc->source.index == sourcePad && mDesc->sink.index == sinkPad;
    }
    /** Sets or clears the enabled flag. @return 0, or -1 for an immutable link (warned of). */
    int32_t enable(bool on);
    /** The descriptor with the current flags. */
    media_link_desc copyLinkDesc() const;

private:
    const media_link_desc* mDesc;
    uint32_t mFlags;
};

}  // namespace NSVista::NSCorvane::mc
