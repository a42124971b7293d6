#include <functional>

#include "Client.h"

namespace NSVista::NSCorvane::sim {

namespace {

/** What a case works on: a streaming capture, an output without buffers, a request with a buffer.
 */
struct Scene {
    Client* client;
    Node capture, output;
    int bound, empty;  ///< requests: one with buffer 0 of the capture, one with nothing
    const Memory* memory;
};

struct Answer {
    const char* name;
    int expected;
    std::function<int(const Scene&)> act;
};

int queueChanged(const Node& node, int request, const std::function<void(Buffer&)>& change,
                 const Memory* memory = nullptr) {
    Buffer buffer(node, 1, request, memory);
    change(buffer);
    return System::QueueVideoNodeBuf(node.fd, &buffer.buf);
}

/** Queues a buffer that is bad only in its memory, then the request, and tells the latter's end. */
int queueRequestWith(const Scene& s, const Node& node, const std::function<void(Buffer&)>& change) {
    if (&node == &s.output && node.requestBuffers(2) != 2)
        return -1;
    int result = queueChanged(node, s.empty, change, s.memory);
    return result < 0 ? result - 1000 : System::QueueMediaRequest(s.empty);
}

int complete(const Scene& s) {
    int result = System::QueueMediaRequest(s.bound);
    pollfd poll = {s.bound, POLLPRI, 0};
    return result < 0 ? result : ::poll(&poll, 1, 5000) - 1;
}

int completeThen(const Scene& s, const std::function<int()>& act) {
    int result = complete(s);
    return result < 0 ? result : act();
}

int dequeue(const Node& node, uint32_t planes = VIDEO_MAX_PLANES) {
    Buffer buffer(node, 0);
    if (node.multi())
        buffer.buf.length = planes;
    return System::DQueueVideoNodeBuf(node.fd, &buffer.buf);
}

const std::vector<Answer> kAnswers = {
    {"REQBUFS(0) while streaming", -EBUSY, [](auto& s) { return s.capture.requestBuffers(0); }},
    {"REQBUFS of memory type 0", -EINVAL, [](auto& s) { return s.output.requestBuffers(0, 0); }},
    {"REQBUFS beyond the limit", 32, [](auto& s) { return s.output.requestBuffers(64); }},
    {"STREAMON without buffers", -EINVAL, [](auto& s) { return s.output.stream(true); }},
    {"STREAMON twice", 0, [](auto& s) { return s.capture.stream(true); }},
    {"STREAMOFF when not streaming", 0, [](auto& s) { return s.output.stream(false); }},
    {"DQBUF when not streaming", -EINVAL, [](auto& s) { return dequeue(s.output); }},
    {"DQBUF with nothing done", EAGAIN, [](auto& s) { return dequeue(s.capture); }},
    {"DQBUF with too few planes", -EINVAL,
     [](auto& s) { return completeThen(s, [&] { return dequeue(s.capture, 1); }); }},
    {"QBUF of an index already bound", -EINVAL,
     [](auto& s) { return queueChanged(s.capture, s.empty, [](Buffer& b) { b.buf.index = 0; }); }},
    {"QBUF of an index out of range", -EINVAL,
     [](auto& s) { return queueChanged(s.capture, s.empty, [](Buffer& b) { b.buf.index = 4; }); }},
    {"QBUF of another memory type", -EINVAL,
     [](auto& s) { return queueChanged(s.capture, s.empty, [](Buffer& b) { b.buf.memory = 1; }); }},
    {"QBUF of another buffer type", -EINVAL,
     [](auto& s) { return queueChanged(s.capture, s.empty, [](Buffer& b) { b.buf.type = 1; }); }},
    {"QBUF without planes", -EINVAL,
     [](auto& s) { return queueChanged(s.capture, s.empty, [](Buffer& b) { b.buf.length = 0; }); }},
    {"QBUF with a request fd that is none", -EINVAL,
     [](auto& s) { return queueChanged(s.capture, s.capture.fd, [](Buffer&) {}); }},
    {"QBUF without a request among others with", -EBUSY,
     [](auto& s) { return queueChanged(s.capture, -1, [](Buffer&) {}); }},
    {"QBUF into a completed request", -EBUSY,
     [](auto& s) {
         return completeThen(s, [&] {
             return queueChanged(
                 s.capture, s.bound, [](Buffer&) {}, s.memory);
         });
     }},
    {"QBUF of two buffers of a node into one request", 0,
     [](auto& s) {
         return queueChanged(
             s.capture, s.bound, [](Buffer&) {}, s.memory);
     }},
    {"queue of an empty request", -ENOENT,
     [](auto& s) { return System::QueueMediaRequest(s.empty); }},
    {"queue of a completed request", -EBUSY,
     [](auto& s) { return completeThen(s, [&] { return System::QueueMediaRequest(s.bound); }); }},
    {"REINIT of an idle request", 0, [](auto& s) { return System::ReinitMediaRequest(s.bound); }},
    {"REINIT before DQBUF, and DQBUF after", 0,
     [](auto& s) {
         return completeThen(s, [&] {
             int result = System::ReinitMediaRequest(s.bound);
             return result < 0 ? result : dequeue(s.capture);
         });
     }},
    {"queue with a bad dma-buf fd", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.capture, [](Buffer& b) { b.planes[1].m.fd = -1; });
     }},
    {"queue with a plane past the end of its dma-buf", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.capture,
                                 [&](Buffer& b) { b.planes[1].reserved[2] = UINT32_MAX - 8; });
     }},
    {"queue with an output plane below its size", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.output, [](Buffer& b) { b.planes[0].length--; });
     }},
    {"queue with an output plane longer than its dma-buf", -EFAULT,
     [](auto& s) {
         return queueRequestWith(s, s.output, [&](Buffer& b) { b.planes[0].length = 1u << 20; });
     }},
    {"unknown ioctl on a video node", -ENOTTY,
     [](auto& s) {
         v4l2_event event;
         return System::DQueueEvent(s.capture.fd, &event);
     }},
    {"unknown ioctl on a request", -ENOTTY,
     [](auto& s) { return System::QueueVideoNodeBuf(s.empty, nullptr); }},
};

}  // namespace

