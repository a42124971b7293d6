#include <corvane/mc/MediaDevice.h>

#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <fcntl.h>

#include <cstring>

#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-MediaDevice")

namespace NSVista::NSCorvane::mc {

MediaDevice::MediaDevice(const std::string& path, const std::shared_ptr<media_device_info>& info,
                         const std::shared_ptr<MediaTopology>& topology)
    : mPath(path), mDeviceInfo(info), mTopology(topology) {
    if (mPath.empty())
        CORVANE_FATAL("Bad device path");
    if (mDeviceInfo == nullptr)
        CORVANE_FATAL("Bad device info");
    if (mTopology != nullptr)
        initLinks();
}

MediaDevice::~MediaDevice() {
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

std::string MediaDevice::getEntityDevnodePath(const std::string& name) const {
    const auto entity = findEntity(name);
    return entity != nullptr ? entity->determineDevnodePath() : std::string();
}

int MediaDevice::open() {
    const TraceSection section(area::kLifecycle,
                               CORVANE_TRACE_NAME("MediaDevice::open %s", mPath.c_str()));
    if (mFd != -1)
        return 0;
    const int fd = System::Open(mPath.c_str(), O_RDWR, reinterpret_cast<unsigned long>(this));
    if (fd < 0) {
        CORVANE_LOGE("Failed to open %s: %d", mPath.c_str(), fd);
        return fd;
    }
    mFd = fd;
    return 0;
}

int MediaDevice::close() {
    const TraceSection section(
        area::kLifecycle, CORVANE_TRACE_NAME("MediaDevice::close %s fd=%d", mPath.c_str(), mFd));
    if (mFd == -1)
        return 0;
    const int ret = System::Close(mFd, reinterpret_cast<unsigned long>(this));
    mFd = -1;
    return ret;
}

std::shared_ptr<IMediaRequest> MediaDevice::makeRequest() {
    return std::make_shared<MediaRequest>(mFd);
}

bool MediaDevice::enableLink(bool enable, const char* sourceEntity, unsigned int sourcePad,
                             const char* sinkEntity, unsigned int sinkPad) {
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
    const int ret = System::Ioctl(mFd, static_cast<int>(MEDIA_IOC_SETUP_LINK), &desc, 3);
    if (ret < 0) {
        CORVANE_LOGE("MEDIA_IOC_SETUP_LINK fail err=%d", ret);
        CORVANE_DRIVER_EXCEPTION("MEDIA_IOC_SETUP_LINK fail err=%d(%s)", ret, strerror(-ret));
        return false;
    }
    return true;
}

void MediaDevice::dumpState(IPrinter* printer, signed char) const {
    printer->printFormatLine("<<MediaDevice>> fd=%d '%s' %s", mFd, mPath.c_str(),
                             mc::toString(*mDeviceInfo).c_str());
}

}  // namespace NSVista::NSCorvane::mc
