// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * How the tools speak: messages, tables, exit codes.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace NSVista::NSCorvane::tools {

/** Exit codes of the tools. */
enum ExitCode : int { kSuccess = 0, kRunFailed = 1, kBadUse = 2 };

/** Names the program in its messages. First of all; @p name outlives the program's output. */
void setProgramName(const char* name);

/** Says one line on stderr, after the program's name. */
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
/** The same where the program ends by it. @return @p code, for the caller to return. */
ExitCode complain(ExitCode code, const char* format, ...) __attribute__((format(printf, 2, 3)));

/**
 * Writes out what stdout still holds.
 * @return @p code, or kRunFailed with a line on stderr when output was lost.
 */
ExitCode finishOutput(ExitCode code);

/** Columns of the terminal that a descriptor leads to. @return 0 where it leads to none. */
size_t terminalWidth(int fd);

/**
 * Columns that a line on stdout may take: the terminal's, or COLUMNS where that is set.
 * @return 0 for no limit (a pipe, a file).
 */
size_t outputWidth();

using Row = std::vector<std::string>;

/**
 * Prints rows to stdout in columns as wide as needed; what is too wide for the terminal as a list.
 * @param rows the first one is the head; a column that is empty below it is left out.
 * @param right the columns to align on the right.
 */
void printTable(const std::vector<Row>& rows, const std::vector<size_t>& right = {});

/** A number of bytes with its thousands apart. */
std::string bytesText(uint64_t bytes);

}  // namespace NSVista::NSCorvane::tools
