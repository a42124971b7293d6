// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A kernel that answers what a test tells it to, and keeps a record of the calls.
 */
#pragma once

#include <cctype>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <corvane/platform/System.h>
#include <sys/stat.h>

#include "vengine-fault.h"

namespace NSVista::NSCorvane::test {

/** An ioctl as a test's record names it; a code that is not known as its number. */
inline std::string ioctlName(unsigned long request) {
    static const std::map<unsigned long, const char*> kMedia = {
        {MEDIA_IOC_DEVICE_INFO, "MEDIA_IOC_DEVICE_INFO"},
        {MEDIA_IOC_ENUM_ENTITIES, "MEDIA_IOC_ENUM_ENTITIES"},
        {MEDIA_IOC_ENUM_LINKS, "MEDIA_IOC_ENUM_LINKS"},
        {MEDIA_IOC_SETUP_LINK, "MEDIA_IOC_SETUP_LINK"},
        {MEDIA_IOC_REQUEST_ALLOC, "MEDIA_IOC_REQUEST_ALLOC"},
        {MEDIA_REQUEST_IOC_QUEUE, "MEDIA_REQUEST_IOC_QUEUE"},
        {MEDIA_REQUEST_IOC_REINIT, "MEDIA_REQUEST_IOC_REINIT"}};
    if (const auto found = kMedia.find(request); found != kMedia.end())
        return found->second;
    for (const vengine_fault_word& each : vengine_fault_words)
        if (each.code == request) {
            std::string name = _IOC_NR(request) < BASE_VIDIOC_PRIVATE ? "VIDIOC_" : "KVXDIP_IOC_";
            for (const char* letter = each.word; *letter != '\0'; ++letter)
                name += static_cast<char>(toupper(*letter));
            return name;
        }
    return std::to_string(request);
}

/**
 * Installed while it lives. Answers are set before other threads run; calls come from any thread.
 * Opening succeeds with a new descriptor unless told otherwise; an ioctl without an answer is
 * refused with ENOTTY.
 */
class FakeKernel : public System::Kernel {
public:
    static constexpr int kFirstFd = 100;

    FakeKernel() : mPrevious(System::setKernel(this)) {}
    ~FakeKernel() override { System::setKernel(mPrevious); }

    std::map<std::string, int> openResults;            ///< instead of a new one, by path
    std::map<std::string, int> statResults;            ///< by path; 0 for others
    unsigned int group = 0;                            ///< of all files
    int closeResult = 0;                               ///< of the next calls
    std::vector<std::string> directory;                ///< what "/dev" lists
    int directoryResult = 0;                           ///< of opening "/dev"
    std::map<std::string, std::string> symbolicLinks;  ///< ENOENT for others

    /** Answers an ioctl with a constant. */
    void answer(unsigned long request, int result) {
        mAnswers[request] = [result](int, void*) { return result; };
    }
    /** Answers an ioctl with @p handle(fd, record). */
    template <class Record, class Handle>
    void on(unsigned long request, Handle handle) {
        mAnswers[request] = [handle](int fd, void* arg) {
            return handle(fd, *static_cast<Record*>(arg));
        };
    }
    /** Video nodes stream, and have these capabilities beside. */
    void setCapabilities(uint32_t capabilities) {
        on<v4l2_capability>(VIDIOC_QUERYCAP, [capabilities](int, v4l2_capability& capability) {
            capability.capabilities = capabilities | V4L2_CAP_STREAMING;
            return 0;
        });
    }
    /** Puts a line of the test's own between the calls. */
    void note(std::string text) {
        const std::lock_guard lock(mLock);
        mCalls.push_back(std::move(text));
    }
    /** "open PATH FLAGS", "close FD", "VIDIOC_QBUF FD" and so on since the last call. */
    std::vector<std::string> takeCalls() {
        const std::lock_guard lock(mLock);
        return std::exchange(mCalls, {});
    }
    std::string pathOf(int fd) {
        const std::lock_guard lock(mLock);
        return mPaths.at(static_cast<size_t>(fd - kFirstFd));
    }
    int openDirectories = 0;

    int open(const char* path, int flags) override {
        record("open %s %#x", path, flags);
        if (const auto failed = openResults.find(path); failed != openResults.end())
            return failed->second;
        const std::lock_guard lock(mLock);
        mPaths.emplace_back(path);
        return kFirstFd + static_cast<int>(mPaths.size()) - 1;
    }
    int close(int fd) override {
        record("close %d", fd);
        return closeResult;
    }
    int ioctl(int fd, unsigned long request, void* arg) override {
        record("%s %d", ioctlName(request).c_str(), fd);
        const auto found = mAnswers.find(request);
        const int result = found != mAnswers.end() ? found->second(fd, arg) : -ENOTTY;
        errno = result < 0 ? -result : errno;
        return result;
    }
    int openDir(const char* path, DIR** dir) override {
        if (directoryResult < 0 || strcmp(path, "/dev") != 0)
            return directoryResult < 0 ? directoryResult : -ENOENT;
        const std::lock_guard lock(mLock);
        ++openDirectories;
        *dir = reinterpret_cast<DIR*>(&mWalks.emplace_back());
        return 0;
    }
    int readDir(DIR* dir, struct dirent** entry) override {
        auto* const walk = reinterpret_cast<Walk*>(dir);
        if (walk->next == directory.size())
            return *entry = nullptr, 0;
        snprintf(walk->entry.d_name, sizeof(walk->entry.d_name), "%s",
                 directory[walk->next++].c_str());
        walk->entry.d_type = DT_CHR;
        *entry = &walk->entry;
        return 0;
    }
    int closeDir(DIR*) override {
        const std::lock_guard lock(mLock);
        --openDirectories;
        return 0;
    }
    int stat(const char* path, struct stat* info) override {
        info->st_gid = group;
        const auto failed = statResults.find(path);
        return failed != statResults.end() ? failed->second : 0;
    }
    int readLink(const char* path, char* buffer, size_t size) override {
        const auto found = symbolicLinks.find(path);
        return found != symbolicLinks.end() ? static_cast<int>(found->second.copy(buffer, size))
                                            : -ENOENT;
    }

private:
    struct Walk {
        size_t next = 0;
        struct dirent entry = {};
    };

    template <class... Args>
    void record(const char* format, Args... args) {
        char text[256];
        snprintf(text, sizeof(text), format, args...);
        note(text);
    }

    System::Kernel* mPrevious;
    std::map<unsigned long, std::function<int(int, void*)>> mAnswers;
    std::mutex mLock;
    std::vector<std::string> mCalls;
    std::vector<std::string> mPaths;
    std::deque<Walk> mWalks;
};

}  // namespace NSVista::NSCorvane::test
