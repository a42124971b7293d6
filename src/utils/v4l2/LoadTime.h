// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Facts that are fixed for the life of the process.
 */
#pragma once

#include <corvane/platform/Log.h>
#include <corvane/platform/Properties.h>

#include <cstdint>
#include <cstring>

namespace NSVista::NSCorvane {

/** Kinds of builds of the system. */
enum class BuildType : char { Eng = 'e', UserDebug = 'd', User = 'u' };

/** The build type, read once from "ro.vendor.build.type". */
inline BuildType buildType() {
    static const BuildType type = [] {
        char value[Utils::Properties::kValueMax] = {};
        Utils::Properties::property_get("ro.vendor.build.type", value, "userdebug");
        if (strcmp(value, "eng") == 0)
            return BuildType::Eng;
        return strcmp(value, "userdebug") == 0 ? BuildType::UserDebug : BuildType::User;
    }();
    return type;
}

/**
 * Whether costly diagnostics are wanted, judged when a source unit is loaded.
 * @param logLevel the unit's log-level property; -1 where it is not set.
 * @param minimum lowest set level that wants them.
 */
inline bool diagnosticsWanted(int32_t logLevel, int32_t minimum) {
    return log::detailed(4) && (logLevel == -1 || logLevel >= minimum);
}

}  // namespace NSVista::NSCorvane
