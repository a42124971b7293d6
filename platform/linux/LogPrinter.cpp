// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Printer.h>
#include <corvane/platform/ULog.h>

namespace android {

void LogPrinter::printLine(const char* text) {
    const bool known = mLevel >= CAM_DEBUG_DEBUG && mLevel <= CAM_DEBUG_KEY;
    const auto level = known ? static_cast<cam_debug_level_t>(mLevel) : CAM_DEBUG_INFO;
    log_dbg_print(mTag, level, "%s[%s] %s%s", g_logInfoLv[level].prefix, mTag,
                  mPrefix != nullptr ? mPrefix : "", text);
}

}  // namespace android
