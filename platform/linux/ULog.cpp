// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Gates.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/ULog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "PropertyText.h"
#include "ULogSink.h"

namespace NSVista::Utils::ULog {

// Constant-initialised, so that a static initialiser that logs before loadState() has run finds
// the defaults; loadState() then puts the configured values in.
constinit Setting ULogger::sMode{2};
constinit Setting ULogger::sDetailsLevel{2};
constinit Setting ULogger::sNormalDetailsMask{~uint32_t{0}};
constinit std::atomic<ULogger*> ULogger::sULogger{nullptr};

namespace {

constexpr const char kTag[] = "corvane-ULog";

ULogger* openDefaultSink() {
    const std::string path = Properties::propertyText("persist.vendor.kvx.camera.ulog.file", "");
    if (!path.empty()) {
        if (auto logger = FileULogger::open(path.c_str()))
            return logger.release();
        log_dbg_print(kTag, CAM_DEBUG_ERROR, "E [%s] Failed to log to %s: %s", kTag, path.c_str(),
                      strerror(errno));
    }
    return new FileULogger(STDERR_FILENO);
}

/** Never destroyed: lines are logged until the very end of the process. */
ULogger& defaultSink() {
    static ULogger* const logger = [] {
        try {
            return openDefaultSink();
        } catch (...) {
            __android_log_assert(nullptr, kTag, "no memory for the log");
        }
    }();
    return *logger;
}

void loadProperty(const char* key, Setting& setting) {
    constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max();
    setting = static_cast<uint32_t>(std::min(Properties::property_get_uint64(key, setting), kMost));
}

bool loadState() {
    loadProperty("persist.vendor.kvx.camera.ulog.mode", ULogger::sMode);
    loadProperty("persist.vendor.kvx.camera.ulog.detailslevel", ULogger::sDetailsLevel);
    loadProperty("persist.vendor.kvx.camera.ulog.detailsmask", ULogger::sNormalDetailsMask);
    ULogger::sULogger.store(&defaultSink());
    return true;
}

[[maybe_unused]] const bool gStateLoaded = loadState();

}  // namespace

uint32_t Setting::exchange(uint32_t value) {
    const uint32_t before = mValue.exchange(value, std::memory_order_relaxed);
    NSCorvane::Gates::update();
    return before;
}

ULogger& sink() {
    ULogger* const installed = ULogger::sULogger.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : defaultSink();
}

ULogger* ULogger::install(ULogger* logger) noexcept {
    return sULogger.exchange(logger != nullptr ? logger : &defaultSink(),
                             std::memory_order_acq_rel);
}

ULogger::~ULogger() = default;

void ULogger::flush(int /*wait*/) {
}

}  // namespace NSVista::Utils::ULog
