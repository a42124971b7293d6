// Opening, classing and streaming of a video node; formats and buffers are in files of their own.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/IMediaDevice.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

#include "LoadTime.h"
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

TimedCall timedStreamCall(int fd, unsigned long request, uint32_t& bufType) {
    if (!sStreamTimed || buildType() == BuildType::Eng)
        return {System::Ioctl(fd, static_cast<int>(request), &bufType, 3), {}};
    const auto begin = steady_clock::now();
    const int ret = System::Ioctl(fd, static_cast<int>(request), &bufType, 3);
    return {ret, steady_clock::now() - begin};
}

constexpr uint32_t kCaptureCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE;
constexpr uint32_t kOutputCaps = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE;
constexpr uint32_t kMultiPlanarCaps = V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_OUTPUT_MPLANE;

/** The buffer type of a node, 0 for a node of no known class. Capture is tested before output. */
uint32_t bufTypeOf(uint32_t caps) {
    if ((caps & kCaptureCaps) != 0)
        return (caps & kMultiPlanarCaps) != 0 ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE
                                              : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if ((caps & kOutputCaps) != 0)
        return (caps & V4L2_CAP_VIDEO_OUTPUT_MPLANE) != 0 ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE
                                                          : V4L2_BUF_TYPE_VIDEO_OUTPUT;
    if ((caps & V4L2_CAP_META_CAPTURE) != 0)
        return V4L2_BUF_TYPE_META_CAPTURE;
    if ((caps & V4L2_CAP_META_OUTPUT) != 0)
        return V4L2_BUF_TYPE_META_OUTPUT;
    return 0;
}

std::string bufTypeName(uint32_t type) {
    switch (type) {
        case V4L2_BUF_TYPE_VIDEO_CAPTURE:
            return "V4L2_BUF_TYPE_VIDEO_CAPTURE";
        case V4L2_BUF_TYPE_VIDEO_OUTPUT:
            return "V4L2_BUF_TYPE_VIDEO_OUTPUT";
        case V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE:
            return "V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE";
        case V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE:
            return "V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE";
        case V4L2_BUF_TYPE_META_CAPTURE:
            return "V4L2_BUF_TYPE_META_CAPTURE";
        case V4L2_BUF_TYPE_META_OUTPUT:
            return "V4L2_BUF_TYPE_META_OUTPUT";
        case V4L2_BUF_TYPE_PRIVATE:
            return "V4L2_BUF_TYPE_PRIVATE";
        default:
            return std::to_string(type);
    }
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
                                                         int portIndex) {
    const TraceSection section(area::kStreaming, "IV4L2VideoDevice::make");
    return std::make_shared<V4L2VideoDevice>(portIndex, name,
                                             media.getEntityDevnodePath(entityName));
}

V4L2VideoDevice::V4L2VideoDevice(int portIndex, const std::string& name,
                                 const std::string& devnodePath)
    : mPortIndex(portIndex), mName(name), mDevnodePath(devnodePath) {
}

V4L2VideoDevice::~V4L2VideoDevice() {
    if (mQueued.load(std::memory_order_relaxed))
        CORVANE_LOGK("%s  #DECKEY", toString().c_str());
    if (mFd != -1)
        CORVANE_FATAL("Still opened... %s", toString().c_str());
}

void V4L2VideoDevice::MonitorRef::enter() const {
    while (mBusy.test_and_set(std::memory_order_acquire))
        std::this_thread::yield();
}

std::shared_ptr<IV4L2BufferMonitor> V4L2VideoDevice::MonitorRef::lock() const {
    enter();
    auto monitor = mMonitor.lock();
    leave();
    return monitor;
}

void V4L2VideoDevice::MonitorRef::store(const std::shared_ptr<IV4L2BufferMonitor>& monitor) {
    std::weak_ptr<IV4L2BufferMonitor> replaced = monitor;
    enter();
    mMonitor.swap(replaced);
    leave();
}

std::shared_ptr<V4L2VideoDevice> V4L2VideoDevice::self(const char* operation) {
    auto shared = weak_from_this().lock();
    if (shared == nullptr)
        CORVANE_FATAL_AS(operation, "Bad function");
    return shared;
}

bool V4L2VideoDevice::isMultiPlanar() const {
    return V4L2_TYPE_IS_MULTIPLANAR(mBufType);
}

int V4L2VideoDevice::setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor) {
    const TraceSection section(area::kFormat, "V4L2VideoDevice::setMonitor");
    mMonitor.store(monitor);
    if (monitor != nullptr) {
        CORVANE_LOGK("attachObserver port:%d(%s)  #DECKEY", mPortIndex, mName.c_str());
        monitor->attachObserver(self("setMonitor"), mPortIndex);
    }
    return 0;
}

