// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * JSON values that know where they stand, so that an error can name the place.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace NSVista::NSCorvane::sim {

/** Ends the reading. */
struct BadJson {
    std::string place, reason;
};

/** A value and its place; what is not as asked for ends in BadJson. Lives as long as the text's. */
class JsonPlace {
public:
    JsonPlace(const nlohmann::json& value, std::string place)
        : mValue(value), mPlace(std::move(place)) {}

    [[noreturn]] void refuse(const std::string& reason) const { throw BadJson{mPlace, reason}; }

    /** Tests that it is an object of no other fields than these. */
    const JsonPlace& withOnly(std::initializer_list<std::string_view> names) const;
    /** A field of an object that it must have. */
    JsonPlace at(const char* name) const;
    std::optional<JsonPlace> find(const char* name) const;

    /** Length of an array, which is at least and at most this. */
    size_t length(size_t least = 0, size_t most = SIZE_MAX) const;
    JsonPlace at(size_t index) const;

    std::string text(size_t most) const;
    int64_t number(int64_t least, int64_t most) const;
    uint32_t word(uint32_t least = 0, uint32_t most = UINT32_MAX) const {
        return static_cast<uint32_t>(number(least, most));
    }
    bool flag() const;
    /** @name Fields with a default
     * @{ */
    uint32_t wordOr(const char* name, uint32_t fallback) const;
    bool flagOr(const char* name, bool fallback) const;
    std::string textOr(const char* name, size_t most) const;
    /** @} */
    const std::string& place() const { return mPlace; }

private:
    const nlohmann::json& mValue;
    std::string mPlace;
};

}  // namespace NSVista::NSCorvane::sim
