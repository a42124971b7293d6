// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Properties.h>
#include <corvane/platform/ULog.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

using namespace NSVista::Utils::Properties;
using NSVista::Utils::ULog::RingULogger;
using NSVista::Utils::ULog::ULogger;

namespace {

constexpr const char* kKey = "persist.test.Key0";

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

TEST(Properties, AsksTheNextSourceForWhatDoesNotParse) {
    RingULogger log(9);
    ULogger::install(&log);
    setenv("PERSIST_TEST_KEY0", "7", 1);
    EXPECT_EQ(property_get_int32(kKey, 3), 7);
    setenv(kKey, "x6", 1);
    property_set(kKey, "-5");
    EXPECT_EQ(property_get_uint64(kKey, 3), 7U);
    EXPECT_EQ(property_get_uint64(kKey, 3), 7U);
    property_set(kKey, nullptr);
    setenv(kKey, "", 1);  // absent
    EXPECT_EQ(property_get_uint64(kKey, 3), 7U);
    unsetenv("PERSIST_TEST_KEY0");
    EXPECT_EQ(property_get_uint64(kKey, 3), 3U);
    unsetenv(kKey);
    ULogger::install(nullptr);
    std::string lines;
    for (const auto& line : log.take())
        lines += line.text + ";";
    EXPECT_EQ(lines,
              "[warn] persist.test.Key0: bad value '-5';[warn] persist.test.Key0: bad value 'x6';");

    char type[kValueMax];
    property_get("ro.vendor.build.type", type, "userdebug");
    EXPECT_STREQ(type, "user");
    property_set(kKey, "0xffffffffffffffff");
    EXPECT_EQ(property_get_uint64(kKey, 3), ~uint64_t{0});
    property_set(kKey, nullptr);
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
        {"08", 77, true, false},
        {"1 ", 77, true, false},
        {"2147483647", 2147483647, true, false},
        {"2147483648", 77, true, false},
        {"-2147483648", -2147483648, true, false},
        {"-2147483649", 77, true, false},
        {"0x", 77, true, false},
        {"-", 77, true, false},
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
