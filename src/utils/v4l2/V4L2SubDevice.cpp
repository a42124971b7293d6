/**
 * @file
 * The driver's sub-device.
 */
#include <corvane/V4L2SubDevice.h>

#include <corvane/kvxdip.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/Trace.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "CpuTime.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2SubDevice")

/** Ends a refused ioctl: logged, reported, and the service ends. @param what begins the report. */
#define DRIVER_REFUSED(name, what, r)                                    \
    do {                                                                 \
        CORVANE_LOGE("Failed to " name ": %d", r);                       \
        CORVANE_DRIVER_EXCEPTION(what " err=%d(%s)", r, strerror(-(r))); \
    } while (false)

namespace NSVista::NSCorvane {

namespace {

// Just below three seconds, so that the report comes before a watcher with a limit of three.
constexpr unsigned long kMemoryLimitNs = 2'999'000'000;
constexpr unsigned long kMemoryPeriodNs = 1'000'000'000;

int driverCall(int fd, unsigned long request, void* record) {
    return System::Ioctl(fd, static_cast<int>(request), record, 3);
}

int frameSyncCall(int fd, unsigned long request) {
    v4l2_event_subscription subscription = {};
    subscription.type = V4L2_EVENT_FRAME_SYNC;
    return driverCall(fd, request, &subscription);
}

/** @return 0 or the result of the first refused batch. */
int kvaCall(int fd, unsigned long request, const std::unordered_set<int>& fds) {
    const std::vector<int> list(fds.begin(), fds.end());
    const auto size = static_cast<int>(list.size());
    for (int sent = 0; sent < size; sent += KVXDIP_KVA_MAX) {
        kvxdip_kva batch = {};
        batch.count = static_cast<uint8_t>(std::min(size - sent, KVXDIP_KVA_MAX));
        memcpy(batch.fd, &list[sent], batch.count * sizeof(int));
        if (const int r = driverCall(fd, request, &batch); r < 0)
            return r;
    }
    return 0;
}

kvxdip_iova iovaRecord(int fd, bool coherence) {
    kvxdip_iova record = {};
    record.fd = fd;
    record.coherence = coherence ? 1 : 0;
    record.count = 1;
    return record;
}

/** The count wraps at 256: that many fences are none to the driver. */
kvxdip_fence fenceRecord(const std::vector<int>& fences) {
    kvxdip_fence record = {};
    record.count = static_cast<uint8_t>(fences.size());
    record.fds = reinterpret_cast<uintptr_t>(fences.data());
    return record;
}

}  // namespace

std::string V4L2SubDevice::toString() const {
    char flags[16];
    snprintf(flags, sizeof(flags), "0x%x", static_cast<unsigned>(mFlags));
    return "V4L2SubDevice: " + std::to_string(mFd) + " -> " + mDevnodePath + " (" + mEntityName +
           ") flags=" + flags;
}

void V4L2SubDevice::dumpState(IPrinter* printer) const {
    printer->printFormatLine("%s", toString().c_str());
}

int V4L2SubDevice::openDevice() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::openDevice");
    if (mFd != -1) {
        CORVANE_LOGW("%s %d was opened", mDevnodePath.c_str(), mFd);
        return -EEXIST;
    }
    const int r = System::Open(mDevnodePath.c_str(), mFlags, reinterpret_cast<unsigned long>(&mFd));
    if (r < 0) {
        CORVANE_LOGW("Failed to open %s ret=%d", mDevnodePath.c_str(), r);
        return r;
    }
    mFd = r;
    return 0;
}

int V4L2SubDevice::closeDevice() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::closeDevice");
    if (mFd == -1) {
        CORVANE_LOGD("%s %d was closed", mDevnodePath.c_str(), mFd);
        return -EINVAL;
    }
    if (const int r = System::Close(mFd, reinterpret_cast<unsigned long>(&mFd)); r < 0) {
        CORVANE_LOGE("Failed to close %s %d", mDevnodePath.c_str(), mFd);
        return r;
    }
    mFd = -1;
    return 0;
}

