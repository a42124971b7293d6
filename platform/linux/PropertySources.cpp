// SPDX-License-Identifier: Apache-2.0
#include "PropertySources.h"

#include <cstdlib>
#include <cstring>

namespace NSVista::Utils::Properties {

namespace {

using Value = std::optional<std::string>;

Value valueOf(const char* text) {
    return text != nullptr ? Value(text) : std::nullopt;
}

/** secure_getenv: in a process with raised rights the environment sets nothing. */
Value exactVariable(const char* key) {
    return valueOf(secure_getenv(key));
}

/** A name that every shell can set: in upper case, '_' for what is neither letter nor digit. */
Value shellVariable(const char* key) {
    std::string name(key);
    for (char& c : name) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
        else if ((c < 'A' || c > 'Z') && (c < '0' || c > '9'))
            c = '_';
    }
    return valueOf(secure_getenv(name.c_str()));
}

/** What the system's properties say where there are none. */
Value platformDefault(const char* key) {
    static constexpr const char* kDefaults[][2] = {
        {"ro.vendor.build.type", "user"},
    };
    for (const auto& [name, value] : kDefaults) {
        if (strcmp(key, name) == 0)
            return value;
    }
    return std::nullopt;
}

constexpr PropertySource kSources[] = {exactVariable, shellVariable, platformDefault};

}  // namespace

std::span<const PropertySource> systemSources() {
    return kSources;
}

}  // namespace NSVista::Utils::Properties
