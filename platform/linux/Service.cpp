// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Record.h>
#include <corvane/platform/Service.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "Format.h"
#include "HandlerSlot.h"
#include "Immortal.h"
#include "PrivateFile.h"
#include "PropertyText.h"
#include "TraceBackend.h"

CORVANE_LOG_UNIT("corvane-Service")

namespace {

using NSVista::NSCorvane::HandlerSlot;
using NSVista::NSCorvane::Immortal;

/** A driver call may be refused until the very end of the process. */
struct Handlers {
    HandlerSlot<void(const char*, const char*)> exception;
    HandlerSlot<void()> terminate;
};

Handlers& handlers() {
    static Immortal<Handlers> instance;
    return *instance;
}

void writeReport(const std::string& path, const char* module, const std::string& text) {
    struct timespec now {};
    NSVista::NSCorvane::getCurrentLogTime(now);
    const std::string report = NSVista::NSCorvane::convertToFormattedLogTime(now) + " pid " +
                               std::to_string(getpid()) + " module " + module + '\n' + text + '\n';
    const auto fd = NSVista::NSCorvane::openPrivate(path.c_str(), O_WRONLY | O_CREAT | O_EXCL);
    const int result =
        fd ? NSVista::NSCorvane::writeAll(fd.get(), report.data(), report.size()) : -errno;
    if (result != 0)
        CORVANE_LOGE("Failed to write an exception report to %s: %s", path.c_str(),
                     strerror(-result));
}

/** What a report does when no handler is set. */
void reportException(const char* module, const std::string& text) {
    std::string line = text;
    std::replace(line.begin(), line.end(), '\n', ' ');
    CORVANE_LOGE("Exception of %s: %s", module, line.c_str());

    const std::string directory = NSVista::Utils::Properties::propertyText(
        "persist.vendor.kvx.camera.exception.dir", nullptr);
    if (directory.empty())
        return;
    static std::atomic<unsigned> count{0};
    char name[64] = {};
    snprintf(name, sizeof(name), "/exception-%lld-%d-%u.txt", static_cast<long long>(time(nullptr)),
             getpid(), count.fetch_add(1));
    writeReport(directory + name, module, text);
}

}  // namespace

void corvane_oxu_trigger_exception(const char* module, const char* format, ...) try {
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
CORVANE_NO_THROW

namespace NSVista::Utils {

void terminateService() try {
    if (const auto handler = handlers().terminate.get()) {
        (*handler)();
        return;
    }
    // The signal usually ends the process with no exit handler run.
    NSCorvane::log::flushUnified();
    NSCorvane::trace::flush();
    NSCorvane::record::flush();
    kill(getpid(), SIGTERM);
}
CORVANE_NO_THROW

void setExceptionHandler(std::function<void(const char* module, const char* text)> handler) try {
    handlers().exception.set(std::move(handler));
}
CORVANE_NO_THROW

void setTerminateHandler(std::function<void()> handler) try {
    handlers().terminate.set(std::move(handler));
}
CORVANE_NO_THROW

}  // namespace NSVista::Utils
