// SPDX-License-Identifier: Apache-2.0
#include "Format.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace NSVista::NSCorvane {

namespace {

/** Counts what does not fit, as snprintf(3) does. */
class Output {
public:
    Output(char* text, size_t size) : mText(text), mMost(size - 1) {}

    void add(const char* text, size_t length) {
        if (mLength < mMost)
            memcpy(mText + mLength, text, std::min(length, mMost - mLength));
        mLength += length;
    }
    template <class Number>
    void number(Number value) {
        char digits[24];
        const char* const end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
        add(digits, static_cast<size_t>(end - digits));
    }
    int finish() {
        mText[std::min(mLength, mMost)] = '\0';
        return static_cast<int>(mLength);
    }

private:
    char* const mText;
    const size_t mMost;
    size_t mLength = 0;
};

}  // namespace

int formatPlain(char* text, size_t size, const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    Output output(text, size);
    bool plain = true;
    for (const char* at = format; plain && *at != '\0';) {
        const size_t literal = strcspn(at, "%");
        output.add(at, literal);
        at += literal;
        if (*at == '\0')
            break;
        const bool wide = at[1] == 'z';
        const char conversion = at[wide ? 2 : 1];
        at += wide ? 3 : 2;
        if (conversion == 's' && !wide) {
            const char* const argument = va_arg(again, const char*);
            plain = argument != nullptr;
            if (plain)
                output.add(argument, strlen(argument));
        } else if (conversion == 'd' && !wide) {
            output.number(va_arg(again, int));
        } else if (conversion == 'u') {
            wide ? output.number(va_arg(again, size_t)) : output.number(va_arg(again, unsigned));
        } else {
            plain = false;
        }
    }
    va_end(again);
    return plain ? output.finish() : vsnprintf(text, size, format, args);
}

std::string formatText(const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

}  // namespace NSVista::NSCorvane
