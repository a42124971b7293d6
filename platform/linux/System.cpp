// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <utility>

#include "CallList.h"
#include "FdTable.h"
#include "KernelWrapper.h"

CORVANE_LOG_UNIT("corvane-System")

namespace NSVista::NSCorvane::System {

namespace {

constinit Mutex gChange;  ///< one change of kernels at a time
constinit KernelWrapper* gWrapper CORVANE_GUARDED_BY(gChange) = nullptr;

Kernel& kernel() noexcept {
    return *gKernel.load(std::memory_order_acquire);
}

}  // namespace

Kernel* setKernel(Kernel* kernel) noexcept {
    const MutexLock lock(gChange);
    std::atomic<Kernel*>& installed = gWrapper != nullptr ? gWrapper->mInner : gKernel;
    return installed.exchange(kernel != nullptr ? kernel : &linuxKernel(),
                              std::memory_order_acq_rel);
}

void wrapKernel(KernelWrapper* wrapper) noexcept {
    const MutexLock lock(gChange);
    Kernel* const client = (gWrapper != nullptr ? gWrapper->mInner : gKernel).load();
    if (wrapper != nullptr)
        wrapper->mInner.store(client, std::memory_order_release);
    gWrapper = wrapper;
    gKernel.store(wrapper != nullptr ? wrapper : client, std::memory_order_release);
}

int Open(const char* path, int flags, unsigned long owner) noexcept {
    const int fd = kernel().open(path, flags);
    if (fd >= 0)
        FdTable::instance().add(fd, owner, path);
    return fd;
}

int Close(int fd, unsigned long /*owner*/) noexcept {
    FdTable::Entry entry = FdTable::instance().take(fd);
    const int result = kernel().close(fd);
    if (result < 0 && entry)
        FdTable::instance().putBack(std::move(entry));
    return result;
}

int Ioctl(int fd, int request, void* arg, unsigned int traced) noexcept {
    const auto code = static_cast<unsigned int>(request);
    const CallList::Listed listed(fd, code);
    if (traced == 0)
        return kernel().ioctl(fd, code, arg);
    TraceSection section(kTraceDriverCalls,
                         CORVANE_TRACE_NAME("System::Ioctl fd=%d 0x%08x", fd, code));
    return kernel().ioctl(fd, code, arg);
}

DIR* OpenDir(const char* path) noexcept {
    DIR* dir = nullptr;
    return kernel().openDir(path, &dir) >= 0 ? dir : nullptr;
}

struct dirent* ReadDir(DIR* dir) noexcept {
    struct dirent* entry = nullptr;
    return kernel().readDir(dir, &entry) >= 0 ? entry : nullptr;
}

int CloseDir(DIR* dir) noexcept {
    return kernel().closeDir(dir);
}

int Stat(const char* path, struct stat* info) noexcept {
    return kernel().stat(path, info);
}

int ReadLink(const char* path, char* buffer, unsigned long size) noexcept {
    return kernel().readLink(path, buffer, size);
}

int AllocMediaRequest(int mediaFd, unsigned long owner) noexcept {
    int fd = -1;
    const int result = kernel().ioctl(mediaFd, MEDIA_IOC_REQUEST_ALLOC, &fd);
    if (result < 0)
        return result;
    FdTable::instance().add(fd, owner, "request");
    return fd;
}

int QueueMediaRequest(int requestFd) noexcept {
    return kernel().ioctl(requestFd, MEDIA_REQUEST_IOC_QUEUE, nullptr);
}

int ReinitMediaRequest(int requestFd) noexcept {
    return kernel().ioctl(requestFd, MEDIA_REQUEST_IOC_REINIT, nullptr);
}

int QueueVideoNodeBuf(int fd, void* buffer) noexcept {
    return kernel().ioctl(fd, VIDIOC_QBUF, buffer);
}

int DQueueVideoNodeBuf(int fd, void* buffer) noexcept {
    const int result = kernel().ioctl(fd, VIDIOC_DQBUF, buffer);
    return result == -EAGAIN ? EAGAIN : result;
}

int DQueueEvent(int fd, void* event) noexcept {
    return kernel().ioctl(fd, VIDIOC_DQEVENT, event);
}

int AddIova(int fd, int request, void* record) noexcept {
    return Ioctl(fd, request, record, 3);
}

int DelIova(int fd, int request, void* record) noexcept {
    return Ioctl(fd, request, record, 3);
}

std::vector<OpenFd> openFds() try { return FdTable::instance().list(); }
CORVANE_NO_THROW

std::vector<CallUnderWay> callsUnderWay() try { return CallList::instance().list(); }
CORVANE_NO_THROW

bool hasPriorityData(int fd) noexcept {
    pollfd asked{fd, POLLPRI, 0};
    return ::poll(&asked, 1, 0) > 0 && (asked.revents & POLLPRI) != 0;
}

void dumpState(IPrinter* printer) try {
    if (printer == nullptr)
        return;
    const int64_t now = monotonicInNs();
    for (const OpenFd& entry : openFds()) {
        const int64_t age = now - timeInNs(entry.opened);
        printer->printFormatLine("fd=%d path=%s owner=0x%lx age=%" PRId64 " ms", entry.fd,
                                 entry.path.c_str(), entry.owner, age / 1000000);
    }
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane::System
