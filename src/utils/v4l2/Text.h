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
 * strings, characters, integers in decimal, hexadecimal and with their base, and addresses. What
 * has no room in place goes on in a string.
 */
class TextStream {
public:
    using Manipulator = std::ios_base& (*)(std::ios_base&);

    TextStream& operator<<(std::string_view text) {
        if (mLength + text.size() < sizeof(mInPlace) && mMore.empty()) {
            text.copy(mInPlace + mLength, text.size());
            mLength += text.size();
            return *this;
        }
        if (mMore.empty())
            mMore.assign(mInPlace, mLength);
        mMore += text;
        return *this;
    }
    TextStream& operator<<(const char* text) { return *this << std::string_view(text); }
    TextStream& operator<<(char character) { return *this << std::string_view(&character, 1); }
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
            *this << (mShowBase && value != 0 ? "0x" : "");
        }
        return *this << std::string_view(digits, static_cast<size_t>(end.ptr - digits));
    }
    TextStream& operator<<(const void* address) {
        char digits[24];
        const auto value = reinterpret_cast<uintptr_t>(address);
        const char* const end = std::to_chars(digits, std::end(digits), value, 16).ptr;
        return *this << (address != nullptr ? "0x" : "")
                     << std::string_view(digits, static_cast<size_t>(end - digits));
    }
    /** std::hex, std::dec and std::showbase. */
    TextStream& operator<<(Manipulator manipulator) {
        mHexadecimal = manipulator == Manipulator{std::hex} ||
                       (mHexadecimal && manipulator != Manipulator{std::dec});
        mShowBase |= manipulator == Manipulator{std::showbase};
        return *this;
    }
    std::string str() { return mMore.empty() ? std::string(mInPlace, mLength) : std::move(mMore); }
    /** Until the next piece. */
    const char* c_str() {
        mInPlace[mLength] = '\0';
        return mMore.empty() ? mInPlace : mMore.c_str();
    }

private:
    char mInPlace[512];  // beyond what a request's text takes
    size_t mLength = 0;
    std::string mMore;
    bool mHexadecimal = false;
    bool mShowBase = false;
};

}  // namespace NSVista::NSCorvane
