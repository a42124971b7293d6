// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What every case of the suite stands on.
 */
#pragma once

#include <corvane/platform/Properties.h>
#include <corvane/platform/System.h>
#include <linux/media.h>

#include <algorithm>

#include "Platform.h"
#include "Rig.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {

using Utils::Properties::property_set;

inline constexpr char kModeProperty[] =
    "persist.vendor.camera.corvane.V4L2BufferMonitor.configmode";
inline constexpr char kTraceBufProperty[] =
    "persist.vendor.camera.corvane.V4L2BufferMonitor.tracebuf";

/** Catches the log and the endings, and checks that nothing is left behind. */
class Streaming : public testing::Test {
protected:
    ~Streaming() override {
        if (platform.fails()) {
            platform.order("clear");
            platform.hold(false);
        }
        if (const auto* device = platform.virtualDevice()) {
            EXPECT_EQ(device->counts().requests, 0U);
        }
        property_set(kModeProperty, nullptr);
        property_set(kTraceBufProperty, nullptr);
        EXPECT_TRUE(System::openFds().empty());
        EXPECT_EQ(platform.openFiles(), 0U);
    }
    /** Error lines since the last call. */
    Lines errors() { return mLog.take(); }

    const Platform& platform = Platform::instance();
    ReportCapture reports;

private:
    LogCapture mLog{nullptr, Utils::ULog::kError};
};

/** On a device that fails, hangs and holds back its completions on demand. */
class FaultyStreaming : public Streaming {
protected:
    void SetUp() override {
        if (!platform.fails())
            GTEST_SKIP() << "needs a device that fails on demand";
    }
};

}  // namespace NSVista::NSCorvane::test
