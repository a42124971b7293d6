// SPDX-License-Identifier: Apache-2.0
// Pictures, requests and buffers on their way.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Bench.h"

namespace NSVista::NSCorvane::test {

namespace {

using Clock = std::chrono::steady_clock;
using StreamTest = EngineTest;
using StreamInProcess = ProcessTest;

constexpr uint8_t kUntouched = 0xa5;
constexpr int kControl = 7;
constexpr uint32_t kMonotonic = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;

/** Puts the input, mask and tuning of a run into its buffers and paints all others over. */
void fill(std::deque<Port>& ports, unsigned buffer, uint32_t run) {
    for (Port& port : ports) {
        for (unsigned plane = 0; plane < port.layout.num_planes; ++plane)
            memset(port.data(buffer, plane), kUntouched, port.bytes(plane));
        vengine_picture picture = port.picture(buffer);
        vengine_tuning tuning = {VENGINE_TUNING_MAGIC, run, static_cast<int>(run % 31), {}};
        if (port.desc.role == VENGINE_ROLE_TUNING)
            memcpy(picture.data[0], &tuning, sizeof(tuning));
        else if (port.output())
            vengine_draw_test(&picture, run * (port.desc.role + 1));
    }
}

/** What the engine wrote into the record of the buffer just dequeued. */
void checkRecord(const Port& port, int request, uint32_t run) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const v4l2_buffer& record = port.record;
    const uint32_t bytes = port.multiplanar() ? port.planes[0].bytesused : record.bytesused;
    EXPECT_EQ(record.flags, kMonotonic | V4L2_BUF_FLAG_REQUEST_FD) << port.name;
    EXPECT_EQ(record.request_fd, request) << port.name;
    EXPECT_EQ(record.sequence, run) << port.name;
    EXPECT_LT(now.tv_sec - record.timestamp.tv_sec, 60) << port.name;
    EXPECT_EQ(bytes, port.layout.sizeimage[0]) << port.name;
    EXPECT_TRUE(!port.multiplanar() || record.length == port.layout.num_planes) << port.name;
}

TEST_F(StreamTest, ShowsPicturesOnAllPortsAtTheirOffsets) {
    constexpr unsigned kDepth = 8;
    const char* runs = getenv("CORVANE_TEST_RUNS");
    const uint32_t count = runs ? static_cast<uint32_t>(atoi(runs)) : 24;
    const Fd sub(VENGINE_SUBDEV_ENTITY);
    ASSERT_EQ(setControl(sub, kControl), 0);
    std::vector<Port*> all;
    for (unsigned n = 0; n < VENGINE_PORTS; ++n)
        all.push_back(&add(n, kDepth));
    for (Port* port : all)
        ASSERT_EQ(port->stream(true), 0);
    std::vector<Fd> requests;
    for (unsigned n = 0; n < kDepth; ++n)
        requests.push_back(newRequest(media));
    uint32_t frame = 0;
    for (uint32_t next = 0; next < count + kDepth; ++next) {
        const unsigned buffer = next % kDepth;
        if (next >= kDepth) {
            const uint32_t run = next - kDepth;
            ASSERT_TRUE(done(requests[buffer]));
            for (Port* port : all) {
                ASSERT_EQ(port->dequeue(), static_cast<int>(buffer));
                checkRecord(*port, requests[buffer], run);
            }
            vengine_stats stats;
            memcpy(&stats, ports[kStats].picture(buffer).data[0], sizeof(stats));
            frame = run == 0 ? stats.frame : frame + 1;
            vengine_picture input = ports[kInput].picture(buffer);
            vengine_picture mask = ports[kMask].picture(buffer);
            const int brightness = static_cast<int>(run % 31) + kControl;
            for (Port* port : all)
                ASSERT_TRUE(
                    port->output() ||
                    port->shows(buffer, {&input, &mask, frame, brightness}, run, kUntouched))
                    << port->name << " frame " << frame;
            ASSERT_FALSE(HasFailure());
            ASSERT_EQ(call(requests[buffer], MEDIA_REQUEST_IOC_REINIT), 0);
        }
        if (next < count) {
            fill(ports, buffer, next);
            ASSERT_EQ(submit(requests[buffer], all, buffer), 0);
        }
    }
    ASSERT_EQ(setControl(sub, 0), 0);
}

TEST_F(StreamTest, CompletesInTheOrderAskedFor) {
    constexpr unsigned kBuffers = 6;
    Port& port = start(kMain, kBuffers);
    auto run = [&](int order, unsigned delayUs) {
        bench.setOrder(order, delayUs);
        const auto begin = Clock::now();
        for (const Fd& request : submitAll({&port}, kBuffers))
            EXPECT_TRUE(done(request));
        EXPECT_GE(Clock::now() - begin, std::chrono::microseconds(delayUs));
        std::string ended;
        for (unsigned n = 0; n < kBuffers; ++n)
            ended += std::to_string(port.dequeue());
        return ended;
    };
    EXPECT_EQ(run(1, 20000), "012345");
    EXPECT_EQ(run(3, 0), "210543");
    EXPECT_EQ(run(4, 1000), "321054") << "a short group goes in the end";
    std::string shuffled = "012345";
    for (int round = 0; round < 5 && shuffled == "012345"; ++round)
        shuffled = run(-6, 0);
    EXPECT_NE(shuffled, "012345");
}

TEST_F(StreamInProcess, CompletesWhenToldTo) {
    Port& port = start(kMain);
    bench.device().hold();
    const Fd held = submitNew({&port}, 0);
    EXPECT_FALSE(done(held, 20));
    bench.device().resume();
    EXPECT_TRUE(done(held));
    bench.device().setTiming({.onQueueingThread = true});
    EXPECT_TRUE(done(submitNew({&port}, 2), 0)) << "inside the ioctl";
    constexpr auto kJitter = std::chrono::milliseconds(40);
    bench.device().setTiming({.jitter = kJitter, .seed = 2});
    const auto begin = Clock::now();
    EXPECT_TRUE(done(submitNew({&port}, 3)));
    EXPECT_GT(Clock::now() - begin, kJitter / 20);
    EXPECT_EQ(bench.device().nextFrame(), 3u);
}

TEST_F(StreamTest, WaitsForEveryNodeAndLetsGoOfThoseThatStop) {
    Port &main = start(kMain), &stats = add(kStats), &grey = add(kGrey);
    const std::vector<Port*> all = {&main, &stats, &grey};
    const Fd request = submitNew(all, 0);
    EXPECT_EQ(pollFor(request, POLLPRI, 100), 0) << "two nodes do not stream yet";
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), -EBUSY);
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_QUEUE), -EBUSY);
    EXPECT_EQ(stats.queue(1, request), -EBUSY) << "it is queued";
    EXPECT_EQ(stats.queue(0, -1), -EBUSY) << "a node that has seen a request takes no plain buffer";
    const Fd overtaking = submitNew({&main}, 1);
    EXPECT_TRUE(done(overtaking)) << "waits for nobody";
    EXPECT_EQ(main.dequeue(), 1);
    EXPECT_EQ(main.record.sequence, 0u);
    ASSERT_EQ(stats.stream(true), 0);
    ASSERT_EQ(grey.stream(false), 0) << "takes its buffer out of the request";
    EXPECT_TRUE(done(request));
    EXPECT_EQ(main.dequeue(), 0);
    EXPECT_EQ(main.record.sequence, 1u);
    EXPECT_EQ(stats.dequeue(), 0);
    EXPECT_EQ(grey.dequeue(), -EINVAL);
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);

    ASSERT_EQ(submit(request, all, 1), 0);
    ASSERT_EQ(grey.stream(true), 0);
    EXPECT_TRUE(done(request)) << "the start of the last node lets it go";
    ASSERT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT) + grey.stream(false), 0);
    EXPECT_EQ(main.dequeue() + stats.dequeue(), 2);

    ASSERT_EQ(submit(request, all, 1), 0);
    for (Port* port : all)
        EXPECT_EQ(port->stream(false), 0);
    EXPECT_TRUE(done(request)) << "the last stream-off ends a request";
    ASSERT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    EXPECT_EQ(pollFor(request, POLLPRI, 0) & POLLPRI, 0);
    for (unsigned round = 0; round < 20; ++round) {
        for (Port* port : all)
            ASSERT_EQ(port->stream(true), 0);
        std::vector<Fd> requests = submitAll(all, 4);
        requests.resize(round % 4);
        for (Port* port : all)
            ASSERT_EQ(port->stream(false), 0) << "whatever is in flight, and whoever holds it";
    }
    ASSERT_EQ(main.stream(true), 0);
    const Fd again = submitNew({&main}, 0);
    ASSERT_TRUE(done(again));
    EXPECT_EQ(main.dequeue(), 0);
    EXPECT_EQ(main.record.sequence, 0u) << "counted from the stream's start";
    ASSERT_EQ(submit(request, {&stats, &grey}, 2), 0);
    ports.clear();
    EXPECT_TRUE(done(request)) << "closing the nodes ends it as well";
}

