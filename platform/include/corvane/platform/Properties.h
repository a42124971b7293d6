// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * System properties: the only configuration the library reads.
 */
#pragma once

#include <cstdint>

#include <corvane/platform/Export.h>

namespace NSVista::Utils::Properties {

/** Size of a value buffer, terminating zero included. */
inline constexpr int kValueMax = 92;

/**
 * @name Reading
 * A key is looked up among the values set in the process, then in the environment (a variable whose
 * name is the key, then one whose name is the key in upper case with '_' for every other
 * character), then among the platform's own defaults, then the default is taken. In a process with
 * raised rights the environment sets nothing. An empty value counts as absent; one that does not
 * parse gets one warning line, and the next source is asked. Any thread.
 * @{
 */
/** A decimal, octal (0) or hexadecimal (0x) integer. */
CORVANE_EXPORT int32_t property_get_int32(const char* key, int32_t defaultValue);
/** The same for 64 bits without sign. */
CORVANE_EXPORT uint64_t property_get_uint64(const char* key, uint64_t defaultValue);
/** "1", "y", "yes", "on", "true" and "0", "n", "no", "off", "false". */
CORVANE_EXPORT bool property_get_bool(const char* key, bool defaultValue);
/**
 * @param[out] value at least #kValueMax bytes; longer values are cut.
 * @param defaultValue may be null: then an absent key gives an empty value.
 * @return the length of the value.
 */
CORVANE_EXPORT int property_get(const char* key, char* value, const char* defaultValue);
/** @} */

/**
 * Sets a value for this process.
 * @param value null takes the process's own value away again.
 * @return 0, or -EINVAL for an empty key or a value that does not fit #kValueMax.
 */
CORVANE_EXPORT int property_set(const char* key, const char* value);

}  // namespace NSVista::Utils::Properties
