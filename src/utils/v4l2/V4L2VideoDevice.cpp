// SPDX-License-Identifier: Apache-2.0
// Opening, classing and streaming of a video node; formats and buffers are in files of their own.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/IMediaDevice.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "DriverCall.h"
#include "LoadTime.h"
#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

namespace {

using std::chrono::steady_clock;

const bool sStreamTimed = diagnosticsWanted(sLogLevel, 3);

constexpr std::chrono::nanoseconds kSlowStreamOn{2000000000};
constexpr std::chrono::nanoseconds kSlowStreamOff{3000000000};

/** A stream-on or stream-off: its result, and its time (0 where time is not measured). */
struct TimedCall {
    int ret;
    std::chrono::nanoseconds elapsed;
};

TimedCall timedStreamCall(int fd, unsigned long request, uint32_t bufType) {
    if (!sStreamTimed || buildType() == BuildType::Eng)
        return {driverCall(fd, request, &bufType), {}};
    const auto begin = steady_clock::now();
    const int ret = driverCall(fd, request, &bufType);
    return {ret, steady_clock::now() - begin};
}

std::string bufTypeName(uint32_t type) {
    const v4l2::BufferType* known = v4l2::findBufferType(type);
    return known != nullptr ? known->name : std::to_string(type);
}

std::string memoryName(uint32_t memory) {
    switch (memory) {
        case V4L2_MEMORY_MMAP:
            return "V4L2_MEMORY_MMAP";
        case V4L2_MEMORY_USERPTR:
            return "V4L2_MEMORY_USERPTR";
        case V4L2_MEMORY_OVERLAY:
            return "V4L2_MEMORY_OVERLAY";
        case V4L2_MEMORY_DMABUF:
            return "V4L2_MEMORY_DMABUF";
        default:
            return std::to_string(memory);
    }
}

}  // namespace

std::shared_ptr<IV4L2VideoDevice> IV4L2VideoDevice::make(IMediaDevice& media,
                                                         const std::string& name,
                                                         const std::string& entityName,
                                                         int portIndex) try {
    const TraceSection section(area::kStreaming, "IV4L2VideoDevice::make");
    return std::make_shared<V4L2VideoDevice>(portIndex, name,
                                             media.getEntityDevnodePath(entityName));
}
CORVANE_NO_THROW

V4L2VideoDevice::V4L2VideoDevice(int portIndex, const std::string& name,
                                 const std::string& devnodePath)
    : mPortIndex(portIndex), mName(name), mDevnodePath(devnodePath) {
}

V4L2VideoDevice::~V4L2VideoDevice() {
    if (mQueued.load(std::memory_order_relaxed))
        CORVANE_LOGK("%s  #DECKEY", toString().c_str());
    if (fd() != -1)
        CORVANE_FATAL("Still opened... %s", toString().c_str());
}

void V4L2VideoDevice::MonitorRef::store(const std::shared_ptr<IV4L2BufferMonitor>& monitor) {
    const MutexLock lock(mLock);
    const auto same = [&monitor](const Weak& stored) {
        return !stored.owner_before(monitor) && !monitor.owner_before(stored);
    };
    auto found = std::find_if(mStored.begin(), mStored.end(), same);
    if (found == mStored.end())
        found = mStored.insert_after(mStored.before_begin(), monitor);
    mCurrent.store(&*found, std::memory_order_release);
}

std::shared_ptr<V4L2VideoDevice> V4L2VideoDevice::self(const char* operation) {
    auto shared = weak_from_this().lock();
    if (shared == nullptr)
        CORVANE_FATAL_AS(operation, "Bad function");
    return shared;
}

int V4L2VideoDevice::setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor) try {
    const TraceSection section(area::kFormat, "V4L2VideoDevice::setMonitor");
    if (monitor == nullptr) {
        mMonitor.clear();
        return 0;
    }
    mMonitor.store(monitor);
    CORVANE_LOGK("attachObserver port:%d(%s)  #DECKEY", mPortIndex, mName.c_str());
    monitor->attachObserver(self("setMonitor"), mPortIndex);
    return 0;
}
CORVANE_NO_THROW

