// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/Trace.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "TraceBackend.h"
#include "TraceRing.h"
#include "support/Process.h"

CORVANE_LOG_UNIT("corvane-test")

using namespace NSVista::NSCorvane;
using namespace NSVista::NSCorvane::test;

namespace {

/** Reads a trace file strictly and prints what it holds, a line per fact. */
const std::string kReader = R"(python3 -c '
import collections, json, sys, time
events = json.load(open(sys.argv[1]))["traceEvents"]
depth, last, count = collections.Counter(), {}, collections.Counter()
names = {e["args"]["name"] for e in events if e["ph"] == "M"}
for e in events:
    count[e["ph"]] += 1
    if e["ph"] in "BE":
        depth[e["tid"]] += 1 if e["ph"] == "B" else -1
        if depth[e["tid"]] < 0 or e["ts"] < last.get(e["tid"], 0):
            print("disorder in", e)
        if e["tid"] == 0 or e["pid"] != events[0]["pid"] or e["ts"] > time.monotonic() * 1e6:
            print("of nobody", e)
        last[e["tid"]] = e["ts"]
    elif e["ph"] == "i":
        print("mark", e["name"], "open", sum(depth.values()))
    elif e["ph"] == "C":
        print("counter", e["name"], e["args"]["value"])
    elif e["ph"] in "be":
        print("async", e["ph"], ascii(e["name"]), e["id"], e["cat"] == e["name"])
print("sections", count["B"], count["E"], "open", sum(depth.values()), "worker of a lon" in names)
' )";

class TraceTest : public testing::Test {
protected:
    ~TraceTest() override {
        trace::stop();
        unlink(mPath.c_str());
    }
    std::string read() const { return runShell(kReader + mPath + " 2>&1").output; }

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
    trace::stop();
    EXPECT_FALSE(traceEnabled(5));
    EXPECT_EQ(trace::start("/nonexistent/trace"), -ENOENT);
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");

    EXPECT_STREQ(TraceName("%d %u %zu%%", -5, 6U, size_t{7}).text(), "-5 6 7%");
    EXPECT_STREQ(TraceName("%s-%d|%#x", "n", 2, 10).text(), "n-2|0xa");
    const char* const none = getenv("CORVANE_NO_SUCH_VARIABLE");
    EXPECT_STREQ(TraceName("%s", none).text(), "(null)");
    const std::string longest(127, 'x');
    EXPECT_EQ(TraceName("%s", longest.c_str()).text(), longest);
    EXPECT_STREQ(TraceName("%sx", longest.c_str()).text(), "");
}

TEST_F(TraceTest, WritesAValidFileWhateverIsTraced) {
    TraceSection before(5, "begun before the trace");
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof(name));
    pthread_setname_np(pthread_self(), "worker of a lon");
    for (int i = 0; i < 2; ++i) {  // the second one is empty but for what follows
        ASSERT_EQ(trace::start(mPath.c_str()), 0);
        atrace_int_body("trace", i);
    }
    pthread_setname_np(pthread_self(), name);
    before.end();
    atrace_begin_body("left open");
    atrace_async_begin_body("quote\" back\\slash \n \xff", -1);
    atrace_async_end_body(nullptr, 7);
    atrace_int_body("count", -3);
    trace::stop();
    atrace_begin_body("after the end");
    EXPECT_EQ(read(),
              "counter trace 1\n"
              "async b 'quote\" back\\\\slash \\n \\xff' -1 True\n"
              "async e '' 7 True\n"
              "counter count -3\n"
              "sections 1 1 open 0 True\n");
}

