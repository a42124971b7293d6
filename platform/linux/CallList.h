// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Calls of the kernel that have not returned yet.
 */
#pragma once

#include <vector>

#include <corvane/platform/Mutex.h>
#include <corvane/platform/System.h>

namespace NSVista::NSCorvane::System {

/** The ioctls under way but for those of streaming, which are too many. Any thread. */
class CallList {
public:
    /** A call that is listed while it lives, on its caller's stack. */
    class Listed {
    public:
        Listed(int fd, unsigned int request) noexcept;
        ~Listed();
        Listed(const Listed&) = delete;
        Listed& operator=(const Listed&) = delete;

    private:
        friend class CallList;
        CallUnderWay mCall;
        Listed* mBefore = nullptr;
        Listed* mAfter = nullptr;
    };

    /** The process's list. Never destroyed. */
    static CallList& instance();
    std::vector<CallUnderWay> list() const;

private:
    mutable Mutex mLock;  ///< a leaf: held to link and to copy
    Listed* mFirst CORVANE_GUARDED_BY(mLock) = nullptr;
};

}  // namespace NSVista::NSCorvane::System
