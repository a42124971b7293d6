// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Line printers: where state dumps go.
 */
#pragma once

#include <cstdio>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista {

/** Prints a state dump line by line. A printer is used by one thread at a time. */
class CORVANE_EXPORT IPrinter {
public:
    virtual ~IPrinter();
    /** Prints one line. @param text without a line end; must not be null. */
    virtual void printLine(const char* text) = 0;
    /** Formats, then prints one line of any length through printLine(). */
    virtual void printFormatLine(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

/** Prints to a stdio stream, which it does not own. */
class CORVANE_EXPORT FilePrinter : public IPrinter {
public:
    explicit FilePrinter(FILE* stream) : mStream(stream) {}
    void printLine(const char* text) override;

private:
    FILE* mStream;
};

}  // namespace NSVista

#if !defined(CORVANE_ANDROID)  // there libutils has it, see AndroidPrinter.h

namespace android {

/** Prints to the debug print. */
class CORVANE_EXPORT LogPrinter : public NSVista::IPrinter {
public:
    /**
     * @param tag, prefix not owned, must outlive the printer; @p prefix begins every line and may
     *        be null.
     * @param level a debug-print level code.
     */
    LogPrinter(const char* tag, int level, const char* prefix = nullptr)
        : mTag(tag), mPrefix(prefix), mLevel(level) {}
    void printLine(const char* text) override;

private:
    const char* mTag;
    const char* mPrefix;
    int mLevel;
};

}  // namespace android

#endif

namespace NSVista::Utils::ULog {

/** Prints to the unified log. */
class CORVANE_EXPORT ULogPrinter : public NSVista::IPrinter {
public:
    /**
     * @param module module identifier of the lines.
     * @param tag not owned, must outlive the printer.
     * @param level unified-log level of the lines.
     * @param prefix begins every line.
     */
    ULogPrinter(unsigned int module, const char* tag, int level, std::string prefix = {})
        : mPrefix(static_cast<std::string&&>(prefix)), mTag(tag), mModule(module), mLevel(level) {}
    void printLine(const char* text) override;

private:
    std::string mPrefix;
    const char* mTag;
    unsigned int mModule;
    int mLevel;
};

}  // namespace NSVista::Utils::ULog
