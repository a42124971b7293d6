#include <corvane/platform/Service.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/Trace.h>
#include <corvane/platform/ULog.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "TraceBackend.h"

using namespace NSVista::NSCorvane;

namespace {

/** Reads a trace file strictly and prints what it holds, a line per fact. */
constexpr const char* kReader = R"(
import collections, json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
depth, last, count = collections.Counter(), {}, collections.Counter()
names = {e["args"]["name"] for e in events if e["ph"] == "M"}
for e in events:
    count[e["ph"]] += 1
    if e["ph"] in "BE":
        depth[e["tid"]] += 1 if e["ph"] == "B" else -1
        if depth[e["tid"]] < 0 or e["ts"] < last.get(e["tid"], 0):
            print("disorder in", e)
        last[e["tid"]] = e["ts"]
    elif e["ph"] == "C":
        print("counter", e["name"], e["args"]["value"])
    elif e["ph"] in "be":
        print("async", e["ph"], ascii(e["name"]), e["id"], e["cat"] == e["name"])
print("sections", count["B"], count["E"], "open", sum(depth.values()), "worker" in names)
)";

class TraceTest : public testing::Test {
protected:
    ~TraceTest() override {
        trace::stop();
        unlink(mPath.c_str());
    }
    std::string read() const {
        std::string text;
        const std::string command = "python3 -c '" + std::string(kReader) + "' " + mPath + " 2>&1";
        FILE* const pipe = popen(command.c_str(), "r");
        char piece[256];
        while (pipe != nullptr && fgets(piece, sizeof(piece), pipe) != nullptr)
            text += piece;
        EXPECT_EQ(pclose(pipe), 0);
        return text;
    }

    const std::string mPath = testing::TempDir() + "corvane-trace-" + std::to_string(getpid());
};

TEST_F(TraceTest, CostsNothingAndFormatsNothingWithoutABackend) {
    EXPECT_EQ(trace::start("none"), 0);
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    bool formatted = false;
    const auto name = [&] {
        formatted = true;
        return TraceName("x");
    };
    { TraceSection section(5, name); }
    EXPECT_EQ(trace::start(mPath.c_str()), 0);
    set_corvane_enabled_tracebits(~(uint64_t{1} << 5));
    { TraceSection section(5, name); }
    EXPECT_FALSE(formatted);
    set_corvane_enabled_tracebits(~uint64_t{0});
    { TraceSection section(5, name); }
    EXPECT_TRUE(formatted);
    EXPECT_EQ(trace::start("/nonexistent/trace"), -ENOENT);
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");

    EXPECT_STREQ(TraceName("%s", std::string(127, 'x').c_str()).text(),
                 std::string(127, 'x').c_str());
    EXPECT_STREQ(TraceName("%s", std::string(128, 'x').c_str()).text(), "");
}

TEST_F(TraceTest, WritesAValidFileWhateverIsTraced) {
    TraceSection before(5, "begun before the trace");
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    before.end();
    atrace_begin_body("left open");
    atrace_async_begin_body("quote\" back\\slash \n \xff", -1);
    atrace_async_end_body(nullptr, 7);
    atrace_int_body("count", -3);
    trace::stop();
    atrace_begin_body("after the end");
    EXPECT_EQ(read(),
              "async b 'quote\" back\\\\slash \\n \\xff' -1 True\n"
              "async e '' 7 True\n"
              "counter count -3\n"
              "sections 1 1 open 0 False\n");
}

TEST_F(TraceTest, KeepsTheSectionsOfManyThreads) {
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            customizeThreadReadyToRun("worker", 15);
            for (int i = 0; i < 2000; ++i) {
                TraceSection outer(5, "outer");
                TraceSection inner(6, CORVANE_TRACE_NAME("inner %d", i));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    trace::stop();
    EXPECT_EQ(read(), "sections 16000 16000 open 0 True\n");
}

TEST_F(TraceTest, IsCompleteHoweverTheProcessEnds) {
    testing::FLAGS_gtest_death_test_style = "fast";  // the path is this process's
    const auto traced = [this](auto end) {
        trace::start(mPath.c_str());
        atrace_begin_body("open");
        end();
    };
    EXPECT_EXIT(traced([] { exit(0); }), testing::ExitedWithCode(0), "");
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");
    EXPECT_EXIT(traced([] { __android_log_assert(nullptr, "Tag", "%s", "bad"); }),
                testing::KilledBySignal(SIGABRT), "F \\[Tag\\] bad");
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");
    EXPECT_EXIT(traced([] { NSVista::Utils::terminateService(); }),
                testing::KilledBySignal(SIGTERM), "");
    EXPECT_EQ(read(), "sections 1 0 open 1 False\n");
}

TEST_F(TraceTest, WritesOneMarkerEventPerWrite) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_DIRECT), 0);  // keeps writes apart
    static trace::Backend* const marker = trace::makeMarkerBackend(UniqueFd(fds[1]));
    marker->event(trace::Kind::Begin, "two\nlines", 0);
    marker->event(trace::Kind::End, "", 0);
    marker->event(trace::Kind::AsyncBegin, std::string(2000, 'n').c_str(), 5);
    marker->event(trace::Kind::AsyncEnd, "request", -5);
    marker->event(trace::Kind::Counter, "queued", 8);
    const std::string pid = std::to_string(getpid());
    for (const std::string& expected :
         {"B|" + pid + "|two lines", "E|" + pid, "S|" + pid + "|" + std::string(900, 'n') + "|5",
          "F|" + pid + "|request|-5", "C|" + pid + "|queued|8"}) {
        char text[2048];
        const ssize_t length = ::read(fds[0], text, sizeof(text));
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max<ssize_t>(length, 0))), expected);
    }
    ::close(fds[0]);
}

}  // namespace
