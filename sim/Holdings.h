// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the sub-device's driver holds for one opener.
 */
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <corvane/kvxdip.h>
#include <corvane/platform/UniqueFd.h>
#include <corvane/sim/Engine.h>

#include "Mapping.h"

namespace NSVista::NSCorvane::sim {

/**
 * Mappings, fences and memory. Not thread-safe. Operations return 0 or a negated
 * errno, which vengine-desc.h lists, and change nothing when they fail.
 */
class Holdings {
public:
    int addKva(const kvxdip_kva& list);
    int deleteKva(const kvxdip_kva& list);
    int acquireIova(const kvxdip_iova& request);
    int releaseIova(const kvxdip_iova& request);
    /** Makes fences and hands their descriptors, which are the caller's to close, to it. */
    int addFences(const kvxdip_fence& list);
    /** Gives the driver's references back; a fence that is still pending becomes readable. */
    int deleteFences(const kvxdip_fence& list);
    int allocateMemory(const kvxdip_memory& request);
    int freeMemory(const kvxdip_memory& request);

    /** Names whose everything is that is obtained from now on; 0 at first. */
    void setUser(uint64_t user) { mUser = user; }
    /** Takes back what was obtained for a user; other processes never come here. */
    void clear(uint64_t user);
    void clear();

    /** Makes all fences readable. */
    void signalFences();
    void addTo(SubDeviceCounts& counts) const;

private:
    struct Mapped {
        BufferId id;
        uint8_t coherence;
        uint64_t user;
        UniqueFd reference;  ///< keeps the buffer, and so its identity, alive
    };
    struct Memory {
        std::pair<uint8_t, uint8_t> mode;
        uint64_t user;
    };
    struct Fence {
        int handedOut;  ///< the caller's descriptor
        uint64_t user;
        UniqueFd own;
        bool signalled;

        void signal();
    };

    std::vector<Mapped> mKva, mIova;
    std::vector<Fence> mFences;
    std::vector<Memory> mMemory;
    uint64_t mUser = 0;
};

}  // namespace NSVista::NSCorvane::sim
