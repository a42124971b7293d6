// SPDX-License-Identifier: Apache-2.0
#include "Controls.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace NSVista::NSCorvane::sim {

namespace {

/** What VIDIOC_QUERYCTRL and its users of old do not know. */
bool isCompound(const ControlDesc& control) {
    return control.type >= V4L2_CTRL_COMPOUND_TYPES || !control.dimensions.empty();
}

bool isMenu(const ControlDesc& control) {
    return control.type == V4L2_CTRL_TYPE_MENU || control.type == V4L2_CTRL_TYPE_INTEGER_MENU;
}

/** Whether a list may name controls of a class; the words for defaults and requests name none. */
bool chooses(uint32_t which) {
    return which != 0 && which != V4L2_CTRL_WHICH_DEF_VAL && which != V4L2_CTRL_WHICH_REQUEST_VAL;
}

int64_t roundToStep(const ControlDesc& control, int64_t value) {
    value = std::clamp(value, control.minimum, std::max(control.minimum, control.maximum));
    if (control.step <= 1)
        return value;
    const uint64_t step = static_cast<uint64_t>(control.step);
    const uint64_t over = static_cast<uint64_t>(value) - static_cast<uint64_t>(control.minimum);
    const uint64_t most =
        static_cast<uint64_t>(control.maximum) - static_cast<uint64_t>(control.minimum);
    const uint64_t rounded = std::min(over / step + (over % step >= step - step / 2), most / step);
    return static_cast<int64_t>(static_cast<uint64_t>(control.minimum) + rounded * step);
}

/** Makes a value one that the control can have. @return 0 or the negated errno. */
int adjust(const ControlDesc& control, int64_t& value) {
    switch (control.type) {
        case V4L2_CTRL_TYPE_BOOLEAN:
            value = value != 0;
            return 0;
        case V4L2_CTRL_TYPE_MENU:
        case V4L2_CTRL_TYPE_INTEGER_MENU:
            if (value < control.minimum || value > control.maximum)
                return -ERANGE;
            return std::any_of(control.menu.begin(), control.menu.end(),
                               [value](const auto& item) { return item.first == value; })
                       ? 0
                       : -EINVAL;
        case V4L2_CTRL_TYPE_BITMASK:
            value &= control.maximum;
            return 0;
        case V4L2_CTRL_TYPE_BUTTON:
            value = 0;
            return 0;
        default:
            value = roundToStep(control, value);
            return 0;
    }
}

}  // namespace

Controls::Controls(std::vector<ControlDesc> controls) : mControls(std::move(controls)) {
    std::sort(mControls.begin(), mControls.end(),
              [](const ControlDesc& a, const ControlDesc& b) { return a.id < b.id; });
}

std::optional<size_t> Controls::find(uint32_t id) const {
    const auto found = std::lower_bound(
        mControls.begin(), mControls.end(), id,
        [](const ControlDesc& control, uint32_t wanted) { return control.id < wanted; });
    if (found == mControls.end() || found->id != id)
        return std::nullopt;
    return static_cast<size_t>(found - mControls.begin());
}

bool Controls::isTheirs(uint32_t code) {
    switch (code) {
        case VIDIOC_QUERYCTRL:
        case VIDIOC_QUERY_EXT_CTRL:
        case VIDIOC_QUERYMENU:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
            return true;
        default:
            return false;
    }
}