int V4L2VideoDevice::openDevice() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice::openDevice");
    if (mFd != -1) {
        CORVANE_LOGW("%s %d was opened", mDevnodePath.c_str(), mFd);
        return -EEXIST;
    }
    const int fd = System::Open(mDevnodePath.c_str(), O_RDWR | O_NONBLOCK, fdOwner());
    if (fd < 0) {
        CORVANE_LOGW("Failed to open %s ret=%d", mDevnodePath.c_str(), fd);
        return fd;
    }
    mFd = fd;
    v4l2_capability capability = {};
    if (const int ret = System::Ioctl(mFd, static_cast<int>(VIDIOC_QUERYCAP), &capability, 3);
        ret < 0) {
        CORVANE_LOGE("Failed to query device capability: %d", ret);
        CORVANE_DRIVER_EXCEPTION("VIDIOC_QUERYCAP fail err=%d(%s)", ret, strerror(-ret));
        closeDevice();
        return ret;
    }
    mCaps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps
                                                                  : capability.capabilities;
    if ((mCaps & V4L2_CAP_STREAMING) == 0) {
        CORVANE_LOGE("%s (%d) not support streaming", mName.c_str(), mFd);
        return -EINVAL;
    }
    const uint32_t bufType = bufTypeOf(mCaps);
    if (bufType == 0) {
        CORVANE_LOGE("Invalid video device capability");
        return -EINVAL;
    }
    mBufType = bufType;
    CORVANE_LOGD("%s(%d) type %d", mName.c_str(), mFd, mBufType);
    return 0;
}

int V4L2VideoDevice::closeDevice() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice::closeDevice");
    if (mFd == -1) {
        CORVANE_LOGD("%s %d was closed", mDevnodePath.c_str(), mFd);
        return -EINVAL;
    }
    if (const int ret = System::Close(mFd, fdOwner()); ret < 0) {
        CORVANE_LOGE("Failed to close %s %d", mDevnodePath.c_str(), mFd);
        return ret;
    }
    mFd = -1;
    return 0;
}

int V4L2VideoDevice::streamOn() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice: VIDIOC_STREAMON");
    const auto [ret, elapsed] = timedStreamCall(mFd, VIDIOC_STREAMON, mBufType);
    if (elapsed >= kSlowStreamOn)
        CORVANE_LOGW("%s: VIDIOC_STREAMON takes %s ns", mName.c_str(),
                     std::to_string(elapsed.count()).c_str());
    if (ret < 0) {
        CORVANE_LOGE("VIDIOC_STREAMON fail err=%d <%s>", ret, mName.c_str());
        return ret;
    }
    return 0;
}

int V4L2VideoDevice::streamOff() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice: VIDIOC_STREAMOFF");
    const auto [ret, elapsed] = timedStreamCall(mFd, VIDIOC_STREAMOFF, mBufType);
    if (elapsed > kSlowStreamOff)
        CORVANE_LOGW("%s: VIDIOC_STREAMOFF takes %s ns", mName.c_str(),
                     std::to_string(elapsed.count()).c_str());
    if (ret < 0) {
        CORVANE_LOGE("VIDIOC_STREAMOFF fail err=%d <%s>", ret, mName.c_str());
        return ret;
    }
    if (const auto monitor = mMonitor.lock()) {
        CORVANE_LOGK("detachObserver port:%d(%s)  #DECKEY", mPortIndex, mName.c_str());
        monitor->detachObserver(self("streamOff"), mPortIndex);
        mMonitor.store(nullptr);
    }
    return 0;
}

std::string V4L2VideoDevice::toString() const {
    const void* slots = nullptr;
    {
        const MutexLock lock(mSlotsMutex);
        slots = mSlots.get();
    }
    std::ostringstream text;
    text << "V4L2VideoDevice: " << mFd << " -> " << mDevnodePath << " 0x" << std::hex << mPortIndex
         << "(" << mName << ") Cap=0x" << mCaps << " " << bufTypeName(mBufType) << " { "
         << memoryName(mMemory) << " #REQBUFS=" << std::dec
         << mReqBufCount.load(std::memory_order_relaxed) << " Free=0x" << std::hex
         << mFreeBits.load(std::memory_order_relaxed) << " " << slots << " }";
    return text.str();
}

void V4L2VideoDevice::dumpState(IPrinter* printer) const {
    if (!mQueued.load(std::memory_order_relaxed))
        return;
    printer->printFormatLine("%s", toString().c_str());
    if (mKeepIndexes.load(std::memory_order_relaxed) || remappedBuffers() != 0)
        printer->printFormatLine("    indexes kept, #remapped=%u", remappedBuffers());
}

}  // namespace NSVista::NSCorvane
