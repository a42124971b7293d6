// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/ULog.h>

#include <algorithm>

#include "Format.h"
#include "ULogSink.h"

CORVANE_LOG_UNIT("corvane-Printer")

namespace NSVista {

IPrinter::~IPrinter() = default;

void IPrinter::printFormatLine(const char* format, ...) try {
    va_list args;
    va_start(args, format);
    const std::string line = NSCorvane::formatText(format, args);
    va_end(args);
    printLine(line.c_str());
}
CORVANE_NO_THROW

void FilePrinter::printLine(const char* text) {
    fprintf(mStream, "%s\n", text);
}

}  // namespace NSVista

namespace NSVista::Utils::ULog {

void ULogPrinter::printLine(const char* text) try {
    if (!unifiedLogOn())
        return;
    const std::string line = mPrefix + text;
    sink().log(mModule, mTag, mLevel, line.c_str(), std::min(line.size(), kTextMax));
}
CORVANE_NO_THROW

}  // namespace NSVista::Utils::ULog
