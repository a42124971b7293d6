// SPDX-License-Identifier: Apache-2.0
// Over Android's own libraries; where they are the host's builds of them, logs go to standard
// error.
#include <android-base/properties.h>
#include <corvane/platform/AndroidPrinter.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

CORVANE_LOG_UNIT("corvane-test")

using namespace NSVista::Utils::Properties;

namespace {

TEST(Android, ReadsTheSystemsPropertiesAfterTheProcess) {
    ASSERT_TRUE(android::base::SetProperty("vendor.test.key", "12"));
    EXPECT_EQ(property_get_int32("vendor.test.key", 3), 12);
    property_set("vendor.test.key", "13");
    EXPECT_EQ(property_get_int32("vendor.test.key", 3), 13);
    property_set("vendor.test.key", nullptr);
    setenv("vendor.test.other", "1", 1);
    EXPECT_EQ(property_get_int32("vendor.test.other", 3), 3) << "the environment is no source";
    EXPECT_EQ(property_get_int32("vendor.test.missing", 4), 4);
}

TEST(Android, LogsTheDebugPrintByPriorityAndTag) {
    testing::internal::CaptureStderr();
    log_dbg_print("Tag", CAM_DEBUG_WARNING, "%d of them", 7);
    log_dbg_print("Tag", CAM_DEBUG_KEY, "key");
    const std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_THAT(lines, testing::ContainsRegex("Tag +W .*7 of them\n"));
    EXPECT_THAT(lines, testing::ContainsRegex("Tag +I .*key\n"));
}

TEST(AndroidDeathTest, EndsAFatalErrorByTheSystemsAssert) {
    const auto fatal = [] { CORVANE_FATAL("gone %d", 5); };
    EXPECT_EXIT(fatal(), testing::KilledBySignal(SIGABRT), "gone 5");
}

TEST(Android, PrintsThroughTheSystemsPrinters) {
    android::String8 text;
    android::String8Printer system(&text, "> ");
    NSVista::AndroidPrinter printer(system);
    printer.printFormatLine("line %d", 1);
    printer.printLine("two");
    EXPECT_STREQ(text.string(), "> line 1\n> two\n");
}

}  // namespace
