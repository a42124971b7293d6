// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The system-call layer: the one door through which the library reaches the kernel.
 */
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane::System {

/**
 * A kernel: what the operations of this layer are carried out by. The default one makes real
 * system calls; a virtual engine, a recorder or a test installs its own with setKernel().
 *
 * Every operation returns a value >= 0 on success and the negated errno on failure, and leaves the
 * thread's `errno` at the failure's value. All may be called from any thread at any time. None
 * throws.
 */
class CORVANE_EXPORT Kernel {
public:
    virtual ~Kernel();

    /** open(2). The default kernel adds O_CLOEXEC. @return the descriptor. */
    virtual int open(const char* path, int flags) = 0;
    /** close(2); the descriptor is gone whatever the result, so EINTR counts as success. */
    virtual int close(int fd) = 0;
    /** ioctl(2), retried while it is interrupted by a signal. */
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    /** opendir(3). @param[out] dir a handle that only this kernel understands. */
    virtual int openDir(const char* path, DIR** dir) = 0;
    /**
     * readdir(3). @param[out] entry the next entry, null at the end; owned by @p dir and valid
     * until the next call on it.
     */
    virtual int readDir(DIR* dir, struct dirent** entry) = 0;
    /** closedir(3). */
    virtual int closeDir(DIR* dir) = 0;
    /** stat(2). */
    virtual int stat(const char* path, struct stat* info) = 0;
    /** readlink(2). @return the number of bytes placed; no terminating zero is written. */
    virtual int readLink(const char* path, char* buffer, size_t size) = 0;
};

/** The kernel that makes real system calls. Never destroyed. */
CORVANE_EXPORT Kernel& linuxKernel() noexcept;

/**
 * Installs the kernel that all later operations of the process use.
 * @param kernel not owned, must outlive its use; null restores linuxKernel().
 * @return the kernel that was installed before.
 *
 * Any thread. Each operation reads the pointer once, so operations under way finish on the kernel
 * they began on. Descriptors belong to the kernel that made them.
 */
CORVANE_EXPORT Kernel* setKernel(Kernel* kernel) noexcept;

/**
 * @name Operations
 * Results follow the kernel: >= 0 is success, a negative value the negated errno. @p owner is the
 * address of the object that owns the descriptor; open descriptors are accounted under it.
 * Callable from any thread, no operation blocks another, nothing throws.
 * @{
 */
CORVANE_EXPORT int Open(const char* path, int flags, unsigned long owner) noexcept;
/** close(2). After a failure the descriptor stays accounted. */
CORVANE_EXPORT int Close(int fd, unsigned long owner) noexcept;
/**
 * ioctl(2).
 * @param request the request code in an int; it is widened through `unsigned int`.
 * @param traced 3 where the call belongs to an owner's own work, 0 where it is one step of a walk.
 *        All but 0 open a trace section of area #kTraceDriverCalls.
 */
CORVANE_EXPORT int Ioctl(int fd, int request, void* arg, unsigned int traced) noexcept;
CORVANE_EXPORT DIR* OpenDir(const char* path) noexcept;
/** readdir(3). @return null at the end and on failure; only a failure changes `errno`. */
CORVANE_EXPORT struct dirent* ReadDir(DIR* dir) noexcept;
CORVANE_EXPORT int CloseDir(DIR* dir) noexcept;
CORVANE_EXPORT int Stat(const char* path, struct stat* info) noexcept;
CORVANE_EXPORT int ReadLink(const char* path, char* buffer, unsigned long size) noexcept;
/** MEDIA_IOC_REQUEST_ALLOC. @return the new request's descriptor. */
CORVANE_EXPORT int AllocMediaRequest(int mediaFd, unsigned long owner) noexcept;
/** MEDIA_REQUEST_IOC_QUEUE. */
CORVANE_EXPORT int QueueMediaRequest(int requestFd) noexcept;
/** MEDIA_REQUEST_IOC_REINIT. */
CORVANE_EXPORT int ReinitMediaRequest(int requestFd) noexcept;
/** VIDIOC_QBUF. @param buffer a v4l2_buffer. */
CORVANE_EXPORT int QueueVideoNodeBuf(int fd, void* buffer) noexcept;
/** VIDIOC_DQBUF. @param buffer a v4l2_buffer. @return +EAGAIN (11) while no buffer is ready. */
CORVANE_EXPORT int DQueueVideoNodeBuf(int fd, void* buffer) noexcept;
/** VIDIOC_DQEVENT. @param event a v4l2_event. */
CORVANE_EXPORT int DQueueEvent(int fd, void* event) noexcept;
/** Maps a buffer into the device's address space. @param request the driver's request code. */
CORVANE_EXPORT int AddIova(int fd, int request, void* record) noexcept;
/** Takes a mapping of AddIova() back. */
CORVANE_EXPORT int DelIova(int fd, int request, void* record) noexcept;
/** @} */

/** A descriptor that was opened through this layer and not closed yet. */
struct OpenFd {
    int fd;
    unsigned long owner;
    std::string path;        ///< as given to Open(); "request" for a media request
    struct timespec opened;  ///< CLOCK_MONOTONIC
};

/** The open descriptors, in ascending order. Any thread. */
CORVANE_EXPORT std::vector<OpenFd> openFds();

/** An ioctl that has not returned. */
struct CallUnderWay {
    int fd;
    unsigned int request;
    int thread;     ///< as gettid(2) numbers it
    int64_t since;  ///< CLOCK_MONOTONIC in nanoseconds
};

/**
 * The calls of Ioctl() that are under way, the latest first. Those of streaming (media requests,
 * QBUF and DQBUF) are not listed: who streams knows of them. Any thread.
 */
CORVANE_EXPORT std::vector<CallUnderWay> callsUnderWay();

/**
 * Whether a descriptor has priority data (POLLPRI): a media request that has completed has. Asks by
 * poll(2) without waiting, as event monitors do, whatever kernel is installed. Any thread.
 */
CORVANE_EXPORT bool hasPriorityData(int fd) noexcept;

/** Prints one line per open descriptor: number, path, owner and age. Any thread. */
CORVANE_EXPORT void dumpState(IPrinter* printer);

}  // namespace NSVista::NSCorvane::System
