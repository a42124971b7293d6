// SPDX-License-Identifier: Apache-2.0
#include "PropertySources.h"

#include <android-base/properties.h>

namespace NSVista::Utils::Properties {

namespace {

/** libcutils' property_get() is a thin layer over this, and cuts values at 92 bytes. */
std::optional<std::string> systemProperty(const char* key) {
    return android::base::GetProperty(key, "");
}

constexpr PropertySource kSources[] = {systemProperty};

}  // namespace

std::span<const PropertySource> systemSources() {
    return kSources;
}

}  // namespace NSVista::Utils::Properties
