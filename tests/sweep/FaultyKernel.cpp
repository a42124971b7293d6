// SPDX-License-Identifier: Apache-2.0
#include "FaultyKernel.h"

#include <linux/media.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "Memory.h"
#include "support/FakeKernel.h"

namespace NSVista::NSCorvane::test {

void record(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (write(STDERR_FILENO, line, static_cast<size_t>(length)) != length)
        abort();
}

void FaultyKernel::failAt(const Site& site, int error, bool andLater) {
    const std::lock_guard lock(mLock);
    mTarget = site;
    mError = error;
    mAndLater = andLater;
}

void FaultyKernel::heal() {
    const std::lock_guard lock(mLock);
    mError = 0;
}

int FaultyKernel::errorOf(const Site& site) {
    const bool isTarget = site.operation == mTarget.operation && site.path == mTarget.path &&
                          site.phase == mTarget.phase && site.nth == mTarget.nth;
    if (mError == 0 || !(isTarget || (mAndLater && mStruck)))
        return 0;
    mStruck = true;
    return mError;
}

std::string FaultyKernel::pathOf(int fd) {
    const std::lock_guard lock(mLock);
    const auto found = mPaths.find(fd);
    return found != mPaths.end() ? found->second : "-";
}

template <class Call>
int FaultyKernel::pass(const char* operation, const std::string& path, Call call) {
    Site site{operation, path.empty() ? "-" : path, mPhase.load(), 0};
    int error = 0;
    {
        const std::lock_guard lock(mLock);
        site.nth = ++mCounts[site.operation + ' ' + site.path + ' ' + site.phase];
        error = errorOf(site);
    }
    const auto tell = [&](const char* what, int value) {
        record("%s %s %s %s %u %d\n", what, operation, site.path.c_str(), site.phase.c_str(),
               site.nth, value);
    };
    if (mTracing)
        tell("@call", 0);
    const bool isClose = site.operation == "close" || site.operation == "closedir";
    int result = -error;
    if (error == 0 || isClose)
        result = call();
    if (error != 0)
        result = -error;
    if (result < 0)
        tell("@fail", -result);
    if (site.operation == "close" && result < 0 && path != "-")
        ++mFailedCloses;
    errno = result < 0 ? -result : 0;
    return result;
}

int FaultyKernel::open(const char* path, int flags) {
    const memory::InKernel calling;
    const int fd = pass("open", path, [&] { return mKernel->open(path, flags); });
    if (fd >= 0) {
        const std::lock_guard lock(mLock);
        mPaths[fd] = path;
    }
    return fd;
}

int FaultyKernel::close(int fd) {
    const memory::InKernel calling;
    const std::string path = pathOf(fd);
    {
        const std::lock_guard lock(mLock);
        mPaths.erase(fd);
    }
    return pass("close", path, [&] { return mKernel->close(fd); });
}

int FaultyKernel::ioctl(int fd, unsigned long request, void* arg) {
    const memory::InKernel calling;
    const std::string name = ioctlName(request);
    const int result =
        pass(name.c_str(), pathOf(fd), [&] { return mKernel->ioctl(fd, request, arg); });
    if (request == MEDIA_IOC_REQUEST_ALLOC && result >= 0) {
        const std::lock_guard lock(mLock);
        mPaths[*static_cast<int*>(arg)] = "request";
    }
    return result;
}

int FaultyKernel::openDir(const char* path, DIR** dir) {
    const memory::InKernel calling;
    return pass("opendir", path, [&] { return mKernel->openDir(path, dir); });
}

int FaultyKernel::readDir(DIR* dir, struct dirent** entry) {
    const memory::InKernel calling;
    return pass("readdir", "/dev", [&] { return mKernel->readDir(dir, entry); });
}

int FaultyKernel::closeDir(DIR* dir) {
    const memory::InKernel calling;
    return pass("closedir", "/dev", [&] { return mKernel->closeDir(dir); });
}

int FaultyKernel::stat(const char* path, struct stat* info) {
    const memory::InKernel calling;
    return pass("stat", path, [&] { return mKernel->stat(path, info); });
}

int FaultyKernel::readLink(const char* path, char* buffer, size_t size) {
    const memory::InKernel calling;
    return pass("readlink", path, [&] { return mKernel->readLink(path, buffer, size); });
}

}  // namespace NSVista::NSCorvane::test