TEST_F(TraceTest, KeepsTheSectionsOfManyThreads) {
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            { TraceSection unnamed(5, "unnamed"); }
            customizeThreadReadyToRun("worker of a long name", 21);
            for (int i = 0; i < 2000; ++i) {
                TraceSection outer(5, "outer");
                TraceSection inner(6, CORVANE_TRACE_NAME("inner %d", i));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    trace::stop();
    EXPECT_EQ(read(), "sections 16004 16004 open 0 True\n");
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
    EXPECT_EXIT(traced([] { CORVANE_FATAL("bad"); }), testing::KilledBySignal(SIGABRT), "bad");
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");
    EXPECT_EXIT(traced([] { NSVista::Utils::terminateService(); }),
                testing::KilledBySignal(SIGTERM), "");
    EXPECT_EQ(read(), "sections 1 0 open 1 False\n");
}

TEST_F(TraceTest, LeavesAFileToItsOwnerAndToItsProcess) {
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    atrace_begin_body("the parent's");
    EXPECT_EQ(inForkedChild([this] {
                  atrace_begin_body("the child's");
                  trace::stop();
                  return trace::start(mPath.c_str()) == -EBUSY ? 5 : 0;
              }),
              5);
    trace::stop();
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");
    struct stat info {};
    stat(mPath.c_str(), &info);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    const std::string link = mPath + "-link";
    ASSERT_EQ(symlink(mPath.c_str(), link.c_str()), 0);
    EXPECT_EQ(trace::start(link.c_str()), -ELOOP);
    unlink(link.c_str());
}

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // no threads in a child

TEST_F(TraceTest, AForkedChildTracesOnItsOwn) {
    const std::string childs = mPath + "-child";
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    EXPECT_EQ(inForkedChild([&childs] {
                  const int result = trace::start(childs.c_str());
                  atrace_begin_body("the child's");
                  trace::stop();
                  return -result;
              }),
              0);
    trace::stop();
    EXPECT_EQ(read(), "sections 0 0 open 0 False\n");
    ASSERT_EQ(rename(childs.c_str(), mPath.c_str()), 0);
    EXPECT_EQ(read(), "sections 1 1 open 0 False\n");
}

#endif

#if !defined(CORVANE_ANDROID)  // there neither the environment nor the kernel's marker is asked

TEST_F(TraceTest, TakesWholePathsFromTheEnvironment) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";  // reads its properties anew
    const std::string folder = testing::TempDir() + std::string(100, 'd');
    mkdir(folder.c_str(), 0700);
    setenv("PERSIST_VENDOR_CAMERA_CORVANE_TRACE", (folder + "/%p").c_str(), 1);
    EXPECT_EXIT(exit(access((folder + '/' + std::to_string(getpid())).c_str(), F_OK)),
                testing::ExitedWithCode(0), "");
    unsetenv("PERSIST_VENDOR_CAMERA_CORVANE_TRACE");
    std::filesystem::remove_all(folder);
}

TEST_F(TraceTest, EndsWithAMarkAtItsLimit) {
    const char* const key = "persist.vendor.camera.corvane.tracelimit";
    NSVista::Utils::Properties::property_set(key, "4000");
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    NSVista::Utils::Properties::property_set(key, nullptr);
    for (int i = 0; i < 10; ++i)  // closed: no room is kept for their ends
        TraceSection section(5, "x");
    for (int i = 0; i < 100; ++i)
        atrace_begin_body("x");
    for (int i = 0; i < 1000 && atrace_get_enabled_tags() != 0; ++i)
        usleep(10000);
    EXPECT_EQ(atrace_get_enabled_tags(), 0U);
    trace::stop();
    EXPECT_LE(std::filesystem::file_size(mPath), 4000U);
    EXPECT_THAT(read(),
                testing::MatchesRegex("mark the trace ends here: its limit is reached open 0\n"
                                      "sections 1[2-9] 1[2-9] open 0 False\n"));
}

TEST_F(TraceTest, StaysValidOnAFullDisk) {
    EXPECT_EQ(inForkedChild([this] {
                  const struct rlimit limit { 300000, 300000 };
                  setrlimit(RLIMIT_FSIZE, &limit);
                  trace::start(mPath.c_str());
                  for (int i = 0; i < 6000; ++i) {
                      TraceSection section(5, "a section with a name of some length");
                      if (i % 1000 == 0)
                          usleep(30000);
                  }
                  trace::stop();
                  return 0;
              }),
              0);
    EXPECT_THAT(read(),
                testing::MatchesRegex("sections [1-9][0-9]+ [1-9][0-9]+ open [01] False\n"));
}

