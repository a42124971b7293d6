// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A kernel that passes all calls on to another one: what a test does to some, it overrides.
 */
#pragma once

#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::test {

class PassingKernel : public System::Kernel {
public:
    /** @param kernel not owned. */
    explicit PassingKernel(System::Kernel& kernel) : mKernel(kernel) {}

    int open(const char* path, int flags) override { return mKernel.open(path, flags); }
    int close(int fd) override { return mKernel.close(fd); }
    int ioctl(int fd, unsigned long request, void* arg) override {
        return mKernel.ioctl(fd, request, arg);
    }
    int openDir(const char* path, DIR** dir) override { return mKernel.openDir(path, dir); }
    int readDir(DIR* dir, struct dirent** entry) override { return mKernel.readDir(dir, entry); }
    int closeDir(DIR* dir) override { return mKernel.closeDir(dir); }
    int stat(const char* path, struct stat* info) override { return mKernel.stat(path, info); }
    int readLink(const char* path, char* buffer, size_t size) override {
        return mKernel.readLink(path, buffer, size);
    }

protected:
    System::Kernel& mKernel;
};

}  // namespace NSVista::NSCorvane::test