class AnswersTest : public Client, public testing::WithParamInterface<Answer> {};

TEST_P(AnswersTest, IsTheKernels) {
    Memory memory(65536);
    Scene scene{this,   streaming("vengine-main"), node("vengine-input"), request(), request(),
                &memory};
    ASSERT_EQ(queue({scene.capture, 0, scene.bound, &memory}, scene.capture), 0);
    EXPECT_EQ(GetParam().act(scene), GetParam().expected);
    if (GetParam().expected < 0) {
        EXPECT_EQ(errno, -GetParam().expected);
    }
}

INSTANTIATE_TEST_SUITE_P(All, AnswersTest, testing::ValuesIn(kAnswers), [](const auto& test) {
    std::string name;
    for (const char* at = test.param.name; *at; ++at)
        name += isalnum(*at) ? *at : '_';
    return name;
});

using Formats = Client;

TEST_F(Formats, AreAdjustedAndPersist) {
    Node& capture = node("vengine-main");
    v4l2_format format = {};
    format.type = capture.port->buf_type;
    format.fmt.pix_mp.width = 67;
    format.fmt.pix_mp.height = 5000;
    format.fmt.pix_mp.pixelformat = 1;
    format.fmt.pix_mp.num_planes = 9;
    ASSERT_EQ(call(capture.fd, VIDIOC_S_FMT, &format), 0);
    ASSERT_EQ(System::Close(std::exchange(capture.fd, -1), 0), 0);
    capture.fd = System::Open(nodePath(capture.port->name).c_str(), O_RDWR, 0);
    format.fmt = {};
    ASSERT_EQ(call(capture.fd, VIDIOC_G_FMT, &format), 0);
    vengine_layout expected = vengine_layout_of(V4L2_PIX_FMT_NV12M, 66, VENGINE_MAX_HEIGHT);
    EXPECT_EQ(format.fmt.pix_mp.width, 66u);
    EXPECT_EQ(format.fmt.pix_mp.num_planes, 2);
    for (int i : {0, 1}) {
        EXPECT_EQ(format.fmt.pix_mp.plane_fmt[i].bytesperline, expected.bytesperline[i]);
        EXPECT_EQ(format.fmt.pix_mp.plane_fmt[i].sizeimage, expected.sizeimage[i]);
    }
    ASSERT_EQ(capture.requestBuffers(1), 1);
    EXPECT_EQ(call(capture.fd, VIDIOC_S_FMT, &format), -EBUSY);
    int second = System::Open(nodePath(capture.port->name).c_str(), O_RDWR, 0);
    Node other{capture.port, second, capture.layout};
    EXPECT_EQ(other.requestBuffers(1), -EBUSY);
    EXPECT_EQ(other.stream(true), -EBUSY);
    System::Close(second, 0);
}

}  // namespace NSVista::NSCorvane::sim