int V4L2SubDevice::subscribe() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::subscribe");
    if (const int r = frameSyncCall(mFd, VIDIOC_SUBSCRIBE_EVENT); r < 0) {
        DRIVER_REFUSED("VIDIOC_SUBSCRIBE_EVENT", "VIDIOC_SUBSCRIBE_EVENT", r);
        return r;
    }
    return 0;
}

int V4L2SubDevice::unsubscribe() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::unsubscribe");
    if (const int r = frameSyncCall(mFd, VIDIOC_UNSUBSCRIBE_EVENT); r < 0) {
        DRIVER_REFUSED("VIDIOC_UNSUBSCRIBE_EVENT", "VIDIOC_UNSUBSCRIBE_EVENT", r);
        return r;
    }
    return 0;
}

int V4L2SubDevice::queryEvent(v4l2_event& event) {
    return System::DQueueEvent(mFd, &event);
}

int V4L2SubDevice::setInitInfo(init_info* info) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::setInitInfo");
    if (const int r = driverCall(mFd, KVXDIP_IOC_S_INIT_INFO, info); r < 0) {
        DRIVER_REFUSED("KVXDIP_IOC_S_INIT_INFO", "KVXDIP_IOC_S_INIT_INFO fail", r);
        return r;
    }
    return 0;
}

// A control is an ordinary request that the driver may refuse: nothing is reported.
int V4L2SubDevice::setControl(int id, int value) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::setControl");
    kvxdip_control control = {id, value};
    const int r = driverCall(mFd, KVXDIP_IOC_SET_CONTROL, &control);
    if (r < 0)
        CORVANE_LOGE("Failed to KVXDIP_IOC_SET_CONTROL: %d", r);
    return r;
}

int V4L2SubDevice::getControl(int id, int* value) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::getControl");
    kvxdip_control control = {id, 0};
    const int r = driverCall(mFd, KVXDIP_IOC_GET_CONTROL, &control);
    if (r < 0)
        CORVANE_LOGE("Failed to KVXDIP_IOC_GET_CONTROL: %d", r);
    else if (value != nullptr)
        *value = control.value;
    return r;
}

int V4L2SubDevice::requestMemory(const RequestMemory& request) {
    const char* mode = request.is_alloc ? "ALOC_BUF" : "FREE_BUF";
    const std::string description = " is_smvr=" + std::to_string(request.is_smvr) +
                                    " is_capture=" + std::to_string(request.is_capture);
    const TraceSection trace(
        area::kStreaming,
        CORVANE_TRACE_NAME("V4L2SubDevice::requestMemory(%s)", description.c_str()));

    kvxdip_memory record = {request.is_smvr, request.is_capture};
    auto guard =
        timeguard::TimeBomb::make("ZelsysKernel", kMemoryLimitNs, kMemoryPeriodNs,
                                  "KVXDIP_IOC_%s timed out. %s", mode, description.c_str());
    const CpuTimer timer;
    const int r =
        driverCall(mFd, request.is_alloc ? KVXDIP_IOC_ALOC_BUF : KVXDIP_IOC_FREE_BUF, &record);
    const int64_t cpuTime = timer.elapsedNs();
    guard.reset();

    CORVANE_LOGI("(%s) cputime %sns", description.c_str(), std::to_string(cpuTime).c_str());
    if (r < 0) {
        CORVANE_LOGE("Failed on (%s) fd=%d err=%d(%s)", description.c_str(), mFd, r, strerror(-r));
        CORVANE_DRIVER_EXCEPTION("KVXDIP_IOC_%s fail err=%d(%s) fd=%d %s", mode, r, strerror(-r),
                                 mFd, description.c_str());
        return r;
    }
    return 0;
}

int V4L2SubDevice::mapKVA(const std::unordered_set<int>& fds) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::mapKVA");
    if (const int r = kvaCall(mFd, KVXDIP_IOC_ADD_KVA, fds); r < 0) {
        DRIVER_REFUSED("KVXDIP_IOC_ADD_KVA", "KVXDIP_IOC_ADD_KVA", r);
        return r;
    }
    return 0;
}