TEST_F(TraceTest, CountsWhatDoesNotFit) {
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    const std::string name(1000, 'x');
    atrace_begin_body("open");
    int events = 0;
    const auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(100))
        atrace_int_body(name.c_str(), ++events);  // faster than they are written
    std::uintmax_t written = 0;
    do {
        written = std::filesystem::file_size(mPath);
        usleep(300000);
    } while (written < 500000 || std::filesystem::file_size(mPath) != written);
    { TraceSection section(5, "after"); }
    atrace_end_body();
    trace::stop();
    const std::string facts = read();
    const auto count = [&facts](const char* text) {
        const std::regex each(text);
        return std::distance(std::sregex_iterator(facts.begin(), facts.end(), each), {});
    };
    const auto counters = count("counter ");
    EXPECT_GT(counters, 400);
    EXPECT_LT(counters, events);
    const auto gaps = count("mark events of a thread are missing here open 0\n");
    EXPECT_GT(gaps, 0);
    EXPECT_LE(gaps, counters / 200) << "each with half a buffer of events before it";
    EXPECT_THAT(facts, testing::HasSubstr("mark " + std::to_string(events - counters) +
                                          " events did not fit and are missing open 0\n"
                                          "sections 2 2 open 0 False\n"));
    EXPECT_EQ(trace::start(mPath.c_str()), 0);
    trace::stop();
    EXPECT_EQ(read(), "sections 0 0 open 0 False\n") << "lost is lost to one trace";
}

TEST_F(TraceTest, TakesBuffersBackAndCountsThreadsWithoutOne) {
    ASSERT_EQ(trace::start(mPath.c_str()), 0);
    for (int round = 0; round < 2; ++round) {
        std::vector<std::thread> threads;
        std::atomic<int> begun{0};
        for (int t = 0; t < 70; ++t) {
            threads.emplace_back([&] {
                atrace_begin_body("left open");
                for (++begun; begun < 70;)
                    std::this_thread::yield();
            });
        }
        for (auto& thread : threads)
            thread.join();
        usleep(50000);
    }
    trace::stop();
    // The main thread may have one.
    EXPECT_THAT(read(),
                testing::MatchesRegex("mark 1[24] events did not fit and are missing open 0\n"
                                      "sections 12[68] 12[68] open 0 False\n"));
}

TEST_F(TraceTest, OpensTheKernelsMarkerWhereThereIsOne) {
    const int result = trace::start("marker");
    EXPECT_EQ(result == 0, atrace_get_enabled_tags() != 0);
    EXPECT_EQ(result == 0, access("/sys/kernel/tracing/trace_marker", W_OK) == 0 ||
                               access("/sys/kernel/debug/tracing/trace_marker", W_OK) == 0);
}

#endif

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
    errno = 0;
    static trace::Backend* const closed = trace::makeMarkerBackend(UniqueFd());
    closed->event(trace::Kind::End, "", 0);
    EXPECT_EQ(errno, 0) << "a write that fails is not the caller's";
}

TEST(Ring, ThatWasFullTakesEventsAgainOnceHalfOfItIsRead) {
    using namespace trace;
    static Rings rings;
    ASSERT_TRUE(rings.prepare());
    Ring* const ring = rings.mine();
    ASSERT_NE(ring, nullptr);
    while (ring->lost() == 0)
        ring->put(Kind{'B'}, "section", 0);
    size_t read = 0;
    size_t readAtFirst = 0;
    ring->drain([&](const trace::Record& record, const char*) {
        const uint64_t lost = ring->lost();
        if (readAtFirst == 0) {
            ring->put(Kind{'E'}, "", 0);
            readAtFirst = ring->lost() == lost ? read : 0;
        }
        read += trace::Record::sizeFor(record.length);
    });
    EXPECT_GE(readAtFirst, Ring::kBytes / 2 - 64);
    EXPECT_LE(readAtFirst, Ring::kBytes / 2 + 64);
    std::string kinds;
    ring->drain(
        [&](const trace::Record& record, const char*) { kinds += static_cast<char>(record.kind); });
    EXPECT_EQ(kinds, "GE");
}

}  // namespace
