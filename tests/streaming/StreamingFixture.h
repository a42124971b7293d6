// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What every case of the suite stands on.
 */
#pragma once

#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/System.h>
#include <corvane/platform/ULog.h>
#include <gtest/gtest.h>
#include <linux/media.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "Platform.h"
#include "Rig.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {

using Utils::Properties::property_set;
using Utils::ULog::RingULogger;
using Utils::ULog::ULogger;

inline constexpr char kModeProperty[] =
    "persist.vendor.camera.corvane.V4L2BufferMonitor.configmode";
inline constexpr char kTraceBufProperty[] =
    "persist.vendor.camera.corvane.V4L2BufferMonitor.tracebuf";

/** Catches the log and the endings, and checks that nothing is left behind. */
class Streaming : public testing::Test {
protected:
    void SetUp() override {
        Platform::instance();
        ULogger::install(&mLog);
        ULogger::sMode = 2;
        Utils::setExceptionHandler([this](const char*, const char*) { ++reports; });
        Utils::setTerminateHandler([] {});
    }
    void TearDown() override {
        if (Platform::instance().fails())
            Platform::instance().order("clear");
        if (auto* device = Platform::instance().virtualDevice()) {
            device->setTiming({});
            device->resume();
            EXPECT_EQ(device->counts().requests, 0U);
        }
        property_set(kModeProperty, nullptr);
        property_set(kTraceBufProperty, nullptr);
        Utils::setExceptionHandler({});
        Utils::setTerminateHandler({});
        ULogger::install(nullptr);
        EXPECT_TRUE(System::openFds().empty());
        EXPECT_EQ(Platform::instance().openFiles(), 0U);
    }
    /** Error lines since the last call. */
    Lines errors() {
        Lines texts;
        for (const auto& line : mLog.take())
            if (line.level == Utils::ULog::kError)
                texts.push_back(line.text);
        return texts;
    }
    static void expectNoLinks() {
        const Platform& platform = Platform::instance();
        for (const auto& port : platform.ports())
            for (const auto& link : port.links)
                EXPECT_EQ(platform.linkFlags(link) & MEDIA_LNK_FL_ENABLED, 0U) << port.name;
    }
    static size_t portsOrSkip(size_t wanted) {
        return std::min(wanted, Platform::instance().ports().size());
    }

    std::atomic<int> reports{0};

private:
    RingULogger mLog{4096};
};

}  // namespace NSVista::NSCorvane::test
