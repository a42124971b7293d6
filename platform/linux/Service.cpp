#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Service.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>

#include "Format.h"
#include "HandlerSlot.h"
#include "TraceBackend.h"

CORVANE_LOG_UNIT("corvane-Service")

namespace {

using NSVista::NSCorvane::HandlerSlot;

/** Never destroyed: a driver call may be refused until the very end of the process. */
struct Handlers {
    HandlerSlot<void(const char*, const char*)> exception;
    HandlerSlot<void()> terminate;
};

Handlers& handlers() {
    static auto* const instance = new Handlers;
    return *instance;
}

void writeReport(const std::string& path, const char* module, const std::string& text) {
    FILE* const file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        CORVANE_LOGE("Failed to write an exception report to %s", path.c_str());
        return;
    }
    struct timespec now {};
    NSVista::NSCorvane::getCurrentLogTime(now);
    fprintf(file, "%s pid %d module %s\n%s\n",
            NSVista::NSCorvane::convertToFormattedLogTime(now).c_str(), getpid(), module,
            text.c_str());
    fclose(file);
}

/** What a report does when no handler is set. */
void reportException(const char* module, const std::string& text) {
    std::string line = text;
    std::replace(line.begin(), line.end(), '\n', ' ');
    CORVANE_LOGE("Exception of %s: %s", module, line.c_str());

    char directory[NSVista::Utils::Properties::kValueMax] = {};
    if (NSVista::Utils::Properties::property_get("persist.vendor.kvx.camera.exception.dir",
                                                 directory, nullptr) == 0)
        return;
    static std::atomic<unsigned> count{0};
    char name[64] = {};
    snprintf(name, sizeof(name), "/exception-%lld-%d-%u.txt", static_cast<long long>(time(nullptr)),
             getpid(), count.fetch_add(1));
    writeReport(std::string(directory) + name, module, text);
}

}  // namespace

void corvane_oxu_trigger_exception(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = NSVista::NSCorvane::formatText(format, args);
    va_end(args);
    if (module == nullptr)
        module = "";
    if (const auto handler = handlers().exception.get())
        (*handler)(module, text.c_str());
    else
        reportException(module, text);
}

namespace NSVista::Utils {

void terminateService() {
    if (const auto handler = handlers().terminate.get()) {
        (*handler)();
        return;
    }
    // The signal usually ends the process with no exit handler run.
    NSCorvane::log::flushUnified();
    NSCorvane::trace::flush();
    kill(getpid(), SIGTERM);
}

void setExceptionHandler(std::function<void(const char* module, const char* text)> handler) {
    handlers().exception.set(std::move(handler));
}

void setTerminateHandler(std::function<void()> handler) {
    handlers().terminate.set(std::move(handler));
}

}  // namespace NSVista::Utils
