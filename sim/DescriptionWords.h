// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Words that reader and writer of descriptions share.
 */
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include <corvane/V4L2.h>
#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/** What the text says that it is. */
inline constexpr const char* kDescriptionWhat = "corvane device description";

inline constexpr const char* kRequestUses[] = {"refused", "optional", "required"};

inline std::optional<RequestUse> requestUseOf(std::string_view word) {
    for (int use = 0; use < 3; ++use)
        if (word == kRequestUses[use])
            return static_cast<RequestUse>(use);
    return std::nullopt;
}

/** The format's name, or a number where no name tells it whole. */
inline std::string fourccWord(uint32_t fourcc) {
    std::string name = v4l2::formatName(fourcc);
    if (v4l2::fourccOf(name) == fourcc)
        return name;
    char number[16];
    snprintf(number, sizeof(number), "0x%08x", fourcc);
    return number;
}

/** @return 0 for a word that is no format. */
inline uint32_t fourccOfWord(std::string_view word) {
    constexpr size_t kNumber = 10;
    uint32_t number = 0;
    if (word.size() == kNumber && word.starts_with("0x") &&
        std::from_chars(word.data() + 2, word.data() + kNumber, number, 16).ptr ==
            word.data() + kNumber)
        return number;
    return v4l2::fourccOf(word);
}

}  // namespace NSVista::NSCorvane::sim
