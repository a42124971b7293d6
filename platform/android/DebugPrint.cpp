// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The debug print into the system's log. __android_log_assert() is liblog's own.
 */
#include <android/log.h>
#include <corvane/platform/ULog.h>

#include <cstdarg>

#include "Format.h"

void log_dbg_print(const char* tag, cam_debug_level_t level, const char* format, ...) {
    static constexpr int kPriorities[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_ERROR, ANDROID_LOG_WARN,
                                          ANDROID_LOG_INFO, ANDROID_LOG_INFO};
    const NSVista::NSCorvane::ErrnoKeeper keeper;
    va_list args;
    va_start(args, format);
    __android_log_vprint(kPriorities[level], tag, format, args);
    va_end(args);
}
