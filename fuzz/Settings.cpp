// SPDX-License-Identifier: Apache-2.0
// Values of properties, and what the log and the trace are told.
#include <corvane/V4L2BufferMonitor.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Trace.h>
#include <unistd.h>

#include "World.h"

CORVANE_LOG_UNIT("corvane-Fuzz")

using namespace NSVista;
using namespace NSVista::NSCorvane;

namespace {

constexpr const char* kKeys[] = {
    "persist.vendor.camera.corvane.V4L2BufferMonitor.configmode",
    "persist.vendor.camera.corvane.V4L2BufferMonitor.tracebuf",
    "persist.vendor.camera.corvane.V4L2BufferMonitor.logv",
    "persist.vendor.camera.corvane.V4L2BufferMonitor.threadpriority",
    "persist.vendor.kvx.camera.log_level",
    "ro.vendor.build.type",
};

void useProperty(fuzz::Bytes& bytes) {
    const char* const key = kKeys[bytes.take() % std::size(kKeys)];
    const std::string value = bytes.takeText();
    Utils::Properties::property_set(key, bytes.take() % 16 != 0 ? value.c_str() : nullptr);
    char text[Utils::Properties::kValueMax];
    Utils::Properties::property_get_int32(key, -1);
    Utils::Properties::property_get_uint64(key, 1);
    Utils::Properties::property_get_bool(key, true);
    if (Utils::Properties::property_get(key, text, "default") !=
        static_cast<int>(strnlen(text, sizeof(text))))
        abort();
    fuzz::Reading printer;
    IV4L2BufferMonitor::make(value.c_str())->dumpState(&printer);
}

void useLog(fuzz::Bytes& bytes) {
    Utils::ULog::ULogger::sMode = bytes.take() & ~1U;
    Utils::ULog::ULogger::sDetailsLevel = bytes.take<uint32_t>();
    Utils::ULog::ULogger::sNormalDetailsMask = bytes.take<uint32_t>();
    const std::string text = bytes.takeText();
    std::string longer;
    for (unsigned i = bytes.take() % 16; i != 0; --i)
        longer += text;
    CORVANE_LOGE("%s", longer.c_str());
    CORVANE_LOGD("%.*s %d", static_cast<int>(bytes.take()), text.c_str(), bytes.take<int>());
    CORVANE_LOGK("%-*s", static_cast<int>(bytes.take()), text.c_str());
}

/** A file of its own, so that no name from outside is opened. */
void useTrace(fuzz::Bytes& bytes, const std::string& path) {
    const std::string text = bytes.takeText();
    set_corvane_enabled_tracebits(bytes.take<uint64_t>());
    if (trace::start(bytes.take() % 8 != 0 ? path.c_str() : "") != 0)
        return;
    for (unsigned i = bytes.take(); i != 0; --i) {
        const TraceSection section(bytes.take() % 64U, CORVANE_TRACE_NAME("%s", text.c_str()));
        atrace_async_begin_body(text.c_str(), bytes.take<int32_t>());
        atrace_int_body(text.c_str(), bytes.take<int32_t>());
        if (bytes.take() % 2 != 0)
            atrace_end_body();
    }
    trace::stop();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/corvane-fuzz-trace-" + std::to_string(getpid());
    fuzz::Bytes bytes(data, size);
    while (!bytes.isEmpty()) {
        const uint8_t what = bytes.take() % 16;
        if (what == 0)
            useTrace(bytes, path);
        else if (what < 8)
            useLog(bytes);
        else
            useProperty(bytes);
    }
    unlink(path.c_str());
    return 0;
}
