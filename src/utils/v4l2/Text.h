// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Small pieces of text forms.
 */
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <ios>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace NSVista::NSCorvane {

/** A name for a message: empty for null. */
inline const char* nameOrEmpty(const char* name) {
    return name != nullptr ? name : "";
}

/**
 * Composes a text as a string stream of the classic locale does, at a fraction of its cost:
 * strings, characters, integers in decimal, hexadecimal and with their base, and addresses.
 */
class TextStream {
public:
    using Manipulator = std::ios_base& (*)(std::ios_base&);

    /** Room for most texts at once. */
    TextStream() { mText.reserve(240); }

    TextStream& operator<<(std::string_view text) {
        mText += text;
        return *this;
    }
    TextStream& operator<<(const char* text) { return *this << std::string_view(text); }
    TextStream& operator<<(char character) {
        mText += character;
        return *this;
    }
    template <std::integral Number>
    TextStream& operator<<(Number value) {
        char digits[24];
        std::to_chars_result end{};
        if (!mHexadecimal) {
            // Through a wider type: a bool has no digits of its own.
            end = std::to_chars(digits, std::end(digits), +value);
        } else {
            using Promoted = std::make_unsigned_t<decltype(+value)>;
            end = std::to_chars(digits, std::end(digits), static_cast<Promoted>(value), 16);
            mText += mShowBase && value != 0 ? "0x" : "";
        }
        mText.append(digits, end.ptr);
        return *this;
    }
    TextStream& operator<<(const void* address) {
        char digits[24];
        const auto value = reinterpret_cast<uintptr_t>(address);
        mText += address != nullptr ? "0x" : "";
        mText.append(digits, std::to_chars(digits, std::end(digits), value, 16).ptr);
        return *this;
    }
    /** std::hex, std::dec and std::showbase. */
    TextStream& operator<<(Manipulator manipulator) {
        mHexadecimal = manipulator == Manipulator{std::hex} ||
                       (mHexadecimal && manipulator != Manipulator{std::dec});
        mShowBase |= manipulator == Manipulator{std::showbase};
        return *this;
    }
    std::string str() { return std::move(mText); }

private:
    std::string mText;
    bool mHexadecimal = false;
    bool mShowBase = false;
};

}  // namespace NSVista::NSCorvane
