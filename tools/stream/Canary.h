// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A byte pattern that shows whether memory was written.
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

namespace NSVista::NSCorvane::tools {

/** Pseudo-random bytes that no picture is likely to hold at the same place. */
class Canary {
public:
    /** Memory of up to @p size bytes can be laid out from now on. */
    void reserve(size_t size) {
        for (size_t i = mPattern.size(); i < size; ++i) {
            mState ^= mState << 13;
            mState ^= mState >> 17;
            mState ^= mState << 5;
            mPattern.push_back(static_cast<uint8_t>(mState >> 8));
        }
    }
    void lay(std::span<uint8_t> memory) const {
        memcpy(memory.data(), mPattern.data(), memory.size());
    }
    /** Nothing was written to @p memory. */
    bool isIntact(std::span<const uint8_t> memory) const {
        return memcmp(memory.data(), mPattern.data(), memory.size()) == 0;
    }
    /** Where a block of bytes was not written; the last block may be shorter. */
    std::optional<size_t> findUnwritten(std::span<const uint8_t> memory) const {
        for (size_t at = 0; at + kShortestBlock <= memory.size(); at += kBlock) {
            const size_t length = std::min(kBlock, memory.size() - at);
            if (memcmp(memory.data() + at, mPattern.data() + at, length) == 0)
                return at;
        }
        return std::nullopt;
    }

private:
    static constexpr size_t kBlock = 8;
    static constexpr size_t kShortestBlock = 4;  // Fewer bytes are equal by chance too often.

    uint32_t mState = 0x9E3779B9;
    std::vector<uint8_t> mPattern;
};

}  // namespace NSVista::NSCorvane::tools
