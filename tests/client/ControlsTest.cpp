// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/Controls.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/FakeKernel.h"

namespace NSVista::NSCorvane::client {
namespace {

using testing::ElementsAre;
using testing::Pair;

constexpr v4l2_query_ext_ctrl control(uint32_t id, uint32_t type, const char* name, int64_t maximum,
                                      uint32_t flags = 0) {
    v4l2_query_ext_ctrl query = {};
    query.id = id;
    query.type = type;
    std::copy(name, name + std::char_traits<char>::length(name), query.name);
    query.maximum = maximum;
    query.step = 1;
    query.flags = flags;
    return query;
}

/** In the order of their numbers. */
const v4l2_query_ext_ctrl kControls[] = {
    control(1, V4L2_CTRL_TYPE_CTRL_CLASS, "A Class", 0),
    control(2, V4L2_CTRL_TYPE_MENU, "Test Pattern", 2),
    control(3, V4L2_CTRL_TYPE_INTEGER, "Off", 9, V4L2_CTRL_FLAG_DISABLED),
    control(4, V4L2_CTRL_TYPE_INTEGER_MENU, "Rates", 0),
    control(5, V4L2_CTRL_TYPE_BITMASK, "Bits", 0),
    control(6, V4L2_CTRL_TYPE_INTEGER64, "Long", int64_t{1} << 40),
    control(7, V4L2_CTRL_TYPE_U8, "Array", 8, V4L2_CTRL_FLAG_HAS_PAYLOAD),
};

class ControlsKernel : public test::FakeKernel {
public:
    ControlsKernel() {
        on<v4l2_query_ext_ctrl>(VIDIOC_QUERY_EXT_CTRL, [](int, v4l2_query_ext_ctrl& query) {
            for (const auto& known : kControls)
                if (known.id > (query.id & V4L2_CTRL_ID_MASK) &&
                    (known.flags & V4L2_CTRL_FLAG_HAS_PAYLOAD) <=
                        (query.id & V4L2_CTRL_FLAG_NEXT_COMPOUND))
                    return query = known, 0;
            return -EINVAL;
        });
        on<v4l2_querymenu>(VIDIOC_QUERYMENU, [](int, v4l2_querymenu& item) {
            if (item.id == 4)
                return item.value = int64_t{1} << 33, 0;
            memcpy(item.name, "entry", 6);
            return item.index == 1 ? -EINVAL : 0;
        });
        on<v4l2_ext_controls>(VIDIOC_S_EXT_CTRLS, [this](int, v4l2_ext_controls& list) {
            sent = list;
            if (list.controls->id == 6)
                list.controls->value64 /= 2;
            return 0;
        });
    }
    v4l2_ext_controls sent = {};
};

TEST(Controls, AreListedWithTheirMenusAndSetByTheirKind) {
    ControlsKernel kernel;
    kernel.openResults["/dev/nowhere"] = -ENOENT;
    EXPECT_FALSE(ControlNode("/dev/nowhere"));
    ControlNode node("/dev/video0");
    EXPECT_TRUE(node);
    auto controls = node.list();
    ASSERT_EQ(controls.size(), 5U) << "neither the class nor what is disabled";
    EXPECT_THAT(controls[0].menu, ElementsAre(Pair(0, "entry"), Pair(2, "entry")))
        << "menus may have holes";
    EXPECT_THAT(controls[1].menu, ElementsAre(Pair(0, "8589934592")));
    for (const char* const name : {"TEST-pattern", "test_pattern", "Test Pattern", "0x2"})
        EXPECT_TRUE(controls[0].isCalled(name)) << name;
    EXPECT_FALSE(controls[0].isCalled("2x"));

    int64_t value = 0xffffffff;
    EXPECT_EQ(node.set(controls[2], value, 77), 0);
    EXPECT_EQ(kernel.sent.which, uint32_t{V4L2_CTRL_WHICH_REQUEST_VAL});
    EXPECT_EQ(kernel.sent.request_fd, 77);
    EXPECT_EQ(kernel.sent.count, 1U);
    EXPECT_EQ(node.get(controls[2], value), -ENOTTY);
    kernel.on<v4l2_ext_controls>(VIDIOC_G_EXT_CTRLS, [](int, v4l2_ext_controls& list) {
        list.controls->value64 = list.controls->id == 6 ? int64_t{1} << 40 : -1;
        if (list.which == V4L2_CTRL_WHICH_REQUEST_VAL)
            list.controls->value64 = list.request_fd;
        return 0;
    });
    EXPECT_EQ(node.get(controls[2], value), 0);
    EXPECT_EQ(value, 0xffffffff) << "bits have no sign";
    EXPECT_EQ(node.get(controls[2], value, 78), 0);
    EXPECT_EQ(value, 78) << "of the request";
    EXPECT_EQ(node.get(controls[3], value), 0);
    EXPECT_EQ(value, int64_t{1} << 40);
    EXPECT_EQ(node.set(controls[4], value), -EINVAL) << "holds no number";
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
