// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The controls of a node, answered as the kernel's control framework does.
 */
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/** Values by the controls' places in the table. */
using ControlValues = std::vector<int64_t>;
/** Of some controls only. */
using SomeControlValues = std::vector<std::optional<int64_t>>;

/**
 * A node's table of controls. Ioctls give 0 or a negated errno. A list's error index tells which
 * control was refused only where nothing was to be set, as on Linux; values out of range are
 * clamped. Arrays, compound values and texts are described, read as zeros and cannot be set.
 */
class Controls {
public:
    /** @param controls in any order. */
    explicit Controls(std::vector<ControlDesc> controls);

    bool empty() const { return mControls.empty(); }
    size_t size() const { return mControls.size(); }
    ControlValues defaults() const;
    /** The values after start. */
    ControlValues initial() const;
    std::optional<size_t> find(uint32_t id) const;
    const ControlDesc& at(size_t place) const { return mControls[place]; }

    static bool isTheirs(uint32_t code);
    /**
     * Any ioctl of isTheirs().
     * @param listed what is done for VIDIOC_G_EXT_CTRLS, VIDIOC_S_EXT_CTRLS and
     * VIDIOC_TRY_EXT_CTRLS, to which those of one control come down.
     */
    int ioctl(uint32_t code, void* arg,
              const std::function<int(uint32_t, v4l2_ext_controls&)>& listed) const;
    /** @param values what the list's `which` stands for. */
    int get(v4l2_ext_controls& list, const ControlValues& values) const;
    /**
     * VIDIOC_S_EXT_CTRLS and, without @p set, VIDIOC_TRY_EXT_CTRLS.
     * @param[in,out] values as long as the table; what the list holds is set.
     */
    int set(v4l2_ext_controls& list, bool set, SomeControlValues& values) const;

private:
    int query(v4l2_query_ext_ctrl& query) const;
    int query(v4l2_queryctrl& query) const;
    int queryMenu(v4l2_querymenu& menu) const;
    int check(v4l2_ext_controls& list, uint32_t refusedFlag) const;

    std::vector<ControlDesc> mControls;  ///< by number
};

}  // namespace NSVista::NSCorvane::sim