int Controls::ioctl(uint32_t code, void* arg,
                    const std::function<int(uint32_t, v4l2_ext_controls&)>& listed) const {
    if (empty())
        return -ENOTTY;
    switch (code) {
        case VIDIOC_QUERYCTRL:
            return query(*static_cast<v4l2_queryctrl*>(arg));
        case VIDIOC_QUERY_EXT_CTRL:
            return query(*static_cast<v4l2_query_ext_ctrl*>(arg));
        case VIDIOC_QUERYMENU:
            return queryMenu(*static_cast<v4l2_querymenu*>(arg));
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL: {
            auto& control = *static_cast<v4l2_control*>(arg);
            const std::optional<size_t> place = find(control.id);
            if (place && mControls[*place].type != V4L2_CTRL_TYPE_CTRL_CLASS &&
                !mControls[*place].hasValue())
                return -EINVAL;  // The record has no room for it.
            v4l2_ext_control one = {};
            one.id = control.id;
            one.value = control.value;
            v4l2_ext_controls list = {};
            list.count = 1;
            list.controls = &one;
            const int result =
                listed(code == VIDIOC_G_CTRL ? VIDIOC_G_EXT_CTRLS : VIDIOC_S_EXT_CTRLS, list);
            if (result == 0)
                control.value = one.value;
            return result;
        }
        default: {
            auto& list = *static_cast<v4l2_ext_controls*>(arg);
            return list.count <= V4L2_CID_MAX_CTRLS ? listed(code, list) : -EINVAL;
        }
    }
}

ControlValues Controls::defaults() const {
    ControlValues values;
    for (const ControlDesc& control : mControls)
        values.push_back(control.defaultValue);
    return values;
}

ControlValues Controls::initial() const {
    ControlValues values;
    for (const ControlDesc& control : mControls)
        values.push_back(control.value.value_or(control.defaultValue));
    return values;
}

/** Checks all controls of a list. @return the first refusal, its index in the list's. */
int Controls::check(v4l2_ext_controls& list, uint32_t refusedFlag) const {
    list.error_idx = list.count;
    list.which = V4L2_CTRL_ID2WHICH(list.which);
    if (list.count == 0) {
        const bool isKnown =
            std::any_of(mControls.begin(), mControls.end(), [&](const ControlDesc& control) {
                return V4L2_CTRL_ID2WHICH(control.id) == list.which;
            });
        return chooses(list.which) && !isKnown ? -EINVAL : 0;
    }
    if (list.controls == nullptr)
        return -EFAULT;
    for (uint32_t i = 0; i < list.count; ++i) {
        list.error_idx = i;
        const uint32_t id = list.controls[i].id & V4L2_CTRL_ID_MASK;
        if ((chooses(list.which) && V4L2_CTRL_ID2WHICH(id) != list.which) || !find(id))
            return -EINVAL;
    }
    for (uint32_t i = 0; i < list.count; ++i) {
        list.error_idx = i;
        const ControlDesc& control = mControls[*find(list.controls[i].id & V4L2_CTRL_ID_MASK)];
        if ((control.flags & refusedFlag) != 0)
            return -EACCES;
    }
    list.error_idx = list.count;
    return 0;
}

int Controls::query(v4l2_query_ext_ctrl& query) const {
    constexpr uint32_t kNext = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    const uint32_t id = query.id & V4L2_CTRL_ID_MASK, next = query.id & kNext;
    const auto found =
        std::find_if(mControls.begin(), mControls.end(), [&](const ControlDesc& control) {
            if (next == 0)
                return control.id == id;
            const uint32_t kind =
                isCompound(control) ? V4L2_CTRL_FLAG_NEXT_COMPOUND : V4L2_CTRL_FLAG_NEXT_CTRL;
            return control.id > id && (next & kind) != 0;
        });
    if (found == mControls.end())
        return -EINVAL;
    query = {};
    query.id = found->id;
    query.type = found->type;
    found->name.copy(query.name, sizeof(query.name) - 1);
    query.minimum = found->minimum;
    query.maximum = found->maximum;
    query.step = static_cast<uint64_t>(found->step);
    query.default_value = found->defaultValue;
    query.flags = found->flags;
    query.elem_size = found->elementSize;
    query.elems = found->elements;
    query.nr_of_dims = static_cast<uint32_t>(found->dimensions.size());
    std::copy(found->dimensions.begin(), found->dimensions.end(), query.dims);
    return 0;
}

