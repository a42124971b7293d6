// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Controls of video nodes and sub-devices, at once or with a request.
 */
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <corvane/client/NodeFd.h>
#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::client {

/** What a driver tells of a control (VIDIOC_QUERY_EXT_CTRL, VIDIOC_QUERYMENU). */
struct CORVANE_EXPORT Control {
    uint32_t id;
    std::string name;
    uint32_t type;  ///< v4l2_ctrl_type
    int64_t minimum, maximum, step, defaultValue;
    uint32_t flags;                                     ///< V4L2_CTRL_FLAG_*
    std::vector<std::pair<int64_t, std::string>> menu;  ///< value and text of a menu's entries

    /** It holds one number, which get() and set() take; not a text, an array or a button. */
    bool hasValue() const;
    /** "-64 to 64", with the step where it is not 1. */
    std::string rangeText() const;
    /** @p word is its name, in any case and with dashes for blanks, or its id. */
    bool isCalled(const std::string& word) const;
};

/**
 * A node for its controls' sake: open as long as this lives, beside a scene that streams on it.
 *
 * A value set with a request takes effect when that request is processed and stays afterwards. It
 * belongs to one cycle: set it before the request is queued, in each cycle anew.
 *
 * Thread-bound.
 */
class CORVANE_EXPORT ControlNode {
public:
    static constexpr int kNow = -1;

    /** @param path of a video node or a sub-device. */
    explicit ControlNode(const std::string& path);

    explicit operator bool() const { return static_cast<bool>(mNode); }
    /** The negated errno of a failed open. */
    int error() const { return mNode.error(); }

    /** All controls, without the headings of their classes; empty where the node has none. */
    std::vector<Control> list();
    /**
     * Reads a value (VIDIOC_G_EXT_CTRLS).
     * @param requestFd of a completed request, whose value is read then.
     * @return 0 or the negated errno; -EINVAL for a control without a value.
     */
    int get(const Control& control, int64_t& value, int requestFd = kNow);
    /**
     * Sets a value (VIDIOC_S_EXT_CTRLS).
     * @param value drivers clamp what is out of range.
     * @param requestFd of an idle request (SessionRequest::descriptor()), which then carries it.
     * @return 0 or the negated errno; -EINVAL for a control without a value.
     */
    int set(const Control& control, int64_t value, int requestFd = kNow);

private:
    int exchange(unsigned long code, const Control& control, int64_t& value, int requestFd);

    NodeFd mNode;
};

}  // namespace NSVista::NSCorvane::client