int V4L2VideoDevice::openDevice() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice::openDevice");
    if (fd() != -1) {
        CORVANE_LOGW("%s %d was opened", mDevnodePath.c_str(), fd());
        return -EEXIST;
    }
    const int opened = System::Open(mDevnodePath.c_str(), O_RDWR | O_NONBLOCK, ownerToken(&mFd));
    if (opened < 0) {
        CORVANE_LOGW("Failed to open %s ret=%d", mDevnodePath.c_str(), opened);
        return opened;
    }
    mFd.store(opened, std::memory_order_relaxed);
    v4l2_capability capability = {};
    if (const int ret = driverCall(opened, VIDIOC_QUERYCAP, &capability); ret < 0) {
        CORVANE_LOGE("Failed to query device capability: %d", ret);
        driverRefused("VIDIOC_QUERYCAP fail", ret);
        closeDevice();
        return ret;
    }
    const uint32_t caps = v4l2::deviceCaps(capability);
    mCaps.store(caps, std::memory_order_relaxed);
    if ((caps & V4L2_CAP_STREAMING) == 0) {
        CORVANE_LOGE("%s (%d) not support streaming", mName.c_str(), opened);
        return -EINVAL;
    }
    const uint32_t type = v4l2::portBufferType(caps);
    if (type == 0) {
        CORVANE_LOGE("Invalid video device capability");
        return -EINVAL;
    }
    mBufType.store(type, std::memory_order_relaxed);
    CORVANE_LOGD("%s(%d) type %d", mName.c_str(), opened, type);
    return 0;
}

int V4L2VideoDevice::closeDevice() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice::closeDevice");
    if (fd() == -1) {
        CORVANE_LOGD("%s %d was closed", mDevnodePath.c_str(), fd());
        return -EINVAL;
    }
    if (const int ret = System::Close(fd(), ownerToken(&mFd)); ret < 0) {
        CORVANE_LOGE("Failed to close %s %d", mDevnodePath.c_str(), fd());
        return ret;
    }
    mFd.store(-1, std::memory_order_relaxed);
    return 0;
}

int V4L2VideoDevice::streamOn() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice: VIDIOC_STREAMON");
    const auto [ret, elapsed] = timedStreamCall(fd(), VIDIOC_STREAMON, bufType());
    if (elapsed >= kSlowStreamOn)
        CORVANE_LOGW("%s: VIDIOC_STREAMON takes %s ns", mName.c_str(),
                     std::to_string(elapsed.count()).c_str());
    if (ret < 0) {
        CORVANE_LOGE("VIDIOC_STREAMON fail err=%d <%s>", ret, mName.c_str());
        return ret;
    }
    setStreamEnded(false);
    return 0;
}

int V4L2VideoDevice::streamOff() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice: VIDIOC_STREAMOFF");
    const auto [ret, elapsed] = timedStreamCall(fd(), VIDIOC_STREAMOFF, bufType());
    if (elapsed > kSlowStreamOff)
        CORVANE_LOGW("%s: VIDIOC_STREAMOFF takes %s ns", mName.c_str(),
                     std::to_string(elapsed.count()).c_str());
    if (ret < 0) {
        CORVANE_LOGE("VIDIOC_STREAMOFF fail err=%d <%s>", ret, mName.c_str());
        return ret;
    }
    setStreamEnded(true);
    if (const auto monitor = mMonitor.lock()) {
        CORVANE_LOGK("detachObserver port:%d(%s)  #DECKEY", mPortIndex, mName.c_str());
        monitor->detachObserver(self("streamOff"), mPortIndex);
        mMonitor.clear();
    }
    return 0;
}

std::string V4L2VideoDevice::toString() const try {
    const void* slots = nullptr;
    {
        const MutexLock lock(mSlotsMutex);
        slots = mSlots.get();
    }
    TextStream text;
    text << "V4L2VideoDevice: " << fd() << " -> " << mDevnodePath << " 0x" << std::hex << mPortIndex
         << "(" << mName << ") Cap=0x" << caps() << " " << bufTypeName(bufType()) << " { "
         << memoryName(memory()) << " #REQBUFS=" << std::dec
         << mReqBufCount.load(std::memory_order_relaxed) << " Free=0x" << std::hex
         << mFreeBits.load(std::memory_order_relaxed) << " " << slots << " }";
    return text.str();
}
CORVANE_NO_THROW

void V4L2VideoDevice::dumpState(IPrinter* printer) const try {
    if (!mQueued.load(std::memory_order_relaxed))
        return;
    printer->printFormatLine("%s", toString().c_str());
    if (mKeepIndexes.load(std::memory_order_relaxed) || remappedBuffers() != 0)
        printer->printFormatLine("    indexes kept, #remapped=%u", remappedBuffers());
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
