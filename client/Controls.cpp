// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2.h>
#include <corvane/client/Controls.h>
#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>

namespace NSVista::NSCorvane::client {

namespace {

/** Small letters and dashes, so that "Test Pattern" is called test-pattern. */
std::string plainName(const std::string& name) {
    std::string plain = name;
    std::transform(plain.begin(), plain.end(), plain.begin(), [](unsigned char c) {
        return c == ' ' || c == '_' ? '-' : static_cast<char>(std::tolower(c));
    });
    return plain;
}

constexpr int64_t kMostItems = 1023;

void readMenu(NodeFd& node, Control& control) {
    v4l2_querymenu item{};
    item.id = control.id;
    // Menus begin at 0 or just above; a driver that tells of more items than any has is not
    // believed.
    const int64_t first = std::clamp<int64_t>(control.minimum, 0, kMostItems);
    const int64_t last = std::min<int64_t>(control.maximum, kMostItems);
    for (int64_t i = first; i <= last; ++i) {
        item.index = static_cast<uint32_t>(i);
        if (node.ioctl(VIDIOC_QUERYMENU, &item) < 0)
            continue;
        control.menu.emplace_back(i, control.type == V4L2_CTRL_TYPE_INTEGER_MENU
                                         ? std::to_string(item.value)
                                         : v4l2::fixedText(item.name));
    }
}

}  // namespace

bool Control::hasValue() const {
    switch (type) {
        case V4L2_CTRL_TYPE_INTEGER:
        case V4L2_CTRL_TYPE_BOOLEAN:
        case V4L2_CTRL_TYPE_MENU:
        case V4L2_CTRL_TYPE_INTEGER64:
        case V4L2_CTRL_TYPE_BITMASK:
        case V4L2_CTRL_TYPE_INTEGER_MENU:
            return (flags & V4L2_CTRL_FLAG_HAS_PAYLOAD) == 0;
        default:
            return false;
    }
}

std::string Control::rangeText() const {
    const std::string range = std::to_string(minimum) + " to " + std::to_string(maximum);
    return step > 1 ? range + " by " + std::to_string(step) : range;
}

bool Control::isCalled(const std::string& word) const {
    const bool isHex = word.starts_with("0x");
    const char* const begin = word.data() + (isHex ? 2 : 0);
    const char* const end = word.data() + word.size();
    uint32_t number = 0;
    const auto parsed = std::from_chars(begin, end, number, isHex ? 16 : 10);
    if (parsed.ec == std::errc() && parsed.ptr == end)
        return number == id;
    return plainName(word) == plainName(name);
}

ControlNode::ControlNode(const std::string& path) : mNode(path.c_str(), O_RDWR | O_NONBLOCK) {
}

std::vector<Control> ControlNode::list() {
    constexpr uint32_t kNext = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    std::vector<Control> controls;
    v4l2_query_ext_ctrl query{};
    query.id = kNext;
    while (mNode.ioctl(VIDIOC_QUERY_EXT_CTRL, &query) >= 0) {
        if (query.type != V4L2_CTRL_TYPE_CTRL_CLASS &&
            (query.flags & V4L2_CTRL_FLAG_DISABLED) == 0) {
            controls.push_back({query.id,
                                v4l2::fixedText(query.name),
                                query.type,
                                query.minimum,
                                query.maximum,
                                static_cast<int64_t>(query.step),
                                query.default_value,
                                query.flags,
                                {}});
            if (query.type == V4L2_CTRL_TYPE_MENU || query.type == V4L2_CTRL_TYPE_INTEGER_MENU)
                readMenu(mNode, controls.back());
        }
        query.id |= kNext;
    }
    return controls;
}

int ControlNode::get(const Control& control, int64_t& value, int requestFd) {
    return exchange(VIDIOC_G_EXT_CTRLS, control, value, requestFd);
}

int ControlNode::set(const Control& control, int64_t value, int requestFd) {
    return exchange(VIDIOC_S_EXT_CTRLS, control, value, requestFd);
}

int ControlNode::exchange(unsigned long code, const Control& control, int64_t& value,
                          int requestFd) {
    if (!control.hasValue())
        return -EINVAL;
    const bool isLong = control.type == V4L2_CTRL_TYPE_INTEGER64;
    v4l2_ext_control item{};
    item.id = control.id;
    if (isLong)
        item.value64 = value;
    else
        item.value = static_cast<int32_t>(value);
    v4l2_ext_controls list{};
    list.which = requestFd == kNow ? V4L2_CTRL_WHICH_CUR_VAL : V4L2_CTRL_WHICH_REQUEST_VAL;
    list.request_fd = requestFd;
    list.count = 1;
    list.controls = &item;
    if (const int result = mNode.ioctl(code, &list); result < 0)
        return result;
    if (control.type == V4L2_CTRL_TYPE_BITMASK)
        value = static_cast<uint32_t>(item.value);
    else
        value = isLong ? item.value64 : item.value;
    return 0;
}

}  // namespace NSVista::NSCorvane::client
