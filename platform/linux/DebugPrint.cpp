// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/ULog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Format.h"
#include "LineWriter.h"

using NSVista::NSCorvane::ErrnoKeeper;
using NSVista::NSCorvane::LineWriter;

namespace {

constexpr size_t kShortLine = 4096;  // what a pipe takes without mixing it with others' bytes
constexpr size_t kLongestLine = 65536;

/** Ends the text with a line feed and writes it whole. @param length of the text alone. */
void writeLine(char* line, size_t length) {
    line[length] = '\n';
    LineWriter::standardError().write(line, length + 1);
}

}  // namespace

void log_dbg_print(const char* /*tag*/, cam_debug_level_t /*level*/, const char* format, ...) {
    const ErrnoKeeper keeper;
    char shortLine[kShortLine];
    va_list args;
    va_start(args, format);
    const int result = vsnprintf(shortLine, sizeof(shortLine), format, args);
    va_end(args);
    if (result < 0)
        return;
    const auto length = static_cast<size_t>(result);
    if (length < sizeof(shortLine)) {
        writeLine(shortLine, length);
        return;
    }
    const size_t kept = std::min(length, kLongestLine - 1);
    const std::unique_ptr<char[]> longLine(new (std::nothrow) char[kept + 1]);
    if (!longLine) {
        writeLine(shortLine, sizeof(shortLine) - 1);
        return;
    }
    va_start(args, format);
    vsnprintf(longLine.get(), kept + 1, format, args);
    va_end(args);
    writeLine(longLine.get(), kept);
}

void __android_log_assert(const char* /*condition*/, const char* tag, const char* format, ...) {
    char line[kShortLine];
    const int head = snprintf(line, sizeof(line), "F [%.64s] ", tag != nullptr ? tag : "");
    size_t length = static_cast<size_t>(std::max(head, 0));
    va_list args;
    va_start(args, format);
    const int body = vsnprintf(line + length, sizeof(line) - length, format, args);
    va_end(args);
    length += static_cast<size_t>(std::max(body, 0));
    writeLine(line, std::min(length, sizeof(line) - 1));
    abort();
}
