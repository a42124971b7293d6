#include <corvane/platform/Properties.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

using namespace NSVista::Utils::Properties;

namespace {

constexpr const char* kKey = "persist.test.key";

TEST(Properties, TakesTheProcessThenTheEnvironmentThenTheDefault) {
    EXPECT_EQ(property_get_int32(kKey, 3), 3);
    setenv(kKey, "4", 1);
    EXPECT_EQ(property_get_int32(kKey, 3), 4);
    EXPECT_EQ(property_set(kKey, "5"), 0);
    EXPECT_EQ(property_get_int32(kKey, 3), 5);
    EXPECT_EQ(property_set(kKey, nullptr), 0);
    EXPECT_EQ(property_get_int32(kKey, 3), 4);

    setenv(kKey, std::string(200, 'x').c_str(), 1);
    char value[kValueMax];
    EXPECT_EQ(property_get(kKey, value, "default"), kValueMax - 1);
    EXPECT_EQ(value, std::string(kValueMax - 1, 'x'));
    unsetenv(kKey);
    EXPECT_EQ(property_get(kKey, value, nullptr), 0);
    EXPECT_EQ(property_set(kKey, std::string(kValueMax, 'x').c_str()), -EINVAL);
}

TEST(Properties, ParsesWholeNumbersAndWordsOnly) {
    struct {
        const char* text;
        int32_t number;
        bool orTrue, orFalse;
    } const cases[] = {
        {"1", 1, true, true},
        {"0", 0, false, false},
        {"-8", -8, true, false},
        {"0x10", 16, true, false},
        {"010", 8, true, false},
        {"1 ", 77, true, false},
        {"2147483648", 77, true, false},
        {"", 77, true, false},
        {"on", 77, true, true},
        {"99999999999999999999", 77, true, false},
        {"false", 77, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(property_set(kKey, c.text), 0);
        EXPECT_EQ(property_get_int32(kKey, 77), c.number);
        EXPECT_EQ(property_get_bool(kKey, true), c.orTrue);
        EXPECT_EQ(property_get_bool(kKey, false), c.orFalse);
    }
    property_set(kKey, nullptr);
}

}  // namespace
