// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Properties for the platform's own code.
 */
#pragma once

#include <string>

namespace NSVista::Utils::Properties {

/** A value of any length: the environment's are not bound to #kValueMax. */
std::string propertyText(const char* key, const char* defaultValue);

}  // namespace NSVista::Utils::Properties
