// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A kernel whose answers the fuzzer edits.
 */
#pragma once

#include <linux/media.h>

#include <map>
#include <set>
#include <vector>

#include <corvane/platform/System.h>
#include "Ending.h"

namespace NSVista::NSCorvane::fuzz {

/**
 * Passes calls on to another kernel and edits what that answers, as the fuzzer's bytes say: each
 * edit names how many calls are left alone before it. Pointers of records are the caller's and
 * stay, and no array is written beyond what its count has promised, but for links: they may become
 * more between two calls. Descriptors that it has not opened itself it does not touch.
 */
class EditingKernel : public System::Kernel {
public:
    /** Neither is owned. */
    EditingKernel(System::Kernel& kernel, Bytes& bytes) : mKernel(kernel), mBytes(bytes) { next(); }

    int open(const char* path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int openDir(const char* path, DIR** dir) override;
    int readDir(DIR* dir, struct dirent** entry) override;
    int closeDir(DIR* dir) override { return mKernel.closeDir(dir); }
    int stat(const char* path, struct stat* info) override;
    int readLink(const char* path, char* buffer, size_t size) override;

private:
    enum class Action : uint8_t { Fail, Byte, Word, Long, Fill, Array, More, Text };
    struct Edit {
        unsigned skip;
        Action action;
        uint16_t offset;
        uint32_t value;
    };

    void next();
    /** Whether the call at hand is the edit's; the next edit is at hand then. */
    bool isDue(Edit& edit);
    int editText(int result, char* buffer, size_t size);
    int enumLinks(int fd, media_links_enum& asked);

    System::Kernel& mKernel;
    Bytes& mBytes;
    Edit mEdit{};
    std::set<int> mFds;
    std::map<uint32_t, size_t> mPads, mLinks;  ///< counts told, by entity
};

}  // namespace NSVista::NSCorvane::fuzz
