#include <corvane/platform/Gates.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/ULog.h>

#include "ULogSink.h"

namespace NSVista::Utils::ULog {

// Constant-initialised, so that a static initialiser that logs before loadState() has run finds
// the defaults; loadState() then puts the configured values in.
constinit Setting ULogger::sMode{2};
constinit Setting ULogger::sDetailsLevel{2};
constinit Setting ULogger::sNormalDetailsMask{~uint32_t{0}};
constinit std::atomic<ULogger*> ULogger::sULogger{nullptr};

namespace {

/** Never destroyed: lines are logged until the very end of the process. */
ULogger& defaultSink() {
    static auto* const logger = new StreamULogger(stderr);
    return *logger;
}

void loadProperty(const char* key, Setting& setting) {
    const auto byDefault = static_cast<int32_t>(uint32_t{setting});
    setting = static_cast<uint32_t>(Properties::property_get_int32(key, byDefault));
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
