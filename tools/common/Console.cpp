// SPDX-License-Identifier: Apache-2.0
#include "Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace NSVista::NSCorvane::tools {

namespace {

const char* sProgramName = "corvane";

std::vector<size_t> columnWidths(const std::vector<Row>& rows) {
    const Row& head = rows.front();
    std::vector<size_t> widths(head.size());
    for (const Row& row : rows)
        for (size_t i = 0; i < row.size() && &row != &head; ++i)
            widths[i] = std::max(widths[i], row[i].size());
    for (size_t i = 0; i < head.size(); ++i)
        widths[i] = widths[i] == 0 ? 0 : std::max(widths[i], head[i].size());
    return widths;
}

void printAsList(const std::vector<Row>& rows) {
    const Row& head = rows.front();
    for (const Row& row : rows) {
        if (&row == &head)
            continue;
        printf("  %s\n", row.front().c_str());
        for (size_t i = 1; i < row.size(); ++i)
            if (!row[i].empty())
                printf("    %s: %s\n", head[i].c_str(), row[i].c_str());
    }
}

/** In one write, so that lines of other threads do not cut it. */
void sayLine(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
void sayLine(const char* format, va_list arguments) {
    char line[1024];
    vsnprintf(line, sizeof(line), format, arguments);
    fprintf(stderr, "%s: %s\n", sProgramName, line);
}

}  // namespace

void setProgramName(const char* name) {
    sProgramName = name;
}

void say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    sayLine(format, arguments);
    va_end(arguments);
}

ExitCode complain(ExitCode code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    sayLine(format, arguments);
    va_end(arguments);
    return code;
}

ExitCode finishOutput(ExitCode code) {
    // A write that failed earlier left its mark; errno tells of the last one only.
    const bool wasLost = ferror(stdout) != 0;
    if (fflush(stdout) == 0 && !wasLost)
        return code;
    return complain(kRunFailed, "output was lost: %s", strerror(errno));
}

size_t terminalWidth(int fd) {
    winsize window{};
    return ioctl(fd, TIOCGWINSZ, &window) == 0 ? window.ws_col : 0;
}

size_t outputWidth() {
    if (const size_t width = terminalWidth(STDOUT_FILENO); width != 0)
        return width;
    const char* const columns = getenv("COLUMNS");
    return columns != nullptr ? strtoul(columns, nullptr, 10) : 0;
}

void printTable(const std::vector<Row>& rows, const std::vector<size_t>& right) {
    const std::vector<size_t> widths = columnWidths(rows);
    size_t total = 0;
    for (const size_t width : widths)
        total += width == 0 ? 0 : width + 2;
    if (const size_t limit = outputWidth(); limit != 0 && total > limit) {
        printAsList(rows);
        return;
    }
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            if (widths[i] == 0)
                continue;
            const std::string gap(widths[i] - row[i].size(), ' ');
            const bool toRight = std::find(right.begin(), right.end(), i) != right.end();
            line += "  " + (toRight ? gap + row[i] : row[i] + gap);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        puts(line.c_str());
    }
}

std::string bytesText(uint64_t bytes) {
    std::string text = std::to_string(bytes);
    for (size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, ",");
    }
    return text;
}

}  // namespace NSVista::NSCorvane::tools
