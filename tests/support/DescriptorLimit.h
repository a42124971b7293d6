// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A process that runs out of descriptors.
 */
#pragma once

#include <sys/resource.h>
#include <unistd.h>

namespace NSVista::NSCorvane::test {

/** Lets the process open so many descriptors more at most, none of them above a gap. */
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t more) {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        const int next = dup(STDERR_FILENO);
        close(next);
        const rlimit limit{static_cast<rlim_t>(next) + more, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit mBefore{};
};

}  // namespace NSVista::NSCorvane::test
