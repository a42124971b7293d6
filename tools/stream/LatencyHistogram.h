// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Durations of a run of any length in constant memory.
 */
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>

namespace NSVista::NSCorvane::tools {

/**
 * Counts durations in buckets of less than one percent of their value: 128 buckets for each power
 * of two. The least and the greatest are exact.
 */
class LatencyHistogram {
public:
    using Duration = std::chrono::nanoseconds;

    void add(Duration duration) {
        const uint64_t value =
            std::clamp<int64_t>(duration.count(), 0, (int64_t{1} << kLargestPower) - 1);
        ++mBuckets[bucketOf(value)];
        ++mCount;
        mLeast = std::min(mLeast, value);
        mGreatest = std::max(mGreatest, value);
    }
    uint64_t count() const { return mCount; }
    Duration least() const { return Duration(mCount != 0 ? mLeast : 0); }
    Duration greatest() const { return Duration(mGreatest); }
    /** The duration that a share (0 to 1) of all do not exceed. */
    Duration quantile(double share) const {
        if (mCount == 0)
            return Duration(0);
        const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(mCount)));
        uint64_t seen = 0;
        for (unsigned i = 0; i < kBuckets; ++i)
            if ((seen += mBuckets[i]) >= wanted)
                return Duration(std::clamp(middleOf(i), mLeast, mGreatest));
        return Duration(0);
    }

private:
    static constexpr unsigned kSubBits = 7;
    static constexpr unsigned kLargestPower = 40;  // 18 minutes
    static constexpr unsigned kBuckets = (kLargestPower - kSubBits + 1) << kSubBits;

    static unsigned bucketOf(uint64_t value) {
        if (value >> kSubBits == 0)
            return static_cast<unsigned>(value);
        const auto shift = static_cast<unsigned>(std::bit_width(value)) - kSubBits - 1;
        return (shift << kSubBits) + static_cast<unsigned>(value >> shift);
    }
    static uint64_t middleOf(unsigned bucket) {
        if (bucket >> (kSubBits + 1) == 0)
            return bucket;
        const unsigned shift = (bucket >> kSubBits) - 1;
        const uint64_t first = uint64_t{bucket - (shift << kSubBits)} << shift;
        return first + ((uint64_t{1} << shift) / 2);
    }

    std::array<uint64_t, kBuckets> mBuckets{};
    uint64_t mCount = 0;
    uint64_t mLeast = ~uint64_t{0};
    uint64_t mGreatest = 0;
};

}  // namespace NSVista::NSCorvane::tools
