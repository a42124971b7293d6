// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Properties.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "Immortal.h"
#include "PropertySources.h"
#include "PropertyText.h"

CORVANE_LOG_UNIT("corvane-Properties")

namespace NSVista::Utils::Properties {

namespace {

using NSCorvane::Immortal;
using NSCorvane::Mutex;
using NSCorvane::MutexLock;
using Value = std::optional<std::string>;

struct Store {
    Mutex lock;
    std::unordered_map<std::string, std::string> values CORVANE_GUARDED_BY(lock);
    /** Values that a warning was written for. */
    std::unordered_set<std::string> refused CORVANE_GUARDED_BY(lock);
};

/** Static initialisers and destructors of other libraries read properties. */
Store& store() {
    static Immortal<Store> instance;
    return *instance;
}

Value processValue(const char* key) {
    const MutexLock lock(store().lock);
    const auto found = store().values.find(key);
    return found != store().values.end() ? Value(found->second) : std::nullopt;
}

void warn(const char* key, const std::string& text) {
    {
        const MutexLock lock(store().lock);
        if (!store().refused.insert(std::string(key) + '=' + text).second)
            return;
    }
    CORVANE_LOGW("%s: bad value '%s'", key, text.c_str());
}

/**
 * Asks the sources in their order.
 * @param parse turns a text into an optional result; one that it refuses is told once, and the next
 *        source is asked. An empty text counts as absent.
 */
template <class Parse>
auto look(const char* key, Parse parse) -> decltype(parse(std::string())) {
    if (key == nullptr || *key == '\0')
        return std::nullopt;
    const auto ask = [&](PropertySource source) -> decltype(parse(std::string())) {
        const Value text = source(key);
        if (!text || text->empty())
            return std::nullopt;
        if (auto result = parse(*text))
            return result;
        warn(key, *text);
        return std::nullopt;
    };
    if (auto result = ask(processValue))
        return result;
    for (const PropertySource source : systemSources()) {
        if (auto result = ask(source))
            return result;
    }
    return std::nullopt;
}

/** A whole decimal, octal (0) or hexadecimal (0x) integer that @p Number can hold. */
template <class Number>
std::optional<Number> parseNumber(const std::string& text) {
    const bool negative = text[0] == '-';
    const char* first = text.c_str() + (negative ? 1 : 0);
    const char* const end = text.c_str() + text.size();
    int base = 10;
    if (first + 1 < end && first[0] == '0') {
        const bool hexadecimal = first[1] == 'x' || first[1] == 'X';
        base = hexadecimal ? 16 : 8;
        first += hexadecimal ? 2 : 1;
    }
    uint64_t magnitude = 0;
    const auto [rest, error] = std::from_chars(first, end, magnitude, base);
    const uint64_t most = std::numeric_limits<Number>::max();
    const uint64_t limit = !negative ? most : std::is_signed_v<Number> ? most + 1 : 0;
    if (error != std::errc() || rest != end || magnitude > limit)
        return std::nullopt;
    return static_cast<Number>(negative ? 0 - magnitude : magnitude);
}

std::optional<bool> parseBool(const std::string& text) {
    static constexpr std::string_view kYes[] = {"1", "y", "yes", "on", "true"};
    static constexpr std::string_view kNo[] = {"0", "n", "no", "off", "false"};
    for (const std::string_view word : kYes) {
        if (text == word)
            return true;
    }
    for (const std::string_view word : kNo) {
        if (text == word)
            return false;
    }
    return std::nullopt;
}

}  // namespace

int32_t property_get_int32(const char* key, int32_t defaultValue) try {
    return look(key, parseNumber<int32_t>).value_or(defaultValue);
}
CORVANE_NO_THROW

uint64_t property_get_uint64(const char* key, uint64_t defaultValue) try {
    return look(key, parseNumber<uint64_t>).value_or(defaultValue);
}
CORVANE_NO_THROW

bool property_get_bool(const char* key, bool defaultValue) try {
    return look(key, parseBool).value_or(defaultValue);
}
CORVANE_NO_THROW

std::string propertyText(const char* key, const char* defaultValue) try {
    const auto take = [](const std::string& text) { return Value(text); };
    return look(key, take).value_or(defaultValue != nullptr ? defaultValue : "");
}
CORVANE_NO_THROW

int property_get(const char* key, char* value, const char* defaultValue) {
    const size_t length = propertyText(key, defaultValue).copy(value, kValueMax - 1);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) try {
    if (key == nullptr || *key == '\0')
        return -EINVAL;
    if (value != nullptr && strlen(value) >= kValueMax)
        return -EINVAL;
    const MutexLock lock(store().lock);
    if (value != nullptr)
        store().values.insert_or_assign(key, value);
    else
        store().values.erase(key);
    return 0;
}
CORVANE_NO_THROW

}  // namespace NSVista::Utils::Properties
