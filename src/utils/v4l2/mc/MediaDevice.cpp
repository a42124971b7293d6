// SPDX-License-Identifier: Apache-2.0
#include <corvane/mc/MediaDevice.h>

#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "DriverCall.h"
#include "RefusedOpen.h"
#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-MediaDevice")

namespace NSVista::NSCorvane::mc {

MediaDevice::MediaDevice(const std::string& path, const std::shared_ptr<media_device_info>& info,
                         const std::shared_ptr<MediaTopology>& topology) try
    : mPath(path), mDeviceInfo(info), mTopology(topology) {
    if (mPath.empty())
        CORVANE_FATAL("Bad device path");
    if (mDeviceInfo == nullptr)
        CORVANE_FATAL("Bad device info");
    if (mTopology != nullptr)
        initLinks();
}
CORVANE_NO_THROW

MediaDevice::~MediaDevice() {
    if (mFd != -1)
        close();
}

void MediaDevice::initLinks() {
    const auto& links = mTopology->linkDescs();
    const TraceSection section(area::kLifecycle,
                               CORVANE_TRACE_NAME("MediaDevice::initLinks #%zu", links.size()));
    for (const auto& link : links)
        mLinks.emplace(MediaLink::key(link.source.index, link.sink.index), MediaLink(link));
}

std::shared_ptr<MediaEntity> MediaDevice::findEntity(const std::string& name) const {
    return mTopology != nullptr ? mTopology->findEntity(name.c_str()) : nullptr;
}

bool MediaDevice::hasEntity(const std::string& name) const {
    return findEntity(name) != nullptr;
}

std::string MediaDevice::getEntityDevnodePath(const std::string& name) const try {
    const auto entity = findEntity(name);
    return entity != nullptr ? entity->determineDevnodePath() : std::string();
}
CORVANE_NO_THROW

int MediaDevice::open() try {
    const TraceSection section(area::kLifecycle,
                               CORVANE_TRACE_NAME("MediaDevice::open %s", mPath.c_str()));
    if (mFd != -1)
        return 0;
    const int fd = System::Open(mPath.c_str(), O_RDWR, ownerToken(this));
    if (fd < 0) {
        CORVANE_LOGE("Failed to open %s: %d", mPath.c_str(), fd);
        if (const std::string cause = refusedOpenCause(mPath, fd); !cause.empty())
            CORVANE_LOGE("%s", cause.c_str());
        return fd;
    }
    mFd = fd;
    return 0;
}
CORVANE_NO_THROW

int MediaDevice::close() {
    const int fd = mFd;
    const TraceSection section(
        area::kLifecycle, CORVANE_TRACE_NAME("MediaDevice::close %s fd=%d", mPath.c_str(), fd));
    if (fd == -1)
        return 0;
    const int ret = System::Close(fd, ownerToken(this));
    mFd = -1;
    return ret;
}

std::shared_ptr<IMediaRequest> MediaDevice::makeRequest() try {
    return std::make_shared<MediaRequest>(mFd);
}
CORVANE_NO_THROW

bool MediaDevice::enableLink(bool enable, const char* sourceEntity, unsigned int sourcePad,
                             const char* sinkEntity, unsigned int sinkPad) try {
    const TraceSection section(area::kFormat, "MediaDevice::enableLink");
    const auto found = mLinks.find(MediaLink::key(sourcePad, sinkPad));
    if (found == mLinks.end()) {
        CORVANE_LOGW("Not found link(%s:%u-%s:%u) to enable:%d", nameOrEmpty(sourceEntity),
                     sourcePad, nameOrEmpty(sinkEntity), sinkPad, enable);
        return true;
    }
    MediaLink& link = found->second;
    if (link.enable(enable) < 0)
        return true;
    media_link_desc desc = link.copyLinkDesc();
    const int fd = mFd;
    const int ret = driverCall(fd, MEDIA_IOC_SETUP_LINK, &desc);
    if (ret < 0) {
        CORVANE_LOGE("MEDIA_IOC_SETUP_LINK fail err=%d", ret);
        if (fd == -1)
            CORVANE_LOGE("%s is not acquired: acquire it before links are set and scenes run on it",
                         mPath.c_str());
        else if (ret == -EBUSY)
            CORVANE_LOGE("%s: link(%s:%u-%s:%u) is in use: links change while nothing streams",
                         mPath.c_str(), nameOrEmpty(sourceEntity), sourcePad,
                         nameOrEmpty(sinkEntity), sinkPad);
        driverRefused("MEDIA_IOC_SETUP_LINK fail", ret);
        return false;
    }
    return true;
}
CORVANE_NO_THROW

MediaDevice::LinkMatch MediaDevice::matchLink(const std::string& sourceEntity,
                                              unsigned int sourcePad, const std::string& sinkEntity,
                                              unsigned int sinkPad) const try {
    const auto source = findEntity(sourceEntity);
    const auto sink = findEntity(sinkEntity);
    if (source == nullptr || sink == nullptr)
        return LinkMatch::kNone;
    const auto isNamed = [&](const media_link_desc& link) {
        return link.source.entity == source->desc().id && link.source.index == sourcePad &&
               link.sink.entity == sink->desc().id && link.sink.index == sinkPad;
    };
    const auto& links = mTopology->linkDescs();
    if (std::none_of(links.begin(), links.end(), isNamed))
        return LinkMatch::kNone;
    const MediaLink& first = mLinks.find(MediaLink::key(sourcePad, sinkPad))->second;
    return isNamed(first.copyLinkDesc()) ? LinkMatch::kSame : LinkMatch::kOther;
}
CORVANE_NO_THROW

void MediaDevice::dumpState(IPrinter* printer, signed char) const try {
    printer->printFormatLine("<<MediaDevice>> fd=%d '%s' %s", mFd.load(), mPath.c_str(),
                             mc::toString(*mDeviceInfo).c_str());
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane::mc
