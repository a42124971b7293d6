// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The driver's sub-device.
 */
#include <corvane/V4L2SubDevice.h>

#include <corvane/kvxdip.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <cerrno>
#include <cstring>

#include "CpuTime.h"
#include "DriverCall.h"
#include "RefusedOpen.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2SubDevice")

namespace NSVista::NSCorvane {

namespace {

/** Ends a refused call of @p operation. @param report begins the report. @return @p r. */
int refused(const char* operation, const char* name, const char* report, int r) {
    CORVANE_LOGE_AS(operation, "Failed to %s: %d", name, r);
    return driverRefused(report, r);
}

/** Makes a call of @p operation that ends the service when it is refused. @return as driverCall. */
int callOrEnd(const char* operation, int fd, unsigned long request, const char* name,
              void* record) {
    const int r = driverCall(fd, request, record);
    return r < 0 ? refused(operation, name, name, r) : 0;
}

int frameSync(const char* operation, int fd, unsigned long request, const char* name) {
    v4l2_event_subscription subscription = {};
    subscription.type = V4L2_EVENT_FRAME_SYNC;
    return callOrEnd(operation, fd, request, name, &subscription);
}

/** A control is an ordinary request that the driver may refuse: nothing is reported. */
int control(const char* operation, int fd, unsigned long request, const char* name,
            kvxdip_control& record) {
    const int r = driverCall(fd, request, &record);
    if (r < 0)
        CORVANE_LOGE_AS(operation, "Failed to %s: %d", name, r);
    return r;
}

/** Sends @p fds in batches; the first refused one ends the walk. */
int batches(const char* operation, int fd, unsigned long request, const char* name,
            const std::unordered_set<int>& fds) {
    for (auto next = fds.begin(); next != fds.end();) {
        kvxdip_kva batch = {};
        for (; next != fds.end() && batch.count < KVXDIP_KVA_MAX; ++batch.count, ++next)
            memcpy(&batch.fd[batch.count], &*next, sizeof(int));
        if (const int r = callOrEnd(operation, fd, request, name, &batch); r < 0)
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

/** @param error the thread's errno just after the call. */
void logRefusedIova(const char* operation, const char* name, int r, int error,
                    const kvxdip_iova& record) {
    CORVANE_LOGE_AS(operation, "%s:%d err:%d(%s) fd:%d coherence:%d", name, r, error,
                    strerror(error), record.fd, record.coherence);
}

/** The count wraps at 256: that many fences are none to the driver. */
kvxdip_fence fenceRecord(const std::vector<int>& fences) {
    kvxdip_fence record = {};
    record.count = static_cast<uint8_t>(fences.size());
    record.fds = reinterpret_cast<uintptr_t>(fences.data());
    return record;
}

}  // namespace

std::string V4L2SubDevice::toString() const try {
    char flags[16];
    snprintf(flags, sizeof(flags), "0x%x", static_cast<unsigned>(mFlags));
    return "V4L2SubDevice: " + std::to_string(mFd) + " -> " + mDevnodePath + " (" + mEntityName +
           ") flags=" + flags;
}
CORVANE_NO_THROW

void V4L2SubDevice::dumpState(IPrinter* printer) const try {
    printer->printFormatLine("%s", toString().c_str());
}
CORVANE_NO_THROW

int V4L2SubDevice::openDevice() try {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::openDevice");
    if (mFd != -1) {
        CORVANE_LOGW("%s %d was opened", mDevnodePath.c_str(), mFd.load());
        return -EEXIST;
    }
    const int r = System::Open(mDevnodePath.c_str(), mFlags, ownerToken(&mFd));
    if (r < 0) {
        CORVANE_LOGW("Failed to open %s ret=%d", mDevnodePath.c_str(), r);
        if (const std::string cause = refusedOpenCause(mDevnodePath, r); !cause.empty())
            CORVANE_LOGW("%s", cause.c_str());
        return r;
    }
    mFd = r;
    return 0;
}
CORVANE_NO_THROW

int V4L2SubDevice::closeDevice() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::closeDevice");
    const int fd = mFd;
    if (fd == -1) {
        CORVANE_LOGD("%s %d was closed", mDevnodePath.c_str(), fd);
        return -EINVAL;
    }
    if (const int r = System::Close(fd, ownerToken(&mFd)); r < 0) {
        CORVANE_LOGE("Failed to close %s %d", mDevnodePath.c_str(), fd);
        return r;
    }
    mFd = -1;
    return 0;
}

int V4L2SubDevice::subscribe() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::subscribe");
    return frameSync("subscribe", mFd, VIDIOC_SUBSCRIBE_EVENT, "VIDIOC_SUBSCRIBE_EVENT");
}

int V4L2SubDevice::unsubscribe() {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::unsubscribe");
    return frameSync("unsubscribe", mFd, VIDIOC_UNSUBSCRIBE_EVENT, "VIDIOC_UNSUBSCRIBE_EVENT");
}

int V4L2SubDevice::queryEvent(v4l2_event& event) {
    return System::DQueueEvent(mFd, &event);
}

int V4L2SubDevice::setInitInfo(init_info* info) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::setInitInfo");
    const int r = driverCall(mFd, KVXDIP_IOC_S_INIT_INFO, info);
    return r < 0
               ? refused("setInitInfo", "KVXDIP_IOC_S_INIT_INFO", "KVXDIP_IOC_S_INIT_INFO fail", r)
               : 0;
}

int V4L2SubDevice::setControl(int id, int value) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::setControl");
    kvxdip_control record = {id, value};
    return control("setControl", mFd, KVXDIP_IOC_SET_CONTROL, "KVXDIP_IOC_SET_CONTROL", record);
}

