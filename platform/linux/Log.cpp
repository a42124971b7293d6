// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Record.h>
#include <corvane/platform/Trace.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Format.h"
#include "ULogSink.h"

constinit CamLogInfoLevel g_logInfoLv[5] = {
    {0x80, "D "}, {0x80, "E "}, {0x80, "W "}, {0x80, "I "}, {0x80, "K "},
};

const char* get_filename_log_control(const char* path) {
    if (path == nullptr)
        return "";
    const char* const slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

namespace NSVista::NSCorvane::log {

namespace {

/** Appends to a terminated buffer and remembers whether everything fitted. */
class Composer {
public:
    Composer(char* out, size_t size) : mOut(out), mEnd(out + size - 1) { *mOut = '\0'; }

    /** Appends text that is part of the format. */
    Composer& format(const char* text) {
        for (; *text != '\0'; ++text)
            put(*text);
        return *this;
    }
    /** Appends text that the format must print as it stands. */
    Composer& literal(const char* text) {
        for (; *text != '\0'; ++text) {
            if (*text == '%')
                put('%');
            put(*text);
        }
        return *this;
    }
    bool complete() const { return mComplete; }

private:
    void put(char c) {
        if (mOut == mEnd) {
            mComplete = false;
            return;
        }
        *mOut++ = c;
        *mOut = '\0';
    }

    char* mOut;
    char* const mEnd;
    bool mComplete = true;
};

}  // namespace

bool debugPrintOn(const Severity& severity) {
    return (mode() & 1) != 0 &&
           (g_logInfoLv[severity.debugPrint].flags.load(std::memory_order_relaxed) & 0x80) != 0;
}

bool composeFormat(char (&composed)[1024], const Severity& severity, const Site& site,
                   const char* format) {
    char line[16];
    snprintf(line, sizeof(line), ":%d ", site.line);
    return Composer(composed, sizeof(composed))
        .literal(g_logInfoLv[severity.debugPrint].prefix)
        .format("[")
        .literal(site.tag)
        .format("] ")
        .literal(get_filename_log_control(site.path))
        .format(line)
        .literal(site.function)
        .format("() ")
        .format(format)
        .complete();
}

void writeUnified(const Severity& severity, const Site& site, const char* format, ...) {
    const ErrnoKeeper keeper;
    char text[Utils::ULog::kTextMax + 1];
    va_list args;
    va_start(args, format);
    const int length = formatPlain(text, sizeof(text), format, args);
    va_end(args);
    if (length >= 0)
        Utils::ULog::sink().log(kModule, site.tag, severity.unified, text,
                                std::min(static_cast<size_t>(length), Utils::ULog::kTextMax));
}

void flushUnified() {
    if (Utils::ULog::unifiedLogOn())
        Utils::ULog::sink().flush(1);
}

void endTraces() {
    trace::stop();
    record::flush();
}

}  // namespace NSVista::NSCorvane::log
