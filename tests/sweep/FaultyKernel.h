// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A kernel over another one, whose calls can be made to fail one by one.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::test {

/** Writes one line of the run's record to standard error, whole beside other threads' lines. */
void record(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** A call of the system layer as the sweep knows it again in another run. */
struct Site {
    std::string operation;  ///< "open", "stat"...; of an ioctl its request's name
    std::string path;       ///< the node's; "request" for a media request, "-" where there is none
    std::string phase;      ///< what the client was doing
    unsigned nth = 0;       ///< of the same operation, path and phase, from 1
};

/**
 * Passes calls on, unless they are to fail. A failed call has no effect, but a close is carried
 * out. Each failed call is told on standard error as "@fail OPERATION PATH PHASE NTH ERRNO", in a
 * trace each call as "@call OPERATION PATH PHASE NTH". Any thread.
 */
class FaultyKernel : public System::Kernel {
public:
    /** @param kernel not owned; the one that calls are passed on to from now on. */
    void passOnTo(System::Kernel& kernel) { mKernel = &kernel; }
    void setPhase(const char* phase) { mPhase = phase; }
    const char* phase() const { return mPhase; }
    void trace() { mTracing = true; }
    /** Makes the call at @p site fail with @p error, and all later ones if wanted. */
    void failAt(const Site& site, int error, bool andLater);
    /** Fails nothing more. */
    void heal();
    /** Closes that failed: their descriptors stay accounted. */
    unsigned failedCloses() const { return mFailedCloses; }

    int open(const char* path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int openDir(const char* path, DIR** dir) override;
    int readDir(DIR* dir, struct dirent** entry) override;
    int closeDir(DIR* dir) override;
    int stat(const char* path, struct stat* info) override;
    int readLink(const char* path, char* buffer, size_t size) override;

private:
    template <class Call>
    int pass(const char* operation, const std::string& path, Call call);
    /** @return the errno that the call fails with, 0 for none. */
    int errorOf(const Site& site);
    std::string pathOf(int fd);

    System::Kernel* mKernel = nullptr;
    std::atomic<const char*> mPhase{"-"};
    std::atomic<unsigned> mFailedCloses{0};
    bool mTracing = false;
    std::mutex mLock;
    std::map<int, std::string> mPaths;
    std::map<std::string, unsigned> mCounts;
    Site mTarget;
    int mError = 0;
    bool mAndLater = false;
    bool mStruck = false;
};

}  // namespace NSVista::NSCorvane::test
