/**
 * @file
 * What single calls answer.
 */
#include "Bench.h"

namespace NSVista::NSCorvane::test {

namespace {

/** What a case works on: a capture that streams, an output with a format but no buffers. */
struct Scene {
    Port &capture, &output;
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

/** Does something with the capture's node opened a second time. */
int byAnother(const Scene& s, const std::function<int(Port&)>& act) {
    Fd other(s.capture.name);
    std::swap(other, s.capture.node);
    const int result = act(s.capture);
    std::swap(other, s.capture.node);
    return result;
}

/** Queues a buffer that is bad only in its memory, then the request, and tells the latter's end. */
int queueRequestWith(const Scene& s, Port& port, const std::function<void(Port&)>& change) {
    if (&port == &s.output && port.requestBuffers(4) != 4)
        return -1;
    const int result = port.queue(1, s.empty, change);
    return result < 0 ? result - 1000 : call(s.empty, MEDIA_REQUEST_IOC_QUEUE);
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

const Answer kAnswers[] = {
    {"REQBUFS(0) while streaming", -EBUSY, [](auto& s) { return s.capture.requestBuffers(0); }},
    {"REQBUFS of memory type 0", -EINVAL, [](auto& s) { return s.output.requestBuffers(0, 0); }},
    {"REQBUFS of another memory type while streaming", -EINVAL,
     [](auto& s) { return s.capture.requestBuffers(1, V4L2_MEMORY_USERPTR); }},
    {"REQBUFS beyond the limit", 32, [](auto& s) { return s.output.requestBuffers(64); }},
    {"REQBUFS of another opener", -EBUSY,
     [](auto& s) { return byAnother(s, [](Port& p) { return p.requestBuffers(1); }); }},
    {"S_FMT with buffers", -EBUSY, [](auto& s) { return setFormat(s.capture); }},
    {"STREAMON without buffers", -EINVAL, [](auto& s) { return s.output.stream(true); }},
    {"STREAMON with its link disabled", -EPIPE,
     [](auto& s) {
         return s.output.requestBuffers(1) + setLink(s.media, kInput, 0) + s.output.stream(true) -
                1;
     }},
    {"STREAMON twice", 0, [](auto& s) { return s.capture.stream(true); }},
    {"STREAMON of another opener", -EBUSY,
     [](auto& s) { return byAnother(s, [](Port& p) { return p.stream(true); }); }},
    {"STREAMOFF of another opener", -EBUSY,
     [](auto& s) { return byAnother(s, [](Port& p) { return p.stream(false); }); }},
    {"STREAMOFF when not streaming", 0, [](auto& s) { return s.output.stream(false); }},
    {"DQBUF when not streaming", -EINVAL, [](auto& s) { return s.output.dequeue(); }},
    {"DQBUF with nothing done", -EAGAIN, [](auto& s) { return s.capture.dequeue(); }},
    {"DQBUF with nothing done and too few planes", -EAGAIN,
     [](auto& s) { return s.capture.dequeue(1); }},
    {"DQBUF of another opener", -EBUSY,
     [](auto& s) { return byAnother(s, [](Port& p) { return p.dequeue(); }); }},
    {"DQBUF with too few planes", -EINVAL,
     [](auto& s) { return completeThen(s, [&] { return s.capture.dequeue(1); }); }},
    {"DQBUF with too many planes", -EINVAL,
     [](auto& s) {
         return completeThen(s, [&] { return s.capture.dequeue(VIDEO_MAX_PLANES + 1); });
     }},
    {"QBUF of an index already bound", -EINVAL,
     [](auto& s) { return s.capture.queue(0, s.empty); }},
    {"QBUF of an index out of range", -EINVAL, [](auto& s) { return s.capture.queue(4, s.empty); }},
    {"QBUF of another memory type", -EINVAL,
     [](auto& s) { return s.capture.queue(1, s.empty, [](Port& p) { p.record.memory = 1; }); }},
    {"QBUF of another buffer type", -EINVAL,
     [](auto& s) { return s.capture.queue(1, s.empty, [](Port& p) { p.record.type = 1; }); }},
    {"QBUF without planes", -EINVAL,
     [](auto& s) { return s.capture.queue(1, s.empty, [](Port& p) { p.record.length = 0; }); }},
    {"QBUF of another opener", -EBUSY,
     [](auto& s) { return byAnother(s, [&](Port& p) { return p.queue(1, s.empty); }); }},
    {"QBUF with a request fd that is none", -EINVAL,
     [](auto& s) { return s.capture.queue(1, s.capture.node); }},
    {"QBUF without a request among others with", -EBUSY,
     [](auto& s) { return s.capture.queue(1, -1); }},
    {"QBUF of a bound index without a request", -EBUSY,
     [](auto& s) { return s.capture.queue(0, -1); }},
    {"QBUF into a completed request", -EBUSY,
     [](auto& s) { return completeThen(s, [&] { return s.capture.queue(1, s.bound); }); }},
    {"QBUF of two buffers of a node into one request", 0,
     [](auto& s) { return s.capture.queue(1, s.bound); }},
    {"QBUF with more bytes used than the plane has", -EINVAL,
     [](auto& s) {
         return s.output.requestBuffers(2) - 2 + s.output.queue(1, s.empty, [](Port& p) {
             p.planes[0].bytesused = p.planes[0].length + 1;
         });
     }},
    {"QBUF with a data offset at the end of the data", -EINVAL,
     [](auto& s) {
         return s.output.requestBuffers(2) - 2 + s.output.queue(1, s.empty, [](Port& p) {
             p.planes[0].data_offset = p.planes[0].length;
         });
     }},
    {"queue of an empty request", -ENOENT,
     [](auto& s) { return call(s.empty, MEDIA_REQUEST_IOC_QUEUE); }},
    {"queue of a completed request", -EBUSY,
     [](auto& s) {
         return completeThen(s, [&] { return call(s.bound, MEDIA_REQUEST_IOC_QUEUE); });
     }},
    {"REINIT of an idle request", 0,
     [](auto& s) { return call(s.bound, MEDIA_REQUEST_IOC_REINIT); }},
    {"REINIT gives the index back", 0,
     [](auto& s) { return call(s.bound, MEDIA_REQUEST_IOC_REINIT) + s.capture.queue(0, s.empty); }},
    {"REINIT before DQBUF, and DQBUF after", 0,
     [](auto& s) {
         return completeThen(s, [&] {
             const int result = call(s.bound, MEDIA_REQUEST_IOC_REINIT);
             return result < 0 ? result : s.capture.dequeue();
         });
     }},
    {"queue with a bad dma-buf fd", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.capture, [](Port& p) { p.planes[1].m.fd = -1; });
     }},
    {"queue with a plane past the end of its dma-buf", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.capture,
                                 [&](Port& p) { p.planes[1].reserved[2] = UINT32_MAX - 8; });
     }},
    {"queue with a capture plane below its size", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.capture, [](Port& p) { p.planes[0].length = 1; });
     }},
    {"queue with an output plane below its size", -EINVAL,
     [](auto& s) { return queueRequestWith(s, s.output, [](Port& p) { p.planes[0].length--; }); }},
    {"queue with an output plane longer than its dma-buf", -EFAULT,
     [](auto& s) {
         return queueRequestWith(s, s.output, [&](Port& p) { p.planes[0].length = 1u << 20; });
     }},
    {"queue with less data than a picture behind the data offset", -EINVAL,
     [](auto& s) {
         return queueRequestWith(s, s.output, [](Port& p) { p.planes[0].data_offset = 1; });
     }},
    {"unknown ioctl on a video node", -ENOTTY,
     [](auto& s) {
         kvxdip_memory memory = {};
         return call(s.capture.node, KVXDIP_IOC_ALOC_BUF, &memory);
     }},
    {"unknown ioctl on a request", -ENOTTY, [](auto& s) { return call(s.empty, VIDIOC_QBUF); }},
    {"unknown ioctl on a media device", -ENOTTY,
     [](auto& s) { return call(s.media, MEDIA_REQUEST_IOC_QUEUE); }},
};

}  // namespace

class AnswersTest : public EngineTest, public testing::WithParamInterface<Answer> {};

TEST_P(AnswersTest, IsTheKernels) {
    Port &capture = start(kMain), &output = add(kInput);
    const Fd bound = newRequest(media), empty = newRequest(media);
    ASSERT_EQ(output.requestBuffers(0), 0);
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
