#include <corvane/platform/Mutex.h>
#include <corvane/platform/Properties.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#if defined(__ANDROID__)
#include <sys/system_properties.h>
#endif

namespace NSVista::Utils::Properties {

namespace {

using NSCorvane::Mutex;
using NSCorvane::MutexLock;

struct Store {
    Mutex lock;
    std::unordered_map<std::string, std::string> values CORVANE_GUARDED_BY(lock);
};

/** Never destroyed: static initialisers and destructors of other libraries read properties. */
Store& store() {
    static auto* const instance = new Store;
    return *instance;
}

std::optional<std::string> systemValue(const char* key) {
#if defined(__ANDROID__)
    char value[PROP_VALUE_MAX] = {};
    if (__system_property_get(key, value) > 0)
        return value;
#else
    if (const char* value = getenv(key))
        return value;
#endif
    return std::nullopt;
}

std::optional<std::string> find(const char* key) {
    if (key == nullptr || *key == '\0')
        return std::nullopt;
    {
        MutexLock lock(store().lock);
        if (auto found = store().values.find(key); found != store().values.end())
            return found->second;
    }
    return systemValue(key);
}

template <size_t Count>
bool isOneOf(const std::string& value, const std::string_view (&words)[Count]) {
    for (const std::string_view word : words) {
        if (value == word)
            return true;
    }
    return false;
}

}  // namespace

int32_t property_get_int32(const char* key, int32_t defaultValue) {
    const auto text = find(key);
    if (!text || text->empty())
        return defaultValue;
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text->c_str(), &end, 0);
    const bool parsed = errno == 0 && *end == '\0' &&
                        value >= std::numeric_limits<int32_t>::min() &&
                        value <= std::numeric_limits<int32_t>::max();
    return parsed ? static_cast<int32_t>(value) : defaultValue;
}

bool property_get_bool(const char* key, bool defaultValue) {
    static constexpr std::string_view kYes[] = {"1", "y", "yes", "on", "true"};
    static constexpr std::string_view kNo[] = {"0", "n", "no", "off", "false"};
    const auto text = find(key);
    if (!text)
        return defaultValue;
    if (isOneOf(*text, kYes))
        return true;
    return isOneOf(*text, kNo) ? false : defaultValue;
}

int property_get(const char* key, char* value, const char* defaultValue) {
    const std::string text = find(key).value_or(defaultValue != nullptr ? defaultValue : "");
    const size_t length = text.copy(value, kValueMax - 1);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) {
    if (key == nullptr || *key == '\0')
        return -EINVAL;
    if (value != nullptr && strlen(value) >= kValueMax)
        return -EINVAL;
    MutexLock lock(store().lock);
    if (value != nullptr)
        store().values.insert_or_assign(key, value);
    else
        store().values.erase(key);
    return 0;
}

}  // namespace NSVista::Utils::Properties
