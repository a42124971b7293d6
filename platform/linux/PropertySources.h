// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Where properties come from, beside what is set in the process.
 */
#pragma once

#include <optional>
#include <span>
#include <string>

namespace NSVista::Utils::Properties {

/** @return the value that a source has for a key, if any. Any thread. */
using PropertySource = std::optional<std::string> (*)(const char* key);

/** The system's sources in the order in which they are asked. */
std::span<const PropertySource> systemSources();

}  // namespace NSVista::Utils::Properties
