// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The logging macros: the only way code of the project logs.
 *
 * A source unit begins with CORVANE_LOG_UNIT(tag). Formats are literals without the leading "[%s]
 * ", which the macros add and fill with the calling function's short name. Arguments are evaluated
 * only when the statement's gate passes and must be what printf takes.
 */
#pragma once

#include <cstdint>

#include <corvane/platform/Export.h>
#include <corvane/platform/Gates.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/ULog.h>

namespace NSVista::NSCorvane::log {

/** Module identifier of the library's lines. */
inline constexpr uint32_t kModule = 0x8002001;

/** A severity's codes in the two sinks. */
struct Severity {
    cam_debug_level_t debugPrint;
    int unified;
};
inline constexpr Severity kError{CAM_DEBUG_ERROR, Utils::ULog::kError};
inline constexpr Severity kWarning{CAM_DEBUG_WARNING, Utils::ULog::kWarning};
inline constexpr Severity kInfo{CAM_DEBUG_INFO, Utils::ULog::kInfo};
inline constexpr Severity kKeyEvent{CAM_DEBUG_KEY, Utils::ULog::kKeyEvent};
inline constexpr Severity kDebug{CAM_DEBUG_DEBUG, Utils::ULog::kDebug};

/** Where a statement stands. */
struct Site {
    const char* tag;
    const char* path;
    const char* function;
    int line;
};

/** The unified log's detail level is at least @p level. */
inline bool detailed(uint32_t level) {
    return Utils::ULog::ULogger::sDetailsLevel >= level;
}

/** Lines of @p severity pass. */
inline bool passes(const Severity& severity) {
    return __builtin_expect(gGates.logged(severity.unified), false);
}

inline uint32_t mode() {
    return Utils::ULog::ULogger::sMode;
}

/** The debug print is on for @p severity. */
CORVANE_EXPORT bool debugPrintOn(const Severity& severity);
/**
 * Composes the format of a debug-print line: prefix, tag, place and @p format.
 * @return false when it does not fit; the line is then dropped.
 */
CORVANE_EXPORT bool composeFormat(char (&composed)[1024], const Severity& severity,
                                  const Site& site, const char* format);
/** Formats into the unified log's sink. */
CORVANE_EXPORT void writeUnified(const Severity& severity, const Site& site, const char* format,
                                 ...) __attribute__((format(printf, 3, 4)));
/** Flushes the unified log when it is on. */
CORVANE_EXPORT void flushUnified();
/** Ends traces and writes recordings out, before an abort that knows nothing of them. */
CORVANE_EXPORT void endTraces();

/** Never called: lets the compiler check a statement's format. */
void checkFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Writes one statement to the sinks that are on. */
template <class... Args>
[[gnu::cold, gnu::noinline]] void write(const Severity& severity, const Site& site,
                                        const char* format, Args... args) {
    if (debugPrintOn(severity)) {
        char composed[1024] = {};
        if (composeFormat(composed, severity, site, format))
            log_dbg_print(site.tag, severity.debugPrint, composed, site.function, args...);
    }
    if ((mode() & 0xA) != 0)
        writeUnified(severity, site, format, site.function, args...);
}

/** Writes one error; the debug print's line carries its location. @p located is @p format with it.
 */
template <class... Args>
[[gnu::cold, gnu::noinline]] void writeError(const Site& site, const char* format,
                                             const char* located, Args... args) {
    if (debugPrintOn(kError)) {
        char composed[1024] = {};
        if (composeFormat(composed, kError, site, located))
            log_dbg_print(site.tag, kError.debugPrint, composed, site.function, args...,
                          site.function, site.line, site.path);
    }
    if ((mode() & 0xA) != 0)
        writeUnified(kError, site, format, site.function, args...);
}

/** Writes one error, flushes and aborts. */
template <class... Args>
[[noreturn]] void fatal(const Site& site, const char* format, const char* located, Args... args) {
    writeError(site, format, located, args...);
    flushUnified();
    endTraces();
    __android_log_assert(nullptr, site.tag, located, site.function, args..., site.function,
                         site.line, site.path);
}

}  // namespace NSVista::NSCorvane::log

/** The log tag and the log-level property of a source unit. */
#define CORVANE_LOG_UNIT(tag)                                                                    \
    namespace {                                                                                  \
    constexpr const char kLogTag[] = tag;                                                        \
    [[maybe_unused]] const int32_t sLogLevel = ::NSVista::Utils::Properties::property_get_int32( \
        "persist.vendor.kvx.camera.log_level", -1);                                              \
    }

#define CORVANE_LOG_FUNCTION static_cast<const char*>(__func__)

