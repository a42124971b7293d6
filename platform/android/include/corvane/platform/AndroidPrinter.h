// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * State dumps through libutils' printers: into the system's log, a dumpsys descriptor, a string.
 */
#pragma once

#include <utils/Printer.h>

#include <corvane/platform/Printer.h>

namespace NSVista {

/** Prints through a printer of the system, which it does not own and which must outlive it. */
class AndroidPrinter final : public IPrinter {
public:
    explicit AndroidPrinter(android::Printer& printer) : mPrinter(printer) {}
    void printLine(const char* text) override { mPrinter.printLine(text); }

private:
    android::Printer& mPrinter;
};

}  // namespace NSVista
