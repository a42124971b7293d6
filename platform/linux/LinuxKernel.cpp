// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/System.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "KernelWrapper.h"

namespace NSVista::NSCorvane::System {

Kernel::~Kernel() = default;

namespace {

int fail(int error) {
    errno = error;
    return -error;
}

/** Makes a call until no signal interrupts it. @return its result, or the negated errno. */
template <class Call>
int uninterrupted(Call call) {
    for (;;) {
        const auto result = call();
        if (result >= 0)
            return static_cast<int>(result);
        if (errno != EINTR)
            return -errno;
    }
}

class LinuxKernel final : public Kernel {
public:
    /** Descriptors are close-on-exec besides: none of them is meant for another program. */
    int open(const char* path, int flags) override {
        if (path == nullptr)
            return fail(EFAULT);
        return uninterrupted([=] { return ::open(path, flags | O_CLOEXEC); });
    }

    int close(int fd) override {
        if (::close(fd) == 0 || errno == EINTR)
            return 0;
        return -errno;
    }

    int ioctl(int fd, unsigned long request, void* arg) override {
        return uninterrupted([=] { return ::ioctl(fd, request, arg); });
    }

    int openDir(const char* path, DIR** dir) override {
        if (path == nullptr)
            return fail(EFAULT);
        do {
            *dir = ::opendir(path);
        } while (*dir == nullptr && errno == EINTR);
        return *dir != nullptr ? 0 : -errno;
    }

    int readDir(DIR* dir, struct dirent** entry) override {
        *entry = nullptr;
        if (dir == nullptr)
            return fail(EBADF);
        // The end and an error look the same but for errno.
        const int before = errno;
        errno = 0;
        *entry = ::readdir(dir);
        if (*entry == nullptr && errno != 0)
            return -errno;
        errno = before;
        return 0;
    }

    int closeDir(DIR* dir) override {
        if (dir == nullptr)
            return fail(EBADF);
        if (::closedir(dir) == 0 || errno == EINTR)
            return 0;
        return -errno;
    }

    int stat(const char* path, struct stat* info) override {
        if (path == nullptr || info == nullptr)
            return fail(EFAULT);
        return uninterrupted([=] { return ::stat(path, info); });
    }

    int readLink(const char* path, char* buffer, size_t size) override {
        if (path == nullptr || buffer == nullptr)
            return fail(EFAULT);
        return uninterrupted([=] { return ::readlink(path, buffer, size); });
    }
};

}  // namespace

namespace {

/** There before any code runs, and never destroyed: calls are made until the process is gone. */
union Lasting {
    constexpr Lasting() : kernel() {}
    ~Lasting() {}
    LinuxKernel kernel;
};

constinit Lasting sLasting;

}  // namespace

constinit std::atomic<Kernel*> gKernel{&sLasting.kernel};

Kernel& linuxKernel() noexcept {
    return sLasting.kernel;
}

}  // namespace NSVista::NSCorvane::System