#define CORVANE_LOG_SITE(function)            \
    ::NSVista::NSCorvane::log::Site {         \
        kLogTag, __FILE__, function, __LINE__ \
    }

#define CORVANE_LOG_CHECK(format, ...) \
    if (false)                         \
    ::NSVista::NSCorvane::log::checkFormat("[%s] " format, "" __VA_OPT__(, ) __VA_ARGS__)

/**
 * A site that is known when the program is built is static: nothing of it is prepared on the path
 * that does not log.
 */
#define CORVANE_LOG_GATED(severity, storage, function, format, ...)                               \
    do {                                                                                          \
        CORVANE_LOG_CHECK(format, __VA_ARGS__);                                                   \
        if (::NSVista::NSCorvane::log::passes(::NSVista::NSCorvane::log::severity)) {             \
            storage ::NSVista::NSCorvane::log::Site corvaneLogSite = CORVANE_LOG_SITE(function);  \
            ::NSVista::NSCorvane::log::write(::NSVista::NSCorvane::log::severity, corvaneLogSite, \
                                             "[%s] " format __VA_OPT__(, ) __VA_ARGS__);          \
        }                                                                                         \
    } while (false)

#define CORVANE_LOG_LOCATED(write, storage, function, format, ...)                           \
    do {                                                                                     \
        CORVANE_LOG_CHECK(format, __VA_ARGS__);                                              \
        storage ::NSVista::NSCorvane::log::Site corvaneLogSite = CORVANE_LOG_SITE(function); \
        ::NSVista::NSCorvane::log::write(corvaneLogSite, "[%s] " format,                     \
                                         "[%s] " format " (%s){#%d:%s}" __VA_OPT__(, )       \
                                             __VA_ARGS__);                                   \
    } while (false)

/**
 * @name On behalf of an operation
 * For helpers that log under the name of the operation they serve.
 * @{
 */
#define CORVANE_LOGE_AS(function, ...) CORVANE_LOG_LOCATED(writeError, const, function, __VA_ARGS__)
#define CORVANE_FATAL_AS(function, ...) CORVANE_LOG_LOCATED(fatal, const, function, __VA_ARGS__)
#define CORVANE_LOGW_AS(function, ...) CORVANE_LOG_GATED(kWarning, const, function, __VA_ARGS__)
#define CORVANE_LOGI_AS(function, ...) CORVANE_LOG_GATED(kInfo, const, function, __VA_ARGS__)
#define CORVANE_LOGK_AS(function, ...) CORVANE_LOG_GATED(kKeyEvent, const, function, __VA_ARGS__)
#define CORVANE_LOGD_AS(function, ...) CORVANE_LOG_GATED(kDebug, const, function, __VA_ARGS__)
/** @} */

/**
 * @name Under the name of the function they stand in
 * @{
 */
/** Logs a failure that the caller survives. */
#define CORVANE_LOGE(...) \
    CORVANE_LOG_LOCATED(writeError, static const, CORVANE_LOG_FUNCTION, __VA_ARGS__)
/** Logs a programming or consistency error and aborts the process with its location. */
#define CORVANE_FATAL(...) \
    CORVANE_LOG_LOCATED(fatal, static const, CORVANE_LOG_FUNCTION, __VA_ARGS__)
#define CORVANE_LOGW(...) \
    CORVANE_LOG_GATED(kWarning, static const, CORVANE_LOG_FUNCTION, __VA_ARGS__)
#define CORVANE_LOGI(...) CORVANE_LOG_GATED(kInfo, static const, CORVANE_LOG_FUNCTION, __VA_ARGS__)
/** Logs a key lifecycle event. */
#define CORVANE_LOGK(...) \
    CORVANE_LOG_GATED(kKeyEvent, static const, CORVANE_LOG_FUNCTION, __VA_ARGS__)
#define CORVANE_LOGD(...) CORVANE_LOG_GATED(kDebug, static const, CORVANE_LOG_FUNCTION, __VA_ARGS__)
/** @} */

/**
 * Ends a refused driver call: reports it, then ends the service. The caller has logged it and
 * returns its failure afterwards.
 * @param what literal: the report's text up to " Please check".
 */
#define CORVANE_DRIVER_EXCEPTION(what, ...)                                                       \
    do {                                                                                          \
        ::corvane_oxu_trigger_exception(                                                          \
            "zelsys", what " Please check ZelsysKernel.\nCRDISPATCH_KEY:ZelsysKernel" __VA_OPT__( \
                          , ) __VA_ARGS__);                                                       \
        ::NSVista::Utils::terminateService();                                                     \
    } while (false)
