/**
 * @file
 * Small pieces of text forms.
 */
#pragma once

#include <locale>
#include <sstream>

namespace NSVista::NSCorvane {

/** A name for a message: empty for null. */
inline const char* nameOrEmpty(const char* name) {
    return name != nullptr ? name : "";
}

/** Composes a text in the classic locale, whichever one the process has chosen. */
class TextStream : public std::ostringstream {
public:
    TextStream() { imbue(std::locale::classic()); }
};

}  // namespace NSVista::NSCorvane
