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

namespace NSVista::Utils::ULog {

void ULogPrinter::printLine(const char* text) {
    if (!unifiedLogOn())
        return;
    const std::string line = mPrefix + text;
    sink().log(mModule, mTag, mLevel, line.c_str(), std::min(line.size(), kTextMax));
}

}  // namespace NSVista::Utils::ULog
