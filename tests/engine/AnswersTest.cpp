// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

namespace NSVista::NSCorvane::test {

namespace {

/** What a case works on: a capture that streams, an output with buffers that does not. */
struct Scene {
    Port &in, &out;
    int bound, empty;  ///< requests: one with buffer 0 of the capture, one with nothing
    int media;
};

struct Answer {
    const char* name;
    int expected;
    int (*act)(const Scene&);
};

void PrintTo(const Answer& answer, std::ostream* out) {
    *out << answer.name;
}

/** Does something with a port's node opened a second time. */
int byAnother(Port& port, const std::function<int(Port&)>& act) {
    Fd other(port.name);
    std::swap(other, port.node);
    const int result = act(port);
    std::swap(other, port.node);
    return result;
}

int completeThen(const Scene& s, const std::function<int()>& act) {
    const int result = call(s.bound, MEDIA_REQUEST_IOC_QUEUE);
    return result < 0 ? result : done(s.bound) ? act() : -ETIMEDOUT;
}

int setFormat(Port& port) {
    v4l2_format format = {};
    format.type = port.type();
    return call(port.node, VIDIOC_S_FMT, &format);
}

#define ACT(what) [](const Scene& s) -> int { return what; }
#define QUEUE(port, change) ACT(s.port.queue(1, s.empty, [](Port& p) { change; }))
#define SUBMIT(port, change) \
    ACT(s.port.queue(1, s.empty, [](Port& p) { change; }) + call(s.empty, MEDIA_REQUEST_IOC_QUEUE))
#define ANOTHER(what) ACT(byAnother(s.in, [&](Port& p) { return what; }))
#define COMPLETE(what) ACT(completeThen(s, [&] { return what; }))

// clang-format off
const Answer kAnswers[] = {
    {"REQBUFS(0) while streaming", -EBUSY, ACT(s.in.requestBuffers(0))},
    {"REQBUFS of memory type 0", -EINVAL, ACT(s.out.requestBuffers(0, 0))},
    {"REQBUFS of another memory while streaming", -EINVAL, ACT(s.in.requestBuffers(1, V4L2_MEMORY_USERPTR))},
    {"REQBUFS beyond the limit", 32, ACT(s.out.requestBuffers(64))},
    {"REQBUFS of another opener", -EBUSY, ANOTHER(p.requestBuffers(1))},
    {"REQBUFS of another opener when none are left", 1,
     ACT(s.out.requestBuffers(0) + byAnother(s.out, [](Port& p) { return p.requestBuffers(1); }))},
    {"S_FMT with buffers", -EBUSY, ACT(setFormat(s.out))},
    {"STREAMON without buffers", -EINVAL, ACT(s.out.requestBuffers(0) + s.out.stream(true))},
    {"STREAMON with its link disabled", -EPIPE, ACT(setLink(s.media, kInput, 0) + s.out.stream(true))},
    {"STREAMON twice", 0, ACT(s.in.stream(true))},
    {"STREAMON of another opener", -EBUSY, ANOTHER(p.stream(true))},
    {"STREAMOFF of another opener", -EBUSY, ANOTHER(p.stream(false))},
    {"STREAMOFF when not streaming", 0, ACT(s.out.stream(false))},
    {"DQBUF when not streaming", -EINVAL, ACT(s.out.dequeue())},
    {"DQBUF with nothing done and too few planes", -EAGAIN, ACT(s.in.dequeue(1))},
    {"DQBUF of another opener", -EBUSY, ANOTHER(p.dequeue())},
    {"DQBUF with too few planes", -EINVAL, COMPLETE(s.in.dequeue(1))},
    {"DQBUF with too many planes", -EINVAL, COMPLETE(s.in.dequeue(VIDEO_MAX_PLANES + 1))},
    {"QBUF of an index already bound", -EINVAL, ACT(s.in.queue(0, s.empty))},
    {"QBUF of an index out of range", -EINVAL, ACT(s.in.queue(4, s.empty))},
    {"QBUF of another memory type", -EINVAL, QUEUE(in, p.record.memory = 1)},
    {"QBUF of another buffer type", -EINVAL, QUEUE(in, p.record.type = 1)},
    {"QBUF without planes", -EINVAL, QUEUE(in, p.record.length = 0)},
    {"QBUF of another opener", -EBUSY, ANOTHER(p.queue(1, s.empty))},
    {"QBUF with a request fd that is none", -EINVAL, ACT(s.in.queue(1, s.in.node))},
    {"QBUF without a request among others with", -EBUSY, ACT(s.in.queue(1, -1))},
    {"QBUF of a bound index without a request", -EBUSY, ACT(s.in.queue(0, -1))},
    {"QBUF into a completed request", -EBUSY, COMPLETE(s.in.queue(1, s.bound))},
    {"QBUF of two buffers of a node into one request", 0, ACT(s.in.queue(1, s.bound))},
    {"QBUF with more data than the plane has", -EINVAL, QUEUE(out, p.planes[0].bytesused = p.planes[0].length + 1)},
    {"QBUF with a data offset at the data's end", -EINVAL, QUEUE(out, p.planes[0].data_offset = p.planes[0].bytesused = 1)},
    {"queue of an empty request", -ENOENT, ACT(call(s.empty, MEDIA_REQUEST_IOC_QUEUE))},
    {"queue of a request whose node stopped", -ENOENT,
     ACT(s.in.stream(false) + call(s.bound, MEDIA_REQUEST_IOC_QUEUE))},
    {"queue of a completed request", -EBUSY, COMPLETE(call(s.bound, MEDIA_REQUEST_IOC_QUEUE))},
    {"REINIT gives the index back", 0, ACT(call(s.bound, MEDIA_REQUEST_IOC_REINIT) + s.in.queue(0, s.empty))},
    {"REINIT before DQBUF, and DQBUF after", 0, COMPLETE(call(s.bound, MEDIA_REQUEST_IOC_REINIT) + s.in.dequeue())},
    {"queue with a bad dma-buf fd", -EINVAL, SUBMIT(in, p.planes[1].m.fd = -1)},
    {"queue with a plane past the end of its dma-buf", -EINVAL, SUBMIT(in, p.planes[1].reserved[2] = UINT32_MAX - 8)},
    {"queue with a plane that ends one byte behind its dma-buf", -EINVAL, SUBMIT(in, p.planes[1].reserved[2] = p.room(1) + 1)},
    {"queue with a capture plane below its size", -EINVAL, SUBMIT(in, p.planes[0].length = 1)},
    {"queue with an output plane below its size", -EINVAL, SUBMIT(out, p.planes[0].length--)},
    {"queue with an output plane beyond its dma-buf", -EFAULT, SUBMIT(out, p.planes[0].length = 1u << 20)},
    {"queue with less than a picture behind the data offset", -EINVAL, SUBMIT(out, p.planes[0].data_offset = 1)},
    {"a request's descriptor ends with the program", FD_CLOEXEC, ACT(fcntl(s.empty, F_GETFD))},
    {"unknown ioctl on a video node", -ENOTTY, ACT(call(s.in.node, KVXDIP_IOC_ALOC_BUF, &s.in.record))},
    {"unknown ioctl on a request", -ENOTTY, ACT(call(s.empty, VIDIOC_QBUF))},
    {"unknown ioctl on a media device", -ENOTTY, ACT(call(s.media, MEDIA_REQUEST_IOC_QUEUE))},
};
// clang-format on

}  // namespace

class AnswersTest : public EngineTest, public testing::WithParamInterface<Answer> {};

TEST_P(AnswersTest, IsTheKernels) {
    Port &capture = start(kMain), &output = add(kInput);
    const Fd bound = newRequest(media), empty = newRequest(media);
    ASSERT_EQ(capture.queue(0, bound), 0);
    EXPECT_EQ(GetParam().act({capture, output, bound, empty, media}), GetParam().expected);
    if (GetParam().expected < 0) {
        EXPECT_EQ(errno, -GetParam().expected);
    }
    EXPECT_EQ(capture.stream(false), 0);
}

INSTANTIATE_TEST_SUITE_P(All, AnswersTest, testing::ValuesIn(kAnswers), [](const auto& test) {
    std::string name;
    for (const char* at = test.param.name; *at; ++at)
        name += isalnum(*at) ? *at : '_';
    return name;
});

}  // namespace NSVista::NSCorvane::test
