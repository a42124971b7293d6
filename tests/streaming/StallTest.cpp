// SPDX-License-Identifier: Apache-2.0
// Where a stalled scene stands, with the stall made by the driver or the client.
#include <corvane/SceneManager.h>

#include <chrono>
#include <future>
#include <thread>

#include "StreamingFixture.h"
#include "support/PassingKernel.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::HasSubstr;

/** Lets no MEDIA_REQUEST_IOC_REINIT return before it ends: no driver can be told to do that. */
class Reluctant : public PassingKernel {
public:
    Reluctant() : PassingKernel(*System::setKernel(this)) {}
    ~Reluctant() override { System::setKernel(&mKernel); }
    void letGo() { mGone.set_value(); }
    int ioctl(int fd, unsigned long request, void* arg) override {
        if (request == MEDIA_REQUEST_IOC_REINIT)
            mGoing.wait();
        return PassingKernel::ioctl(fd, request, arg);
    }

private:
    std::promise<void> mGone;
    const std::shared_future<void> mGoing = mGone.get_future().share();
};

class Stalls : public FaultyStreaming {
protected:
    /** What the rig's scene says of itself once a line of it matches, or after some time. */
    template <class Matcher>
    static Lines explained(const Rig& rig, const Matcher& matcher, size_t most = 100) {
        return waitFor(
            matcher, [&rig](IPrinter& printer) { rig.scene->explainStall(&printer); }, most);
    }
    template <class Matcher, class Explain>
    static Lines waitFor(const Matcher& matcher, const Explain& explain, size_t most = 100) {
        Lines lines;
        const auto fits = [&] {
            return lines.size() <= most && testing::Value(lines, Contains(matcher));
        };
        for (int i = 0; i < 500 && !fits(); ++i) {
            LinePrinter printer;
            explain(printer);
            lines = printer.lines;
            std::this_thread::sleep_for(10ms);
        }
        EXPECT_THAT(lines, AllOf(Contains(matcher), testing::SizeIs(testing::Le(most))));
        return lines;
    }
    static std::future<int> beside(std::function<int()> action) {
        return std::async(std::launch::async, std::move(action));
    }
};

TEST_F(Stalls, InTheDriverAreTheDriversTurn) {
    const struct {
        const char* operation;
        const char* line;
    } kCases[] = {
        {"qbuf",
         "request 1 .fd [0-9]+.: in VIDIOC_QBUF of port vengine-[a-z]+: the "
         "driver's turn; buffers vengine"},
        {"request_queue",
         "request 1 .fd [0-9]+.: in MEDIA_REQUEST_IOC_QUEUE for [0-9]{1,5} ms: the "
         "driver's turn; buffers vengine-[a-z]+.0. vengine-[a-z]+.0."},
        {"dqbuf", "port vengine-[a-z]+: in VIDIOC_DQBUF: the driver's turn"},
        {"streamoff",
         "port vengine-[a-z]+: in VIDIOC_STREAMOFF of fd [0-9]+ for [0-9]{1,5} ms, "
         "thread [0-9]+: the driver's turn"},
    };
    for (const auto& [operation, line] : kCases) {
        SCOPED_TRACE(operation);
        Rig rig(2);
        ASSERT_EQ(rig.start(2), 0);
        rig.fill(0);
        ASSERT_EQ(rig.queue(0), 0);
        ASSERT_TRUE(rig.waitDone(1) && rig.waitDequeued());
        platform.order(std::string(operation) + " hang");
        const bool stops = operation == std::string("streamoff");
        if (!stops)
            rig.fill(1);
        auto call = beside([&] { return stops ? rig.stop() : rig.queue(1); });
        const Lines lines = explained(rig, ContainsRegex(line));
        EXPECT_THAT(lines, Contains(HasSubstr("STREAMOFF")).Times(stops ? 1 : 0));
        platform.order("clear");
        EXPECT_EQ(call.get(), 0);
        EXPECT_TRUE(stops || (rig.waitDone(2) && rig.waitDequeued()));
        explained(rig,
                  HasSubstr(stops ? "ACQUIRED: requests: 1 queued"
                                  : "2 completed; buffers to dequeue: 0"),
                  1);
    }
}