TEST_F(StreamTest, StreamOffDropsWhatIsDoneAndForgetsTheWayOfQueueing) {
    Port& main = start(kMain);
    const Fd request = submitNew({&main}, 0);
    ASSERT_TRUE(done(request));
    ASSERT_EQ(main.stream(false), 0);
    ASSERT_EQ(main.stream(true), 0);
    EXPECT_EQ(main.dequeue(), -EAGAIN) << "the buffer that was done is the client's again";
    EXPECT_EQ(main.queue(0, -1), 0) << "without a request from now on";
    EXPECT_EQ(main.record.flags & V4L2_BUF_FLAG_REQUEST_FD, 0u);
    EXPECT_EQ(main.queue(1, newRequest(media)), -EBUSY);
    EXPECT_EQ(main.queue(0, -1), -EINVAL) << "queued or done";
}

TEST_F(StreamTest, AGroupThatIsCancelledIsForgotten) {
    Port& main = start(kMain);
    bench.setOrder(2, 100000);
    const Fd first = submitNew({&main}, 0), second = submitNew({&main}, 1);
    EXPECT_FALSE(done(first, 30)) << "the group is formed, but not due";
    ASSERT_EQ(main.stream(false) + main.stream(true), 0);
    EXPECT_TRUE(done(first) && done(second));
    bench.setOrder(1);
    EXPECT_EQ(cycle(main, 2), 2);
    if (bench.inProcess()) {
        EXPECT_EQ(bench.device().counts().completed, 1u);
    }
}

