/**
 * @file
 * Small pieces of text forms.
 */
#pragma once

namespace NSVista::NSCorvane {

/** A name for a message: empty for null. */
inline const char* nameOrEmpty(const char* name) {
    return name != nullptr ? name : "";
}

}  // namespace NSVista::NSCorvane
