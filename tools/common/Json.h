// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * JSON for machines.
 */
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace NSVista::NSCorvane::tools {

/** Puts a JSON text together, in the order of the calls. */
class Json {
public:
    /** Begins an object, or an array; @p name within an object. */
    void object(std::string_view name = {}) { open(name, '{'); }
    void array(std::string_view name = {}) { open(name, '['); }
    /** Ends the innermost one. */
    void end() {
        mText += mClosing.back();
        mClosing.pop_back();
        mIsFirst = false;
    }
    void text(std::string_view name, std::string_view value) {
        begin(name);
        quote(value);
    }
    void number(std::string_view name, int64_t value) {
        begin(name);
        mText += std::to_string(value);
    }
    void decimal(std::string_view name, double value) {
        char digits[32];
        snprintf(digits, sizeof(digits), "%.3f", value);
        begin(name);
        mText += digits;
    }
    void flag(std::string_view name, bool value) {
        begin(name);
        mText += value ? "true" : "false";
    }
    const std::string& result() const { return mText; }

private:
    void open(std::string_view name, char bracket) {
        begin(name);
        mText += bracket;
        mClosing += bracket == '{' ? '}' : ']';
        mIsFirst = true;
    }
    void begin(std::string_view name) {
        if (!mIsFirst)
            mText += ',';
        mIsFirst = false;
        if (name.empty())
            return;
        quote(name);
        mText += ':';
    }
    void quote(std::string_view value) {
        mText += '"';
        for (const char c : value) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(c));
            if (c == '"' || c == '\\')
                mText += '\\';
            if (static_cast<unsigned char>(c) < ' ')
                mText += escaped;
            else
                mText += c;
        }
        mText += '"';
    }

    std::string mText;
    std::string mClosing;
    bool mIsFirst = true;
};

}  // namespace NSVista::NSCorvane::tools
