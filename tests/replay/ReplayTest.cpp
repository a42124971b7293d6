// SPDX-License-Identifier: Apache-2.0
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/kvxdip.h>
#include <corvane/platform/Record.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/ULog.h>
#include <corvane/platform/UniqueFd.h>
#include <corvane/replay/Decode.h>
#include <corvane/replay/ReplayKernel.h>
#include <corvane/replay/Story.h>
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/Process.h"
#include "support/SceneDescs.h"

namespace NSVista::NSCorvane {
namespace {

using namespace std::chrono_literals;
using namespace testing;

/** Addresses, times of day and of waiting, and descriptors. */
const std::regex kFleeting(
    R"(0x[0-9a-f]{9,}|[0-9]+-[0-9]+ [0-9:]+\.[0-9]+|[0-9]+ ms|(fd|FD|request)[ =(]+[0-9]+)");

struct Outcome {
    std::vector<std::string> lines;  ///< warnings and errors
    std::vector<int> codes;          ///< of every step
    std::vector<int> results;        ///< of every frame, in the order of completion

    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << testing::PrintToString(outcome.lines) << testing::PrintToString(outcome.codes)
         << testing::PrintToString(outcome.results);
}

class ReplayTest : public testing::Test {
protected:
    ReplayTest() {
        Utils::ULog::ULogger::install(&mLog);
        Utils::setExceptionHandler([](const char*, const char*) {});
        Utils::setTerminateHandler([] {});
        // The library asks a device for its topology once.
        sim::VirtualEngine engine;
        const sim::ScopedKernel installed(engine);
        IDeviceEnumerator::instance().search(VENGINE_MODEL);
    }
    ~ReplayTest() override {
        record::stop();
        unlink(mPath.c_str());
        Utils::setTerminateHandler({});
        Utils::setExceptionHandler({});
        Utils::ULog::ULogger::install(nullptr);
    }

    /** Streams over the engine's first ports, a few requests more than there are buffers. */
    Outcome stream(size_t ports, uint32_t width = 64) {
        client::SessionDesc desc = test::engineSession("test", static_cast<unsigned>(ports));
        for (client::SessionPort& port : desc.ports)
            port.width = width;
        desc.layout = {64, 64};
        Outcome outcome;
        int error = 0;
        auto session =
            client::SceneSession::open(desc, IDeviceEnumerator::instance().search(VENGINE_MODEL),
                                       *client::makeMemoryFileSource(), error);
        outcome.codes.push_back(error);
        if (session != nullptr)
            streamOn(*session, outcome);
        session.reset();
        for (const auto& line : mLog.take())
            if (line.level <= Utils::ULog::kWarning)
                outcome.lines.push_back(std::regex_replace(line.text, kFleeting, "_"));
        return outcome;
    }
    template <class Body>
    auto recorded(sim::VirtualEngine& engine, Body body) {
        const sim::ScopedKernel installed(engine);
        EXPECT_EQ(record::start(mPath.c_str()), 0);
        auto result = body();
        record::stop();
        return result;
    }
    /** A stream, recorded. @param fault as the driver takes it, empty for none. */
    Outcome recordStream(size_t ports, const std::string& fault) {
        sim::VirtualEngine engine;
        sim::Timing timing;
        timing.latency = 2ms;
        timing.order = sim::Order::REVERSED;
        timing.group = 2;
        engine.device().setTiming(timing);
        EXPECT_TRUE(fault.empty() || engine.faults().order(fault.c_str()) == 0) << fault;
        std::future<void> clearer;
        if (fault.ends_with("hang"))
            clearer = std::async(std::launch::async, [&] {
                std::this_thread::sleep_for(1200ms);
                engine.faults().clear();
            });
        return recorded(engine, [&] { return stream(ports); });
    }
    std::unique_ptr<replay::ReplayKernel> openRecord(bool fast) {
        std::string problem;
        auto kernel = replay::ReplayKernel::make(replay::loadRecord(mPath), fast, problem);
        EXPECT_EQ(problem, "");
        return kernel;
    }

