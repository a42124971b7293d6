// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the tests of the sub-device share: a virtual engine, and what was logged and reported.
 */
#pragma once

#include <corvane/sim/Engine.h>

#include <string>

#include "support/Capture.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane {

/** Runs on a virtual engine. */
class VirtualEngineTest : public testing::Test {
protected:
    explicit VirtualEngineTest(const char* tag = "corvane-V4L2SubDevice")
        : mLog(tag, Utils::ULog::kWarning) {}

    uint64_t calls(sim::Operation operation) {
        return mEngine.faults().calls({operation, 0, VENGINE_SUBDEV_ENTITY});
    }
    uint64_t ioctls(unsigned long code) {
        return mEngine.faults().calls(sim::Call::ioctl(code, VENGINE_SUBDEV_ENTITY));
    }
    std::string subDevicePath() { return mEngine.device().nodePath(VENGINE_SUBDEV_ENTITY); }

    test::LogCapture mLog;
    test::ReportCapture mReports;
    sim::VirtualEngine mEngine;
    const sim::ScopedKernel mKernel{mEngine};
};

}  // namespace NSVista::NSCorvane