int Controls::query(v4l2_queryctrl& query) const {
    v4l2_query_ext_ctrl extended = {};
    extended.id = query.id;
    if (int result = this->query(extended); result < 0)
        return result;
    query = {};
    query.id = extended.id;
    query.type = extended.type;
    memcpy(query.name, extended.name, sizeof(query.name) - 1);
    query.flags = extended.flags;
    if (extended.type == V4L2_CTRL_TYPE_INTEGER64 || extended.type >= V4L2_CTRL_COMPOUND_TYPES)
        return 0;  // The record has no room for their ranges.
    query.minimum = static_cast<int32_t>(extended.minimum);
    query.maximum = static_cast<int32_t>(extended.maximum);
    query.step = static_cast<int32_t>(extended.step);
    query.default_value = static_cast<int32_t>(extended.default_value);
    return 0;
}

int Controls::queryMenu(v4l2_querymenu& menu) const {
    const std::optional<size_t> place = find(menu.id);
    if (!place || !isMenu(mControls[*place]))
        return -EINVAL;
    for (const auto& [number, text] : mControls[*place].menu) {
        if (number != menu.index)
            continue;
        memset(menu.name, 0, sizeof(menu.name));
        if (mControls[*place].type == V4L2_CTRL_TYPE_INTEGER_MENU)
            menu.value = strtoll(text.c_str(), nullptr, 10);
        else
            text.copy(reinterpret_cast<char*>(menu.name), sizeof(menu.name) - 1);
        menu.reserved = 0;
        return 0;
    }
    return -EINVAL;
}

int Controls::get(v4l2_ext_controls& list, const ControlValues& values) const {
    int result = check(list, V4L2_CTRL_FLAG_WRITE_ONLY);
    list.error_idx = list.count;
    for (uint32_t i = 0; result == 0 && i < list.count; ++i) {
        v4l2_ext_control& item = list.controls[i];
        const size_t place = *find(item.id & V4L2_CTRL_ID_MASK);
        const ControlDesc& control = mControls[place];
        const uint32_t bytes = control.elementSize * control.elements;
        if ((control.flags & V4L2_CTRL_FLAG_HAS_PAYLOAD) == 0) {
            if (control.type == V4L2_CTRL_TYPE_INTEGER64)
                item.value64 = values[place];
            else
                item.value = static_cast<int32_t>(values[place]);
        } else if (item.size < bytes) {
            item.size = bytes;
            result = -ENOSPC;
        } else if (item.ptr == nullptr) {
            result = -EFAULT;
        } else {
            memset(item.ptr, 0, bytes);
        }
    }
    return result;
}

int Controls::set(v4l2_ext_controls& list, bool set, SomeControlValues& values) const {
    if (list.which == V4L2_CTRL_WHICH_DEF_VAL) {
        list.error_idx = list.count;
        return -EINVAL;
    }
    int result = check(list, V4L2_CTRL_FLAG_READ_ONLY);
    SomeControlValues chosen = values;
    for (uint32_t i = 0; result == 0 && i < list.count; ++i) {
        v4l2_ext_control& item = list.controls[i];
        const size_t place = *find(item.id & V4L2_CTRL_ID_MASK);
        const ControlDesc& control = mControls[place];
        const bool isLong = control.type == V4L2_CTRL_TYPE_INTEGER64;
        int64_t value = isLong ? item.value64 : item.value;
        if (control.type == V4L2_CTRL_TYPE_BITMASK)
            value = static_cast<uint32_t>(item.value);
        list.error_idx = i;
        result =
            (control.flags & V4L2_CTRL_FLAG_HAS_PAYLOAD) != 0 ? -EACCES : adjust(control, value);
        if (result < 0)
            break;
        if (isLong)
            item.value64 = value;
        else
            item.value = static_cast<int32_t>(value);
        chosen[place] = value;
    }
    if (result == 0)
        values = std::move(chosen);
    if (result == 0 || set)
        list.error_idx = list.count;
    return result;
}

}  // namespace NSVista::NSCorvane::sim