int V4L2SubDevice::unmapKVA(const std::unordered_set<int>& fds) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::unmapKVA");
    if (const int r = kvaCall(mFd, KVXDIP_IOC_DEL_KVA, fds); r < 0) {
        DRIVER_REFUSED("KVXDIP_IOC_DEL_KVA", "KVXDIP_IOC_DEL_KVA", r);
        return r;
    }
    return 0;
}

int V4L2SubDevice::mapIOVA(int fd, bool coherence) {
    const TraceSection trace(
        area::kStreaming,
        CORVANE_TRACE_NAME("V4L2SubDevice::mapIOVA fd=%d coherence=%d", fd, coherence));
    kvxdip_iova record = iovaRecord(fd, coherence);
    const int r = System::AddIova(mFd, static_cast<int>(KVXDIP_IOC_ACQUIRE_IOVA), &record);
    const int error = errno;  // before anything changes it
    if (r < 0) {
        CORVANE_LOGE("KVXDIP_IOC_ACQUIRE_IOVA:%d err:%d(%s) fd:%d coherence:%d", r, error,
                     strerror(error), fd, coherence);
        CORVANE_DRIVER_EXCEPTION("KVXDIP_IOC_ACQUIRE_IOVA err=%d(%s)", r, strerror(-r));
        return r;
    }
    return 0;
}

// A clean-up path: a refusal is only logged.
int V4L2SubDevice::unmapIOVA(int fd, bool coherence) {
    const TraceSection trace(
        area::kStreaming,
        CORVANE_TRACE_NAME("V4L2SubDevice::unmapIOVA fd=%d coherence=%d", fd, coherence));
    kvxdip_iova record = iovaRecord(fd, coherence);
    const int r = System::DelIova(mFd, static_cast<int>(KVXDIP_IOC_RELEASE_IOVA), &record);
    const int error = errno;
    if (r < 0) {
        CORVANE_LOGE("KVXDIP_IOC_RELEASE_IOVA:%d err:%d(%s) fd:%d coherence:%d", r, error,
                     strerror(error), fd, coherence);
        return r;
    }
    return 0;
}

int V4L2SubDevice::acquireFenceFd(std::vector<int>& fences) {
    const TraceSection trace(
        area::kStreaming, CORVANE_TRACE_NAME("V4L2SubDevice::acquireFenceFd #%zu", fences.size()));
    kvxdip_fence record = fenceRecord(fences);
    if (const int r = driverCall(mFd, KVXDIP_IOC_ADD_FENCE, &record); r < 0) {
        DRIVER_REFUSED("KVXDIP_IOC_ADD_FENCE", "KVXDIP_IOC_ADD_FENCE", r);
        return r;
    }
    return 0;
}

int V4L2SubDevice::releaseFenceFd(const std::vector<int>& fences) {
    const TraceSection trace(
        area::kStreaming, CORVANE_TRACE_NAME("V4L2SubDevice::releaseFenceFd #%zu", fences.size()));
    kvxdip_fence record = fenceRecord(fences);
    CORVANE_LOGI("fence size(%zu/%d)\n", fences.size(), record.count);
    if (const int r = driverCall(mFd, KVXDIP_IOC_DEL_FENCE, &record); r < 0) {
        DRIVER_REFUSED("KVXDIP_IOC_DEL_FENCE", "KVXDIP_IOC_DEL_FENCE", r);
        return r;
    }
    return 0;
}

// A clean-up path: a refusal is only logged.
int V4L2SubDevice::releaseUserResource(unsigned long userId, unsigned long instance) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::releaseUserResource");
    kvxdip_user_resource record = {userId, instance};
    const CpuTimer timer;
    const int r = driverCall(mFd, KVXDIP_IOC_CLEAR_USER_RESOURCE, &record);
    const int64_t cpuTime = timer.elapsedNs();
    CORVANE_LOGI("[KVXDIP_IOC_CLEAR_USER_RESOURCE] userid=%#lx inst=%#lx cputime %sns", userId,
                 instance, std::to_string(cpuTime).c_str());
    if (r < 0) {
        CORVANE_LOGE("KVXDIP_IOC_CLEAR_USER_RESOURCE failed: fd=%d err=%d(%s)", mFd, r,
                     strerror(-r));
        return r;
    }
    return 0;
}

}  // namespace NSVista::NSCorvane
