// SPDX-License-Identifier: Apache-2.0
#include <corvane/mc/MediaTopology.h>

#include <corvane/V4L2.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>

#include "Text.h"

CORVANE_LOG_UNIT("corvane-DeviceEnumerator")

namespace NSVista::NSCorvane::mc {

using std::to_string;
using v4l2::fixedText;

std::string toString(const media_entity_desc& entity) try {
    return " .id=" + to_string(entity.id) + " .name=" + fixedText(entity.name) +
           " .type=" + to_string(entity.type) +
           (entity.flags != 0 ? " .flags=" + to_string(entity.flags) : "") +
           " .pads=" + to_string(entity.pads) + " .links=" + to_string(entity.links) +
           " .dev.major=" + to_string(entity.dev.major) +
           " .dev.minor=" + to_string(entity.dev.minor);
}
CORVANE_NO_THROW

std::string toString(const media_pad_desc& pad) try {
    return " .entity=" + to_string(pad.entity) + " .index=" + to_string(pad.index) +
           " .flags=" + to_string(pad.flags);
}
CORVANE_NO_THROW

std::string toString(const media_link_desc& link) try {
    return " .source=" + toString(link.source) + " .sink=" + toString(link.sink) +
           " .flags=" + to_string(link.flags);
}
CORVANE_NO_THROW

MediaEntity::MediaEntity(const media_entity_desc& desc, const media_link_desc* links,
                         const media_pad_desc* pads)
    : mDesc(desc) {
    if (links != nullptr)
        mLinks.assign(links, links + desc.links);
    if (pads != nullptr)
        mPads.assign(pads, pads + desc.pads);
}

std::string MediaEntity::determineDevnodePath() const {
    const std::string sysfs =
        "/sys/dev/char/" + std::to_string(mDesc.dev.major) + ":" + std::to_string(mDesc.dev.minor);
    char target[1024];
    const int length = System::ReadLink(sysfs.c_str(), target, sizeof(target));
    if (length < 0 || length >= static_cast<int>(sizeof(target))) {
        CORVANE_LOGE("Invalid sysfs device path: %s", sysfs.c_str());
        return {};
    }
    const std::string link(target, static_cast<size_t>(length));
    const size_t slash = link.rfind('/');
    if (slash == std::string::npos) {
        CORVANE_LOGE("Invalid sysfs device path: %s", sysfs.c_str());
        return {};
    }
    std::string devnode = "/dev/" + link.substr(slash + 1);
    struct stat info = {};
    if (System::Stat(devnode.c_str(), &info) < 0) {
        CORVANE_LOGE("Unable to find device node: %s", devnode.c_str());
        return {};
    }
    return devnode;
}

void MediaEntity::dumpState(IPrinter* printer) const {
    std::string text = "entity=" + toString(mDesc) + " links[";
    for (const auto& link : mLinks)
        text += "{" + toString(link) + " }";
    text += "] pads[";
    for (const auto& pad : mPads)
        text += "{" + toString(pad) + " }";
    text += "]";
    printer->printLine(text.c_str());
}

void MediaTopology::insertEntity(const std::shared_ptr<MediaEntity>& entity) {
    mEntities.emplace(fixedText(entity->desc().name), entity);
}

std::shared_ptr<MediaEntity> MediaTopology::findEntity(const char* name) const {
    const auto found = mEntities.find(nameOrEmpty(name));
    return found != mEntities.end() ? found->second : nullptr;
}

void MediaTopology::dumpState(IPrinter* printer, int detail) const {
    printer->printFormatLine(
        "<<MediaTopology>> '%s' MediaEntity[%zu] media_entity_desc[%zu] media_link_desc[%zu]",
        mName.c_str(), mEntities.size(), mEntityDescs.size(), mLinkDescs.size());
    if (detail != 'V')
        return;
    printer->printFormatLine("MediaEntity[%zu]", mEntities.size());
    for (const auto& [name, entity] : mEntities)
        entity->dumpState(printer);
    printer->printFormatLine("media_entity_desc[%zu]", mEntityDescs.size());
    for (const auto& desc : mEntityDescs)
        printer->printLine(toString(desc).c_str());
    printer->printFormatLine("media_link_desc[%zu]", mLinkDescs.size());
    for (const auto& desc : mLinkDescs)
        printer->printLine(toString(desc).c_str());
}

std::string MediaLink::key(unsigned int sourcePad, unsigned int sinkPad) {
    return std::to_string(sourcePad) + "-" + std::to_string(sinkPad);
}

int32_t MediaLink::enable(bool on) {
    if ((mFlags & MEDIA_LNK_FL_IMMUTABLE) != 0) {
        CORVANE_LOGW("Link is immutable");
        return -1;
    }
    if (on)
        mFlags |= MEDIA_LNK_FL_ENABLED;
    else
        mFlags &= ~(MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE);
    return 0;
}

media_link_desc MediaLink::copyLinkDesc() const {
    media_link_desc desc = *mDesc;
    desc.flags = mFlags;
    return desc;
}

}  // namespace NSVista::NSCorvane::mc
