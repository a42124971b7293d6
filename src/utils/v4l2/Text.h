/**
 * @file
 * Small pieces of text forms.
 */
#pragma once

#include <cstring>
#include <string>

namespace NSVista::NSCorvane {

/** A name for a message: empty for null. */
inline const char* nameOrEmpty(const char* name) {
    return name != nullptr ? name : "";
}

/** A kernel record's character array, which may lack its terminating zero. */
template <size_t Size>
std::string fixedText(const char (&text)[Size]) {
    return std::string(text, strnlen(text, Size));
}

}  // namespace NSVista::NSCorvane
