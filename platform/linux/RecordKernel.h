// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The kernel that writes down what another one is asked and answers.
 */
#pragma once

#include <atomic>

#include "KernelWrapper.h"

namespace NSVista::NSCorvane::record {

/** Puts every call into the caller's lane. Any thread. */
class RecordKernel final : public System::KernelWrapper {
public:
    int open(const char* path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int openDir(const char* path, DIR** dir) override;
    int readDir(DIR* dir, struct dirent** entry) override;
    int closeDir(DIR* dir) override;
    int stat(const char* path, struct stat* info) override;
    int readLink(const char* path, char* buffer, size_t size) override;

    /** Whether calls are put anywhere. */
    void setOn(bool on) { mOn.store(on, std::memory_order_relaxed); }

private:
    int ioctlLinks(int fd, void* arg);
    bool on() const { return mOn.load(std::memory_order_relaxed); }

    std::atomic<bool> mOn{false};
};

}  // namespace NSVista::NSCorvane::record
