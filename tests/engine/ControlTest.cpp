// SPDX-License-Identifier: Apache-2.0
// The standard control of the capture nodes, at once and with a request.
#include "Bench.h"

namespace NSVista::NSCorvane::test {

namespace {

constexpr uint32_t kBrightness = V4L2_CID_BRIGHTNESS;

/** A list of one control or two, as VIDIOC_S_EXT_CTRLS and its like take it. */
struct List {
    explicit List(int32_t value, int request = -1, uint32_t second = 0) {
        controls[0].id = kBrightness;
        controls[0].value = value;
        controls[1].id = second;
        list.count = second != 0 ? 2 : 1;
        list.controls = controls;
        if (request >= 0) {
            list.which = V4L2_CTRL_WHICH_REQUEST_VAL;
            list.request_fd = request;
        }
    }
    int pass(const Port& port, unsigned long code) { return call(port.node, code, &list); }

    v4l2_ext_control controls[2] = {};
    v4l2_ext_controls list = {};
};

int set(const Port& port, int32_t value, int request = -1) {
    return List(value, request).pass(port, VIDIOC_S_EXT_CTRLS);
}

/** @return the value, or a negated errno below all values. */
int get(const Port& port, int request = -1) {
    List asked(999, request);
    const int result = asked.pass(port, VIDIOC_G_EXT_CTRLS);
    return result < 0 ? result * 1000 : asked.controls[0].value;
}

/** Whether a buffer shows the test picture with this much added to its luma. */
bool shows(Port& port, unsigned buffer, int32_t brightness) {
    const vengine_picture picture = port.picture(buffer);
    const uint32_t frame = vengine_frame_number(&picture, port.desc.role);
    return port.shows(buffer, {nullptr, nullptr, frame, brightness});
}

using ControlTest = EngineTest;
using ControlInProcess = ProcessTest;

TEST_F(ControlTest, IsDescribedAndSetAsTheKernelDoes) {
    Port& port = start(kGrey);
    v4l2_queryctrl query = {0, 0, {}, 0, 0, 0, 0, 0, {7, 7}};
    for (uint32_t expected : {V4L2_CID_USER_CLASS, V4L2_CID_BRIGHTNESS}) {
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
        ASSERT_EQ(call(port.node, VIDIOC_QUERYCTRL, &query), 0);
        EXPECT_EQ(query.id, expected);
    }
    EXPECT_STREQ(reinterpret_cast<char*>(query.name), "Brightness");
    v4l2_query_ext_ctrl all = {};
    all.id = kBrightness;
    ASSERT_EQ(call(port.node, VIDIOC_QUERY_EXT_CTRL, &all), 0);
    EXPECT_EQ(all.type, static_cast<uint32_t>(V4L2_CTRL_TYPE_INTEGER));
    EXPECT_EQ(all.flags, uint32_t{V4L2_CTRL_FLAG_SLIDER});
    EXPECT_EQ((std::vector<int64_t>{all.minimum, all.maximum, all.default_value, query.minimum,
                                    query.maximum, query.default_value, query.reserved[0]}),
              (std::vector<int64_t>{-64, 64, 0, -64, 64, 0, 0}));
    EXPECT_EQ(all.step + all.elems + all.elem_size, 6u);
    query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    EXPECT_EQ(call(port.node, VIDIOC_QUERYCTRL, &query), -EINVAL) << "the last one";
    v4l2_querymenu menu = {};
    menu.id = kBrightness;
    EXPECT_EQ(call(port.node, VIDIOC_QUERYMENU, &menu), -EINVAL);
    EXPECT_EQ(set(add(kInput), 0), -ENOTTY);

    v4l2_control one = {kBrightness, 100};
    EXPECT_EQ(call(port.node, VIDIOC_S_CTRL, &one), 0);
    EXPECT_EQ(one.value, 64) << "clamped";
    EXPECT_EQ(get(port), 64);
    const struct {
        uint32_t second;
        unsigned long code;
        int result;
        uint32_t index;  // of the refused control, or the count
    } lists[] = {{V4L2_CID_CONTRAST, VIDIOC_S_EXT_CTRLS, -EINVAL, 2},
                 {V4L2_CID_CONTRAST, VIDIOC_TRY_EXT_CTRLS, -EINVAL, 1},
                 {V4L2_CID_USER_CLASS, VIDIOC_TRY_EXT_CTRLS, -EACCES, 1},
                 {V4L2_CID_USER_CLASS, VIDIOC_G_EXT_CTRLS, -EACCES, 2},
                 {kBrightness, VIDIOC_TRY_EXT_CTRLS, 0, 2}};
    for (const auto& item : lists) {
        List list(-99, -1, item.second);
        EXPECT_EQ(list.pass(port, item.code), item.result);
        EXPECT_TRUE(list.list.error_idx == item.index || item.result == 0) << item.second;
        EXPECT_EQ(get(port), 64);
    }
    List many(7);
    many.list.count = V4L2_CID_MAX_CTRLS + 1;  // nothing behind the first is read
    EXPECT_EQ(many.pass(port, VIDIOC_S_EXT_CTRLS), -EINVAL);
    for (uint32_t which : {uint32_t{V4L2_CTRL_CLASS_CAMERA}, kBrightness}) {
        List none(7);
        none.list.count = 0;
        none.list.which = which;
        EXPECT_EQ(none.pass(port, VIDIOC_S_EXT_CTRLS), which == kBrightness ? 0 : -EINVAL);
    }
    List initial(7);
    initial.list.which = V4L2_CTRL_WHICH_DEF_VAL;
    EXPECT_EQ(initial.pass(port, VIDIOC_S_EXT_CTRLS), -EINVAL);
    EXPECT_EQ(initial.pass(port, VIDIOC_G_EXT_CTRLS), 0);
    EXPECT_EQ(initial.controls[0].value, 0);
    EXPECT_EQ(cycle(port), 0);
    EXPECT_TRUE(shows(port, 0, 64));
    EXPECT_EQ(set(port, 0), 0);
}

TEST_F(ControlTest, OfARequestTakesEffectInItsFrame) {
    Port &main = start(kMain), &grey = start(kGrey);
    const std::vector<Port*> both = {&main, &grey};
    const int32_t wanted[] = {0, 20, 20, -30};  // of the third request nothing is said
    std::vector<Fd> requests;
    bench.setOrder(1, 20000);
    for (unsigned n = 0; n < 4; ++n) {
        requests.push_back(newRequest(media));
        if (n == 1 || n == 3) {
            EXPECT_EQ(set(main, 5, requests[n]) + set(main, wanted[n], requests[n]), 0);
        }
        EXPECT_EQ(get(main, requests[n]), -EACCES * 1000) << "not complete";
        ASSERT_EQ(submit(requests[n], both, n), 0);
        EXPECT_EQ(set(main, 1, requests[n]), -EBUSY) << "queued";
    }
    EXPECT_EQ(get(main), 0) << "nothing of it yet";
    for (unsigned n = 0; n < 4; ++n) {
        ASSERT_TRUE(done(requests[n]));
        EXPECT_EQ(get(main, requests[n]), wanted[n]);
        EXPECT_TRUE(shows(main, n, wanted[n])) << n;
        EXPECT_TRUE(shows(grey, n, 0)) << "the other node's";
    }
    EXPECT_EQ(get(main), -30) << "stays";
    EXPECT_EQ(set(main, 1, requests[3]), -EBUSY) << "complete";
    EXPECT_EQ(set(main, 1, main.node), -EINVAL) << "no request";

    ASSERT_EQ(call(requests[3], MEDIA_REQUEST_IOC_REINIT), 0);
    EXPECT_EQ(set(main, 0), 0);
    EXPECT_EQ(set(main, 40, requests[0]), -EBUSY);
    ASSERT_EQ(main.stream(false) + main.stream(true), 0);
    ASSERT_EQ(main.queue(0, requests[3]) + call(requests[3], MEDIA_REQUEST_IOC_QUEUE), 0);
    ASSERT_TRUE(done(requests[3]));
    EXPECT_TRUE(shows(main, 0, 0)) << "REINIT forgot the request's";
    const Fd empty = newRequest(media);
    EXPECT_EQ(set(main, 33, empty), 0);
    EXPECT_EQ(call(empty, MEDIA_REQUEST_IOC_QUEUE), -ENOENT) << "controls are no buffers";
    ASSERT_EQ(grey.stream(false), 0);
    ASSERT_EQ(submit(empty, {&grey}, 0), 0);
    ASSERT_EQ(grey.stream(false), 0);
    ASSERT_TRUE(done(empty)) << "cancelled";
    EXPECT_EQ(get(main), 0) << "never processed";
    EXPECT_EQ(get(main, empty), 33);
}

TEST_F(ControlInProcess, OfAnotherDevicesRequestIsRefused) {
    const sim::Device& other = *bench.engine().addDevice(sim::describeVirtualEngine());
    const Fd node(bench.kernel().open(other.nodePath("vengine-grey").c_str(), O_RDWR));
    const Fd request = newRequest(media);
    List list(1, request);
    EXPECT_EQ(call(node, VIDIOC_S_EXT_CTRLS, &list.list), -EINVAL);
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
