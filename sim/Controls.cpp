// SPDX-License-Identifier: Apache-2.0
#include "Controls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::sim {

namespace {

struct Control {
    uint32_t id;
    const char* name;
    uint32_t type, flags;
    int32_t min, max, step;
};

/** In the order of their numbers; the framework adds the class by itself. */
constexpr Control kControls[] = {
    {V4L2_CID_USER_CLASS, "User Controls", V4L2_CTRL_TYPE_CTRL_CLASS,
     V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY, 0, 0, 0},
    {V4L2_CID_BRIGHTNESS, "Brightness", V4L2_CTRL_TYPE_INTEGER, V4L2_CTRL_FLAG_SLIDER,
     -VENGINE_PORT_BRIGHTNESS, VENGINE_PORT_BRIGHTNESS, 1},
};

const Control* findControl(uint32_t id) {
    for (const Control& control : kControls)
        if (control.id == id)
            return &control;
    return nullptr;
}

const Control* findNext(uint32_t id) {
    for (const Control& control : kControls)
        if (control.id > id)
            return &control;
    return nullptr;
}

/** Whether a list may name controls of a class; the words for defaults and requests name none. */
bool chooses(uint32_t which) {
    return which != 0 && which != V4L2_CTRL_WHICH_DEF_VAL && which != V4L2_CTRL_WHICH_REQUEST_VAL;
}

/** Checks all controls of a list. @return the first refusal, its index in the list's. */
int checkControls(v4l2_ext_controls& list, uint32_t refusedFlag) {
    list.error_idx = list.count;
    list.which = V4L2_CTRL_ID2WHICH(list.which);
    if (list.count == 0)
        return chooses(list.which) && findControl(list.which | 1) == nullptr ? -EINVAL : 0;
    if (list.controls == nullptr)
        return -EFAULT;
    for (uint32_t i = 0; i < list.count; ++i) {
        list.error_idx = i;
        const uint32_t id = list.controls[i].id & V4L2_CTRL_ID_MASK;
        if ((chooses(list.which) && V4L2_CTRL_ID2WHICH(id) != list.which) ||
            findControl(id) == nullptr)
            return -EINVAL;
    }
    for (uint32_t i = 0; i < list.count; ++i) {
        list.error_idx = i;
        if ((findControl(list.controls[i].id & V4L2_CTRL_ID_MASK)->flags & refusedFlag) != 0)
            return -EACCES;
    }
    list.error_idx = list.count;
    return 0;
}

}  // namespace

int queryControl(v4l2_query_ext_ctrl& query) {
    const uint32_t id = query.id & V4L2_CTRL_ID_MASK;
    const Control* control = findControl(id);
    if ((query.id & V4L2_CTRL_FLAG_NEXT_CTRL) != 0)
        control = findNext(id);
    else if ((query.id & V4L2_CTRL_FLAG_NEXT_COMPOUND) != 0)
        control = nullptr;
    if (control == nullptr)
        return -EINVAL;
    query = {};
    query.id = control->id;
    query.type = control->type;
    strcpy(query.name, control->name);
    query.minimum = control->min;
    query.maximum = control->max;
    query.step = static_cast<uint64_t>(control->step);
    query.default_value = kDefaultBrightness;
    query.flags = control->flags;
    query.elem_size = sizeof(int32_t);
    query.elems = 1;
    return 0;
}

int queryControl(v4l2_queryctrl& query) {
    v4l2_query_ext_ctrl extended = {};
    extended.id = query.id;
    if (int result = queryControl(extended); result < 0)
        return result;
    query = {};
    query.id = extended.id;
    query.type = extended.type;
    strcpy(reinterpret_cast<char*>(query.name), extended.name);
    query.minimum = static_cast<int32_t>(extended.minimum);
    query.maximum = static_cast<int32_t>(extended.maximum);
    query.step = static_cast<int32_t>(extended.step);
    query.default_value = static_cast<int32_t>(extended.default_value);
    query.flags = extended.flags;
    return 0;
}

int getControls(v4l2_ext_controls& list, int32_t brightness) {
    const int result = checkControls(list, V4L2_CTRL_FLAG_WRITE_ONLY);
    list.error_idx = list.count;
    for (uint32_t i = 0; result == 0 && i < list.count; ++i)
        list.controls[i].value = brightness;
    return result;
}

int setControls(v4l2_ext_controls& list, bool set, std::optional<int32_t>& brightness) {
    if (list.which == V4L2_CTRL_WHICH_DEF_VAL) {
        list.error_idx = list.count;
        return -EINVAL;
    }
    const int result = checkControls(list, V4L2_CTRL_FLAG_READ_ONLY);
    if (result < 0 && set)
        list.error_idx = list.count;
    for (uint32_t i = 0; result == 0 && i < list.count; ++i) {
        brightness = std::clamp<int32_t>(list.controls[i].value, -VENGINE_PORT_BRIGHTNESS,
                                         VENGINE_PORT_BRIGHTNESS);
        list.controls[i].value = *brightness;
    }
    return result;
}

}  // namespace NSVista::NSCorvane::sim