int V4L2SubDevice::getControl(int id, int* value) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::getControl");
    kvxdip_control record = {id, 0};
    const int r =
        control("getControl", mFd, KVXDIP_IOC_GET_CONTROL, "KVXDIP_IOC_GET_CONTROL", record);
    if (r >= 0 && value != nullptr)
        *value = record.value;
    return r;
}

int V4L2SubDevice::requestMemory(const RequestMemory& request) try {
    const char* mode = request.is_alloc ? "ALOC_BUF" : "FREE_BUF";
    char description[sizeof(" is_smvr=255 is_capture=255")];
    snprintf(description, sizeof(description), " is_smvr=%u is_capture=%u", request.is_smvr,
             request.is_capture);
    const TraceSection trace(area::kStreaming,
                             CORVANE_TRACE_NAME("V4L2SubDevice::requestMemory(%s)", description));

    kvxdip_memory record = {request.is_smvr, request.is_capture};
    auto guard = guardDriver("KVXDIP_IOC_%s timed out. %s", mode, description);
    const CpuTimer timer;
    const int r =
        driverCall(mFd, request.is_alloc ? KVXDIP_IOC_ALOC_BUF : KVXDIP_IOC_FREE_BUF, &record);
    const int64_t cpuTime = timer.elapsedNs();
    guard.reset();

    CORVANE_LOGI("(%s) cputime %sns", description, std::to_string(cpuTime).c_str());
    if (r < 0) {
        const int fd = mFd;
        CORVANE_LOGE("Failed on (%s) fd=%d err=%d(%s)", description, fd, r, strerror(-r));
        CORVANE_DRIVER_EXCEPTION("KVXDIP_IOC_%s fail err=%d(%s) fd=%d %s", mode, r, strerror(-r),
                                 fd, description);
        return r;
    }
    return 0;
}
CORVANE_NO_THROW

int V4L2SubDevice::mapKVA(const std::unordered_set<int>& fds) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::mapKVA");
    return batches("mapKVA", mFd, KVXDIP_IOC_ADD_KVA, "KVXDIP_IOC_ADD_KVA", fds);
}

int V4L2SubDevice::unmapKVA(const std::unordered_set<int>& fds) {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::unmapKVA");
    return batches("unmapKVA", mFd, KVXDIP_IOC_DEL_KVA, "KVXDIP_IOC_DEL_KVA", fds);
}

int V4L2SubDevice::mapIOVA(int fd, bool coherence) {
    const TraceSection trace(
        area::kStreaming,
        CORVANE_TRACE_NAME("V4L2SubDevice::mapIOVA fd=%d coherence=%d", fd, coherence));
    kvxdip_iova record = iovaRecord(fd, coherence);
    const int r = System::AddIova(mFd, static_cast<int>(KVXDIP_IOC_ACQUIRE_IOVA), &record);
    if (r >= 0)
        return 0;
    logRefusedIova("mapIOVA", "KVXDIP_IOC_ACQUIRE_IOVA", r, errno, record);
    return driverRefused("KVXDIP_IOC_ACQUIRE_IOVA", r);
}

// A clean-up path: a refusal is only logged.
int V4L2SubDevice::unmapIOVA(int fd, bool coherence) {
    const TraceSection trace(
        area::kStreaming,
        CORVANE_TRACE_NAME("V4L2SubDevice::unmapIOVA fd=%d coherence=%d", fd, coherence));
    kvxdip_iova record = iovaRecord(fd, coherence);
    const int r = System::DelIova(mFd, static_cast<int>(KVXDIP_IOC_RELEASE_IOVA), &record);
    if (r >= 0)
        return 0;
    logRefusedIova("unmapIOVA", "KVXDIP_IOC_RELEASE_IOVA", r, errno, record);
    return r;
}

int V4L2SubDevice::acquireFenceFd(std::vector<int>& fences) {
    const TraceSection trace(
        area::kStreaming, CORVANE_TRACE_NAME("V4L2SubDevice::acquireFenceFd #%zu", fences.size()));
    kvxdip_fence record = fenceRecord(fences);
    return callOrEnd("acquireFenceFd", mFd, KVXDIP_IOC_ADD_FENCE, "KVXDIP_IOC_ADD_FENCE", &record);
}

int V4L2SubDevice::releaseFenceFd(const std::vector<int>& fences) {
    const TraceSection trace(
        area::kStreaming, CORVANE_TRACE_NAME("V4L2SubDevice::releaseFenceFd #%zu", fences.size()));
    kvxdip_fence record = fenceRecord(fences);
    CORVANE_LOGI("fence size(%zu/%d)\n", fences.size(), record.count);
    return callOrEnd("releaseFenceFd", mFd, KVXDIP_IOC_DEL_FENCE, "KVXDIP_IOC_DEL_FENCE", &record);
}

// A clean-up path: a refusal is only logged.
int V4L2SubDevice::releaseUserResource(unsigned long userId, unsigned long instance) try {
    const TraceSection trace(area::kStreaming, "V4L2SubDevice::releaseUserResource");
    kvxdip_user_resource record = {userId, instance};
    const CpuTimer timer;
    const int r = driverCall(mFd, KVXDIP_IOC_CLEAR_USER_RESOURCE, &record);
    const int64_t cpuTime = timer.elapsedNs();
    CORVANE_LOGI("[KVXDIP_IOC_CLEAR_USER_RESOURCE] userid=%#lx inst=%#lx cputime %sns", userId,
                 instance, std::to_string(cpuTime).c_str());
    if (r < 0) {
        CORVANE_LOGE("KVXDIP_IOC_CLEAR_USER_RESOURCE failed: fd=%d err=%d(%s)", mFd.load(), r,
                     strerror(-r));
        return r;
    }
    return 0;
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
