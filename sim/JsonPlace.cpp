// SPDX-License-Identifier: Apache-2.0
#include "JsonPlace.h"

#include <algorithm>

namespace NSVista::NSCorvane::sim {

const JsonPlace& JsonPlace::withOnly(std::initializer_list<std::string_view> names) const {
    if (!mValue.is_object())
        refuse("is no object");
    for (const auto& item : mValue.items())
        if (std::find(names.begin(), names.end(), item.key()) == names.end())
            JsonPlace(item.value(), mPlace.empty() ? item.key() : mPlace + "." + item.key())
                .refuse("is no field of this place");
    return *this;
}

std::optional<JsonPlace> JsonPlace::find(const char* name) const {
    const auto found = mValue.find(name);
    if (found == mValue.end())
        return std::nullopt;
    return JsonPlace(*found, mPlace.empty() ? name : mPlace + "." + name);
}

JsonPlace JsonPlace::at(const char* name) const {
    if (const auto field = find(name))
        return *field;
    throw BadJson{mPlace.empty() ? name : mPlace + "." + name, "is missing"};
}

size_t JsonPlace::length(size_t least, size_t most) const {
    if (!mValue.is_array())
        refuse("is no list");
    if (mValue.size() < least || mValue.size() > most)
        refuse("has " + std::to_string(mValue.size()) + " items instead of " +
               (most == SIZE_MAX ? std::to_string(least) + " or more"
                : least == most  ? std::to_string(least)
                                 : std::to_string(least) + " to " + std::to_string(most)));
    return mValue.size();
}

JsonPlace JsonPlace::at(size_t index) const {
    return JsonPlace(mValue[index], mPlace + "[" + std::to_string(index) + "]");
}

std::string JsonPlace::text(size_t most) const {
    if (!mValue.is_string())
        refuse("is no text");
    const auto& text = mValue.get_ref<const std::string&>();
    if (text.size() > most)
        refuse("is longer than " + std::to_string(most) + " bytes");
    if (text.find('\0') != std::string::npos)
        refuse("holds a zero");
    return text;
}

int64_t JsonPlace::number(int64_t least, int64_t most) const {
    if (!mValue.is_number_integer())
        refuse("is no whole number");
    const bool isTooLarge =
        mValue.is_number_unsigned() && mValue.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX);
    const int64_t value = isTooLarge ? INT64_MAX : mValue.get<int64_t>();
    if (isTooLarge || value < least || value > most)
        refuse("is not from " + std::to_string(least) + " to " + std::to_string(most));
    return value;
}

bool JsonPlace::flag() const {
    if (!mValue.is_boolean())
        refuse("is neither true nor false");
    return mValue.get<bool>();
}

uint32_t JsonPlace::wordOr(const char* name, uint32_t fallback) const {
    const auto field = find(name);
    return field ? field->word() : fallback;
}

bool JsonPlace::flagOr(const char* name, bool fallback) const {
    const auto field = find(name);
    return field ? field->flag() : fallback;
}

std::string JsonPlace::textOr(const char* name, size_t most) const {
    const auto field = find(name);
    return field ? field->text(most) : std::string();
}

}  // namespace NSVista::NSCorvane::sim
