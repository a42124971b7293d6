// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Stands for the header of this name under cppcheck, which knows no __VA_OPT__.
 */
#pragma once

#include <corvane/platform/Gates.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/ULog.h>

#include <cstdlib>

#define CORVANE_LOG_UNIT(tag)
#define CORVANE_LOGE_AS(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGW_AS(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGI_AS(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGK_AS(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGD_AS(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_FATAL_AS(...) abort()
#define CORVANE_LOGE(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGW(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGI(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGK(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_LOGD(...) log_dbg_print(__VA_ARGS__)
#define CORVANE_FATAL(...) abort()
#define CORVANE_DRIVER_EXCEPTION(...) NSVista::Utils::terminateService()