TEST_F(StreamTest, PlainBuffersAreRunsOfTheirOwn) {
    Port& main = start(kMain);
    main.node = Fd();
    main.node = Fd(main.name, O_RDWR);
    ASSERT_EQ(main.requestBuffers(4), 4);
    ASSERT_EQ(main.queue(2, -1), 0) << "before the start";
    EXPECT_EQ(main.record.request_fd, 0);
    EXPECT_EQ(main.queue(3, -1, [](Port& p) { p.planes[1].m.fd = -1; }), -EINVAL) << "at once";
    ASSERT_EQ(main.stream(true), 0);
    ASSERT_EQ(main.queue(3, -1, [](Port& p) { p.planes[0].data_offset = 8; }), 0)
        << "the refused one is free";
    EXPECT_EQ(main.dequeue(), 2) << "waits";
    EXPECT_EQ(main.dequeue(), 3);
    EXPECT_EQ(main.planes[0].data_offset, 0u) << "is an output's to say";
    EXPECT_EQ(main.record.sequence, 1u);
    EXPECT_EQ(main.record.flags, kMonotonic);
    int result = 0;
    std::thread waiting([&] { result = main.dequeue(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    uint32_t type = main.type();
    EXPECT_EQ(call(main.node, VIDIOC_STREAMOFF, &type), 0);
    waiting.join();
    EXPECT_EQ(result, -EINVAL) << "stream-off ends the wait";
}

TEST_F(StreamTest, BuffersOutliveTheirRequestsDescriptor) {
    Port &main = start(kMain), &gate = add(kGrey);
    {
        const Fd queued = submitNew({&main, &gate}, 0);
        const Fd idle = newRequest(media);
        ASSERT_EQ(main.queue(1, idle), 0);
    }
    EXPECT_EQ(main.dequeue(), -EAGAIN);
    ASSERT_EQ(gate.stream(true), 0);
    EXPECT_EQ(cycle(main, 2), 0) << "processed though nobody knows it";
    EXPECT_EQ(main.dequeue(), 2);
    EXPECT_EQ(main.queue(1, newRequest(media)), -EINVAL) << "bound until stream-off";
    ASSERT_EQ(gate.stream(false), 0);
    submitNew({&main, &gate}, 3);
    EXPECT_EQ(main.stream(false), 0);
    EXPECT_EQ(gate.stream(false), 0) << "ends the request that nobody else knows";
    const Fd last = newRequest(media);
    EXPECT_EQ(main.queue(1, last), 0);
    EXPECT_EQ(main.queue(3, last), 0);
}

TEST_F(StreamTest, KeepsTheMemoryOfAnIndex) {
    Port& main = start(kMain);
    auto written = [&](unsigned buffer) { return main.data(buffer, 0)[Port::kGuard] != 0; };
    auto forget = [&] {
        for (unsigned n : {0, 1})
            memset(main.data(n, 0), 0, main.bytes(0));
    };
    auto exchange = [&] {
        for (unsigned n : {0, 1})
            std::swap(main.memory[n], main.memory[main.layout.num_planes + n]);
    };
    EXPECT_EQ(cycle(main), 0);
    EXPECT_EQ(cycle(main), 0);
    exchange();
    EXPECT_EQ(cycle(main), 0);
    if (bench.inProcess()) {
        EXPECT_EQ(bench.device().counts().remaps, 2u) << "one for each plane, at the third cycle";
        EXPECT_EQ(bench.device().counts().mappedPlanes, 2u);
    }
    exchange();
    // What a refused request prepared stays so until stream-off.
    for (bool stopped : {false, true}) {
        const Fd refused = newRequest(media);
        ASSERT_EQ(main.queue(0, refused), 0);
        ASSERT_EQ(main.queue(1, refused, [](Port& p) { p.planes[1].m.fd = -1; }), 0);
        ASSERT_EQ(call(refused, MEDIA_REQUEST_IOC_QUEUE), -EINVAL);
        EXPECT_EQ(bench.held(), "dmabufs 2\nrequests 1\n") << "nothing of the index refused";
        ASSERT_EQ(call(refused, MEDIA_REQUEST_IOC_REINIT), 0);
        if (stopped) {
            ASSERT_EQ(main.stream(false) + main.stream(true), 0);
        }
        exchange();
        forget();
        EXPECT_EQ(cycle(main), 0);
        EXPECT_EQ(written(0), stopped);
        EXPECT_EQ(written(1), !stopped);
        exchange();
    }
    forget();
    EXPECT_EQ(cycle(main), 0);
    EXPECT_TRUE(written(0)) << "dequeued in between";
}

TEST_F(StreamTest, QueueingRewritesTheCallersRecord) {
    const Fd request = newRequest(media);
    for (unsigned n : {kMain, kGrey, kInput}) {
        Port& port = start(n);
        ASSERT_EQ(port.queue(0, request), 0);
        EXPECT_EQ(port.record.reserved2, 0u);
        EXPECT_EQ(port.record.request_fd, request);
        EXPECT_EQ(port.record.flags,
                  kMonotonic | V4L2_BUF_FLAG_REQUEST_FD | V4L2_BUF_FLAG_IN_REQUEST);
        EXPECT_EQ(port.multiplanar() ? port.planes[0].m.fd : port.record.m.fd, 0);
        EXPECT_EQ(port.planes[0].reserved[2], port.multiplanar() ? 0u : port.offset(0));
        EXPECT_EQ(port.multiplanar() ? port.planes[0].length : port.record.length,
                  port.layout.sizeimage[0]);
    }
}

TEST_F(StreamTest, BuffersInErrorAreTheRightOnes) {
    Port &main = start(kMain), &tuning = start(kTuning);
    ASSERT_TRUE(bench.fault("buffer -5 2 vengine-main"));
    EXPECT_EQ(cycle(tuning), -EIO) << "not a buffer of the node that is meant, but without magic";
    for (int expected : {0, -EIO, 0})
        EXPECT_EQ(cycle(main), expected);
    EXPECT_EQ(main.record.sequence, 2u);
    // The captures of a run that its tuning spoils are given back untouched.
    memset(main.data(3, 0), kUntouched, main.bytes(0));
    const Fd spoilt = submitNew({&main, &tuning}, 3);
    EXPECT_TRUE(done(spoilt));
    EXPECT_EQ(main.dequeue(), -EIO);
    EXPECT_EQ(main.record.index, 3u);
    EXPECT_EQ(tuning.dequeue(), -EIO);
    EXPECT_EQ(main.data(3, 0)[Port::kGuard], kUntouched);
}

TEST_F(StreamInProcess, QueuesTakeRequestsAsTheyAreDescribed) {
    const vengine_port desc = {"", V4L2_BUF_TYPE_META_CAPTURE, VENGINE_META_FMT_STATS,
                               VENGINE_ROLE_STATS, 0};
    const struct {
        sim::RequestUse use;
        int plain, withRequest;
    } cases[] = {{sim::RequestUse::OPTIONAL, 0, -EBUSY},
                 {sim::RequestUse::REQUIRED, -EBADR, -EINVAL},
                 {sim::RequestUse::REFUSED, 0, -EBADR}};
    for (const auto& item : cases) {
        sim::DeviceDesc described;
        described.addVideoNode("node", {desc.buf_type, desc.format, desc.role, item.use});
        sim::Device& plain = *bench.engine().addDevice(described);
        Port port(desc, "", 2);
        port.node = Fd(bench.kernel().open(plain.nodePath("node").c_str(), O_RDWR));
        ASSERT_EQ(port.requestBuffers(2), 2);
        ASSERT_EQ(port.stream(true), 0);
        EXPECT_EQ(port.queue(0, -1), item.plain);
        // Of another device's request only a queue hears that takes one at all.
        EXPECT_EQ(port.queue(1, newRequest(media)), item.withRequest);
        EXPECT_EQ(item.plain == 0 ? port.dequeue() : 0, 0);
    }
}

TEST_F(StreamTest, DescriptorsCloseInAnyOrder) {
    Port &main = add(kMain, 1), &tuning = add(kTuning, 1);
    std::array<unsigned, 6> order = {0, 1, 2, 3, 4, 5};
    unsigned round = 0;
    do {
        bench.setOrder(1, round++ % 2 * 1000);  // some runs are over when the closing begins
        Fd device(""), sub(VENGINE_SUBDEV_ENTITY);
        for (Port* port : {&main, &tuning})
            ASSERT_EQ(port->prepare() + port->stream(true), 1);
        ASSERT_EQ(subscribe(sub), 0);
        int32_t number = -1;
        kvxdip_fence list = {1, reinterpret_cast<uintptr_t>(&number)};
        ASSERT_EQ(call(sub, KVXDIP_IOC_ADD_FENCE, &list), 0);
        Fd fence(number), request = newRequest(device);
        ASSERT_EQ(submit(request, {&main, &tuning}, 0), 0);
        Fd* const all[] = {&device, &sub, &fence, &request, &main.node, &tuning.node};
        for (unsigned n : order)
            *all[n] = Fd();
        ASSERT_EQ(bench.held(), "") << round;
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(StreamTest, SurvivesManyThreadsThatStartAndStop) {
    constexpr unsigned kRounds = 30, kBuffers = 4;
    std::vector<std::thread> threads;
    for (unsigned n : {kMain, kFlip, kGrey, kStats})
        add(n, kBuffers);
    for (Port& port : ports) {
        threads.emplace_back([&port, this] {
            for (unsigned round = 0; round < kRounds; ++round) {
                ASSERT_EQ(port.requestBuffers(kBuffers) - port.stream(true), int{kBuffers});
                const std::vector<Fd> requests = submitAll({&port}, kBuffers);
                ASSERT_TRUE(done(requests[0]));
                ASSERT_EQ(port.stream(false), 0);
                for (const Fd& request : requests)
                    ASSERT_TRUE(done(request));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    if (bench.inProcess()) {
        const sim::DeviceCounts counts = bench.device().counts();
        EXPECT_EQ(counts.queued, threads.size() * kRounds * kBuffers);
        EXPECT_EQ(counts.completed + counts.cancelled, counts.queued);
    }
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
