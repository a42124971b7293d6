// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Printer.h>
#include <corvane/platform/ULog.h>

#include <algorithm>

#include "Format.h"
#include "ULogSink.h"

namespace NSVista {

IPrinter::~IPrinter() = default;

void IPrinter::printFormatLine(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string line = NSCorvane::formatText(format, args);
    va_end(args);
    printLine(line.c_str());
}

void FilePrinter::printLine(const char* text) {
    fprintf(mStream, "%s\n", text);
}

}  // namespace NSVista

namespace android {

void LogPrinter::printLine(const char* text) {
    const bool known = mLevel >= CAM_DEBUG_DEBUG && mLevel <= CAM_DEBUG_KEY;
    const auto level = known ? static_cast<cam_debug_level_t>(mLevel) : CAM_DEBUG_INFO;
    log_dbg_print(mTag, level, "%s[%s] %s%s", g_logInfoLv[level].prefix, mTag,
                  mPrefix != nullptr ? mPrefix : "", text);
}

}  // namespace android

namespace NSVista::Utils::ULog {

void ULogPrinter::printLine(const char* text) {
    if (!unifiedLogOn())
        return;
    const std::string line = mPrefix + text;
    sink().log(mModule, mTag, mLevel, line.c_str(), std::min(line.size(), kTextMax));
}

}  // namespace NSVista::Utils::ULog