TEST_F(Stalls, ByAReinitialisationIsTheDriversTurn) {
    Rig rig(1);
    ASSERT_EQ(rig.start(2), 0);
    Reluctant kernel;
    rig.fill(0);
    ASSERT_EQ(rig.queue(0), 0);
    explained(rig, ContainsRegex("request 0 .fd [0-9]+.: in MEDIA_REQUEST_IOC_REINIT, completed "
                                 "[0-9]{1,5} ms ago: the driver's turn"));
    rig.fill(1);
    ASSERT_EQ(rig.queue(1), 0);
    explained(rig,
              HasSubstr("the event monitor's turn, whose thread is busy with another request"));
    kernel.letGo();
    EXPECT_TRUE(rig.waitDone(2) && rig.waitDequeued());
    EXPECT_EQ(rig.stop(), 0);
}

TEST_F(Stalls, ByAStreamOnAndALinkAreTold) {
    SceneManager manager;
    platform.order("setup_link hang");
    Rig rig(1);
    auto initialised = beside([&] { return rig.init(); });
    waitFor(ContainsRegex("^in MEDIA_IOC_SETUP_LINK of fd [0-9]+ for [0-9]{1,5} ms, thread [0-9]+"),
            [&manager](IPrinter& printer) { manager.explainStall(&printer); });
    platform.order("clear");
    EXPECT_EQ(initialised.get(), 0);
    platform.order("streamon hang");
    auto started = beside([&] { return rig.start(2); });
    explained(rig, ContainsRegex("port vengine-main: in VIDIOC_STREAMON of fd [0-9]+ for"));
    platform.order("clear");
    EXPECT_EQ(started.get(), 0);
}

// Three seconds of a blocked client, and what waits for it meanwhile.
TEST_F(Stalls, ByTheClientAreToldByTheGuardAsWell) {
    Rig rig(1);
    std::promise<void> released;
    rig.onDone = [until = released.get_future().share()] { until.wait(); };
    ASSERT_EQ(rig.start(2), 0);
    platform.order("dqbuf -5");
    for (const size_t slot : {0, 1}) {
        rig.fill(slot);
        ASSERT_EQ(rig.queue(slot), 0);
    }
    // The first one's dequeue fails, its callback blocks; the second one waits behind it.
    explained(rig, HasSubstr("in its done callback"));
    rig.fill(0);
    auto queued = beside([&] { return rig.queue(0); });  // no index is free
    explained(rig, HasSubstr("threads that wait for a free index"));
    auto filled = beside([&] { return rig.fill(1), 0; });  // it is still under way
    const Lines lines = explained(rig, ContainsRegex("a thread in addBuffer.. waits for it"));
    for (const char* const line : {"request 0 .fd [0-9]+.: in its done callback, completed "
                                   "[0-9]{1,5} ms ago: the client's turn",
                                   "request 1 .fd [0-9]+.: completed, queued [0-9]{1,5} ms ago: "
                                   "the event monitor's turn, whose "
                                   "thread is busy with another request; buffers vengine-main.1.",
                                   "port vengine-main: threads that wait for a free index: 1, for "
                                   "[0-9]{1,5} ms; taken: 2 of 2",
                                   "port vengine-main: indexes lost by failed dequeues: 1"})
        EXPECT_THAT(lines, Contains(ContainsRegex(line)));
    EXPECT_THAT(lines, testing::Each(Not(HasSubstr("VIDIOC_DQBUF")))) << "it failed and returned";
    errors();
    std::this_thread::sleep_for(3200ms);
    const Lines told = errors();
    EXPECT_THAT(told, Contains(ContainsRegex("Scene: scene rig: the done callback of request 0 .fd "
                                             "[0-9]+. does not return: .* .(2999|3[0-9]{3}) ms.")));
    EXPECT_THAT(told, Contains(ContainsRegex("Request: addBuffer: request [0-9]+ of scene rig "
                                             "over ports vengine-main is still under way")));
    EXPECT_THAT(told, Contains(HasSubstr("port 0(vengine-main) of scene rig waits for a free "
                                         "buffer index")));
    platform.hold(true);
    released.set_value();
    EXPECT_EQ(queued.get(), 0) << "once the second one was dequeued";
    EXPECT_EQ(filled.get(), 0);
    EXPECT_THAT(explained(rig, HasSubstr("rig")), testing::Each(Not(HasSubstr("waits for it"))));
    rig.events.reset();
    EXPECT_EQ(rig.stop(), 0);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
