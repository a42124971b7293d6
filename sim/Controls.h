// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The standard control of a video capture node, answered as the kernel's control framework does.
 */
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <optional>

namespace NSVista::NSCorvane::sim {

/**
 * @name Ioctls
 * Results are 0 or a negated errno. A list's error index tells which control was refused only where
 * nothing was to be set, as on Linux; values out of range are clamped.
 * @{ */
int queryControl(v4l2_query_ext_ctrl& query);
int queryControl(v4l2_queryctrl& query);
/** @param brightness what the list's `which` stands for. */
int getControls(v4l2_ext_controls& list, int32_t brightness);
/**
 * VIDIOC_S_EXT_CTRLS and, without @p set, VIDIOC_TRY_EXT_CTRLS.
 * @param[out] brightness set where the list holds it.
 */
int setControls(v4l2_ext_controls& list, bool set, std::optional<int32_t>& brightness);
/** @} */

/** The control's value after start. */
inline constexpr int32_t kDefaultBrightness = 0;

}  // namespace NSVista::NSCorvane::sim