    Utils::ULog::RingULogger mLog{1000};
    const std::string mPath = testing::TempDir() + "corvane-replay-" + std::to_string(getpid());

private:
    static void streamOn(client::SceneSession& session, Outcome& outcome) {
        outcome.codes.push_back(session.start());
        int result = 0;
        const auto take = [&](client::SessionRequest& request) {
            for (size_t i = 0; i < request.frameCount(); ++i)
                outcome.results.push_back(request.frame(i).result());
        };
        for (int queued = 0; queued < 20 && result == 0; ++queued) {
            while ((result = session.submit({})) == -EAGAIN && session.wait(2s, take) == 0) {
            }
            outcome.codes.push_back(result);
        }
        while (session.wait(500ms, take) == 0) {
        }
        outcome.codes.push_back(session.stop(500ms));
    }
};

struct Failure {
    const char* name;
    const char* fault;
    size_t ports;
};

void PrintTo(const Failure& failure, std::ostream* out) {
    *out << failure.name;
}

class ReplayedFailure : public ReplayTest, public testing::WithParamInterface<Failure> {};

TEST_P(ReplayedFailure, FailsTheSameWayAgain) {
    const Outcome outcome = recordStream(GetParam().ports, GetParam().fault);
    // The second time with other numbers for the descriptors: the lowest ones are taken.
    std::vector<UniqueFd> taken;
    for (const bool fast : {false, true}) {
        for (int i = 0; i < 5 && fast; ++i)
            taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        const auto kernel = openRecord(fast);
        const sim::ScopedKernel installed(*kernel);
        EXPECT_EQ(stream(GetParam().ports), outcome) << fast;
        EXPECT_EQ(kernel->differences(), 0U);
        EXPECT_EQ(kernel->callsLeft(), 0U) << kernel->nextCall();
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, ReplayedFailure,
                         testing::Values(Failure{"None", "", 1}, Failure{"NoneOfSeveral", "", 4},
                                         Failure{"RefusedBuffer", "qbuf -12 7 vengine-input", 3},
                                         Failure{"ErrorFlag", "buffer -5 5 vengine-main", 2},
                                         Failure{"FailedDequeue", "dqbuf -5 5 vengine-main", 2},
                                         Failure{"RefusedFormat", "s_fmt -22 1 vengine-main", 2},
                                         Failure{"FewBuffers", "reqbufs 2 1 vengine-main", 2},
                                         Failure{"RefusedStreamOn", "streamon -32 1 vengine-input",
                                                 2},
                                         Failure{"HungStreamOff", "streamoff hang", 2}),
                         [](const auto& tried) { return tried.param.name; });

TEST_F(ReplayTest, KeepsALostCompletionLost) {
    sim::VirtualEngine engine;
    engine.device().hold();
    engine.device().completeNext(5);
    const Outcome outcome = recorded(engine, [&] { return stream(2); });
    EXPECT_EQ(outcome.results.size(), 10U);
    const auto kernel = openRecord(true);
    const sim::ScopedKernel installed(*kernel);
    EXPECT_EQ(stream(2), outcome);
    EXPECT_EQ(kernel->differences(), 0U);
}

TEST_F(ReplayTest, TellsWhereACallParts) {
    recordStream(2, "");
    const auto kernel = openRecord(true);
    const sim::ScopedKernel installed(*kernel);
    const Outcome outcome = stream(2, 128);
    EXPECT_THAT(outcome.lines,
                testing::Contains(AllOf(HasSubstr("differs from the record in pix_mp.width, 64 in "
                                                  "the record: VIDIOC_S_FMT("),
                                        HasSubstr("width=128"), HasSubstr("the record has"))));
    EXPECT_GT(kernel->differences(), 0U);
    EXPECT_EQ(System::Open("/dev/other", O_RDWR, 1), -ENOENT);
    const auto lines = mLog.take();
    ASSERT_FALSE(lines.empty());
    EXPECT_THAT(lines.back().text, testing::EndsWith(" the record: open(\"/dev/other\", O_RDWR)"));
}

TEST_F(ReplayTest, DeliversBuffersOfNoRequestToWhoPolls) {
    sim::DeviceDesc description;
    description.addVideoNode("node",
                             {V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole});
    sim::VirtualEngine engine(description);
    const auto run = [](const std::function<void(int)>& await) {
        const int fd = System::Open("/dev/video0", O_RDWR | O_NONBLOCK, 1);
        v4l2_requestbuffers request{1, V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_MEMORY_DMABUF, 0, 0, {}};
        EXPECT_EQ(System::Ioctl(fd, static_cast<int>(VIDIOC_REQBUFS), &request, 0), 0);
        UniqueFd memory(memfd_create("test", MFD_CLOEXEC));
        EXPECT_EQ(ftruncate(memory.get(), 1 << 20), 0);
        v4l2_buffer buffer{};
        buffer.type = request.type;
        buffer.memory = request.memory;
        EXPECT_EQ(System::Ioctl(fd, static_cast<int>(VIDIOC_STREAMON), &request.type, 0), 0);
        for (int i = 0; i < 2; ++i) {
            buffer.m.fd = memory.get();
            EXPECT_EQ(System::Ioctl(fd, static_cast<int>(VIDIOC_QBUF), &buffer, 0), 0);
            await(fd);
            EXPECT_EQ(System::Ioctl(fd, static_cast<int>(VIDIOC_DQBUF), &buffer, 0), 0);
        }
        return System::Close(fd, 1);
    };
    recorded(engine, [&] { return run([](int) { std::this_thread::sleep_for(50ms); }); });
    const auto kernel = openRecord(false);
    const sim::ScopedKernel installed(*kernel);
    run([](int fd) {
        const auto begin = std::chrono::steady_clock::now();
        pollfd node{fd, POLLIN, 0};
        EXPECT_EQ(poll(&node, 1, 10000), 1);
        EXPECT_GT(std::chrono::steady_clock::now() - begin, 20ms);
    });
    EXPECT_EQ(kernel->differences(), 0U);
    EXPECT_EQ(kernel->callsLeft(), 0U);
}

TEST_F(ReplayTest, KnowsTheDriversFencesOneByOne) {
    const auto run = [](bool swapped) {
        const int fd = System::Open("/dev/v4l-subdev0", O_RDWR, 1);
        int fences[3] = {-1, -1, -1};
        kvxdip_fence list{3, reinterpret_cast<uintptr_t>(fences)};
        EXPECT_EQ(System::Ioctl(fd, static_cast<int>(KVXDIP_IOC_ADD_FENCE), &list, 0), 0);
        pollfd signal{fences[2], POLLIN, 0};
        EXPECT_GE(poll(&signal, 1, 0), 0);
        EXPECT_EQ(signal.revents & POLLNVAL, 0);
        if (swapped)
            std::swap(fences[0], fences[1]);
        EXPECT_EQ(System::Ioctl(fd, static_cast<int>(KVXDIP_IOC_DEL_FENCE), &list, 0), 0);
        for (const int fence : fences)
            close(fence);
        return System::Close(fd, 1);
    };
    sim::VirtualEngine engine;
    recorded(engine, [&] { return run(false); });
    const replay::Record record = replay::loadRecord(mPath);
    ASSERT_EQ(record.calls.size(), 4U);
    EXPECT_THAT(replay::callText(record.calls[1], record.machine),
                testing::MatchesRegex(".*ADD_FENCE.*count=3.*fds=\\[[0-9]+, [0-9]+, [0-9]+\\].*"));
    for (const bool swapped : {false, true}) {
        const auto kernel = openRecord(true);
        const sim::ScopedKernel installed(*kernel);
        run(swapped);
        EXPECT_EQ(kernel->differences(), swapped ? 1U : 0U);
    }
}

TEST_F(ReplayTest, RefusesWhatLacksCallsOrIsAnotherMachines) {
    std::string problem;
    replay::Record record = replay::loadRecord("/nonexistent");
    EXPECT_EQ(replay::ReplayKernel::make(std::move(record), false, problem), nullptr);
    EXPECT_EQ(problem, "No such file or directory");
    recordStream(1, "");
    record = replay::loadRecord(mPath);
    record.machine.longSize = 4;
    EXPECT_EQ(replay::ReplayKernel::make(std::move(record), false, problem), nullptr);
    EXPECT_THAT(problem, HasSubstr("it can be shown, not replayed"));
}

TEST_F(ReplayTest, ItsStoryKnowsPortsRequestsAndPhases) {
    recordStream(3, "buffer -5 5 vengine-main");
    const replay::Story story = replay::tellStory(replay::loadRecord(mPath));
    ASSERT_EQ(story.cycles.size(), 20U);
    size_t flawed = 0;
    for (const replay::Cycle& cycle : story.cycles) {
        EXPECT_TRUE(cycle.isDone());
        EXPECT_LT(cycle.queuedNs, cycle.readyNs);
        EXPECT_LT(cycle.readyNs, cycle.doneNs);
        EXPECT_EQ(cycle.buffers.size(), 3U);
        flawed += cycle.isFlawed() ? 1 : 0;
    }
    EXPECT_EQ(flawed, 1U);
    EXPECT_THAT(story.objects[story.cycles[0].buffers[0].node].label(), HasSubstr("/dev/video"));
}

class TraceToolTest : public ReplayTest {
protected:
    static std::string run(const std::string& command, int code = 0) {
        const test::Ran ran = test::runShell("exec 2>&1; " + command);
        EXPECT_EQ(ran.code, code) << command << '\n' << ran.output;
        return ran.output;
    }
    const std::string mStream = CORVANE_STREAM " --quiet --size 64x16 --ports 2 --requests 30 ";
    const std::string mTrace = CORVANE_TRACE " ";
};

TEST_F(TraceToolTest, ARunIsRecordedShownAndReplayed) {
    run(mStream + "--sim --record " + mPath);
    EXPECT_THAT(run(CORVANE_STREAM " --replay " + mPath + " --fast"),
                HasSubstr("0 failed, 0 lost"));
    EXPECT_THAT(run(CORVANE_STREAM " --fast --requests 29 --replay " + mPath, 1),
                HasSubstr("the run is not the recorded one"));

    EXPECT_THAT(
        run(mTrace + "show --port vengine-input --call DQBUF " + mPath + " | grep -c DQBUF"),
        "30\n");
    EXPECT_THAT(run(mTrace + "show --failed --call ENUM " + mPath),
                HasSubstr("= -22 EINVAL (Invalid argument)"));
    const std::string parse = " | python3 -c 'import json,sys; d=json.load(sys.stdin); ";
    EXPECT_EQ(run(mTrace + "json --call VIDIOC_QBUF --port vengine-main " + mPath + parse +
                  R"(print(len(d["calls"]), d["calls"][0]["in"]["memory"])')"),
              "30 DMABUF\n");
    EXPECT_EQ(run(mTrace + "timeline " + mPath + parse +
                  R"(print(sum(e["name"]=="device" for e in d["traceEvents"]))')"),
              "30\n");
    EXPECT_THAT(
        run(mTrace + "report " + mPath),
        AllOf(HasSubstr("<b>30</b>requests queued"), HasSubstr("<td>vengine-input</td>"),
              HasSubstr("<svg"), testing::Not(HasSubstr("http")), testing::EndsWith("</html>\n")));
    run(mTrace + "show /dev/null", 2);
    run("head -c 20000 " + mPath + " > " + mPath + ".cut; " + mTrace + "show " + mPath +
            ".cut; code=$?; rm " + mPath + ".cut; exit $code",
        1);
}

TEST_F(TraceToolTest, AReportIsLaidOutByABrowser) {
    if (system("command -v chromium >/dev/null") != 0)
        GTEST_SKIP() << "no chromium";
    run(mStream + "--sim --record " + mPath);
    const std::string page = mPath + ".html";
    run(mTrace + "report " + mPath + " -o " + page);
    // A script in the frame that measures: the page has none itself.
    std::ofstream(page, std::ios::app)
        << "<script>document.title=document.querySelectorAll('svg rect').length+' '+"
           "(document.documentElement.scrollWidth<=innerWidth)</script>";
    const std::string probe =
        run("timeout 100 chromium --headless --no-sandbox --disable-gpu --window-size=1000,800 "
            "--dump-dom file://" +
            page + " 2>/dev/null | grep -o '<title>[^<]*' | head -n 1");
    unlink(page.c_str());
    EXPECT_EQ(probe, "<title>40 true\n");
}

}  // namespace
}  // namespace NSVista::NSCorvane
