// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/Process.h"

namespace NSVista::NSCorvane::test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kStream = CORVANE_STREAM " ";
const std::string kInfo = CORVANE_INFO " ";

/** Its output has both streams. */
Ran runStream(const std::string& arguments) {
    return runShell(kStream + arguments + " 2>&1");
}

/** A folder that goes with its test. */
class ToolsTest : public testing::Test {
protected:
    ToolsTest() { std::filesystem::create_directories(mFolder); }
    ~ToolsTest() override { std::filesystem::remove_all(mFolder); }

    std::string file(const char* name) const { return mFolder + "/" + name; }

    const std::string mFolder = testing::TempDir() + "corvane-tools-" + std::to_string(getpid());
};

TEST_F(ToolsTest, SaysWhyARunStalls) {
    const Ran stalled =
        runShell("exec 2>&1; " + kStream +
                 "--sim --ports 2 --in-flight 1 --latency-us 20000000 --stall-after 1 & "
                 "sleep 0.5; kill -QUIT $!; wait $!");
    EXPECT_EQ(stalled.code, 1);
    const std::string where =
        "<<Stall>> scene corvane-stream STARTED: requests: 1 queued, 0 completed[^\n]*\n"
        "  request 0 .fd [0-9]+.: with the driver for [0-9]+ ms: the driver's turn; buffers "
        "vengine";
    EXPECT_THAT(stalled.output, ContainsRegex("asked by SIGQUIT:\n" + where));
    EXPECT_THAT(stalled.output, ContainsRegex("nothing went on for 1 s:\n" + where));
    EXPECT_THAT(stalled.output, HasSubstr("no request completed for 1 s"));
}

TEST_F(ToolsTest, GoodRunsCountEveryBuffer) {
    for (const char* arguments :
         {"--ports all --in-flight 5 --order random --seed 7", "--ports 3 --worker",
          "--ports vengine-flip,vengine-mask --offset 0 --order reversed", "--ports 7,0,8,5",
          "--ports 0,1 --format YUV420M", "--ports 0,1 --format YM12",
          "--ports 0,1,2 --format vengine-main=YUV420M --size vengine-input=128x32",
          "--ports 8 --control brightness=9 --control vengine-main:brightness=-30@7",
          "--skip 50"}) {
        const Ran result =
            runStream(std::string("--sim --quiet --size 64x48 --requests 60 ") + arguments);
        EXPECT_EQ(result.code, 0) << arguments << '\n' << result.output;
        EXPECT_THAT(result.output, ContainsRegex("60 requests .* 0 failed, 0 lost\n"));
        EXPECT_THAT(result.output, ContainsRegex("vengine-[a-z]+ .* 60 +60 +0 +0\n"));
    }
}

TEST_F(ToolsTest, SavedFramesCanBeTheNextRunsInput) {
    const std::string common = "--sim --quiet --size 64x16 --ports 0,1 --requests ";
    EXPECT_EQ(runStream(common + "3 --save " + file("first")).code, 0);
    const std::string frames = contentOf(file("first/vengine-main.raw"));
    EXPECT_EQ(frames.size(), 3U * 1536);
    EXPECT_EQ(contentOf(file("first/vengine-main.txt")),
              "entity vengine-main\nformat NV12M\nsize 64x16\nframe 1536 bytes\n"
              "plane 0: 1024 bytes, 64 a line\nplane 1: 512 bytes, 64 a line\n");
    const Ran second =
        runStream(common + "5 --skip 1 --input vengine-input=" + file("first/vengine-main.raw") +
                  " --save " + file("second"));
    EXPECT_EQ(second.code, 0) << second.output;
    // Request 0 is skipped, the file's three frames begin anew at request 3.
    EXPECT_TRUE(contentOf(file("second/vengine-main.raw")) ==
                frames.substr(1536) + frames.substr(0, 2 * 1536));
    EXPECT_EQ(runStream(common + "3 --skip 1 --split --save " + file("split")).code, 0);
    EXPECT_TRUE(contentOf(file("split/vengine-main-000001.raw")) +
                    contentOf(file("split/vengine-main-000002.raw")) ==
                frames.substr(1536));
    std::ofstream(file("odd.raw")) << "too short";
    EXPECT_EQ(runStream(common + "1 --input vengine-input=" + file("odd.raw")).code, 2);
}

TEST_F(ToolsTest, AControlOfARequestTakesEffectInItsFrame) {
    EXPECT_EQ(runStream("--sim --quiet --size 64x16 --ports vengine-grey --requests 6 --save " +
                        file("f") +
                        " --control brightness=-64 --control brightness=64@3 "
                        "--control 0x980900=0@4")
                  .code,
              0);
    const std::string frames = contentOf(file("f/vengine-grey.raw"));
    std::vector<int> lumas;  // of the brightest bar, which the frame's number does not touch
    for (size_t frame = 0; frame < 6; ++frame)
        lumas.push_back(static_cast<uint8_t>(frames[frame * 1024 + 64 * 8]));
    const int normal = lumas[5];
    EXPECT_THAT(lumas, testing::ElementsAre(normal - 64, normal - 64, normal - 64,
                                            std::min(255, normal + 64), normal, normal));
}

TEST_F(ToolsTest, ResultsForMachines) {
    const Ran stream = runStream("--sim --quiet --ports 2 --requests 4 --size 64x16 --json");
    EXPECT_THAT(stream.output,
                AllOf(StartsWith(R"({"model":"vengine","good":true,"trouble":"","completed":4,)"
                                 R"("failed":0,"lost":0,)"),
                      HasSubstr(R"({"entity":"vengine-input","format":"NV12M","width":64,)"
                                R"("height":16,"queued":4,"dequeued":4,"broken":0,"lost":0,)"
                                R"("errors":0,"remapped":0}]})")));
    const Ran info = runShell(kInfo + "--sim --json --set-format vengine-main=YUV420M,128x64 " +
                              "--set-link vengine-core:0,vengine-main:0=on " +
                              "--set-link 'vengine-core:2->vengine-mirror:0=on'");
    EXPECT_EQ(info.code, 0);
    EXPECT_THAT(
        info.output,
        AllOf(StartsWith(R"([{"model":"vengine","path":"/dev/media0",)"),
              HasSubstr(R"("format":"YUV420M","width":128,"height":64,"planes":[{"stride":128,)"
                        R"("size":8192},{"stride":64,"size":2048},)"),
              HasSubstr(R"({"name":"Brightness","id":9963776,"value":0,"minimum":-64,)"
                        R"("maximum":64,"step":1,"default":0,"menu":[]})"),
              HasSubstr(R"("sink":"vengine-main:0","enabled":true,"immutable":false})"),
              HasSubstr(R"("sink":"vengine-mirror:0","enabled":true,"immutable":false})")));
    EXPECT_EQ(runShell("echo '" + stream.output + "' | python3 -m json.tool >/dev/null").code, 0);
    EXPECT_THAT(runShell(kInfo + "--version").output, StartsWith("corvane-info 0."));
}

TEST_F(ToolsTest, PosesAsWhatItCaptured) {
    const std::string capture = file("device.json");
    EXPECT_EQ(runShell(kInfo + "--sim --capture " + capture + " 2>&1").output, "");
    const std::string pose = "--sim=" + capture;
    EXPECT_EQ(runShell(kInfo + pose).output, runShell(kInfo + "--sim").output);
    EXPECT_EQ(runShell(kInfo + pose + " --capture -").output, contentOf(capture));
    EXPECT_EQ(runStream(pose + " --ports 2 --requests 3 --quiet").code, 0);
    // All that the engine itself has not: a signal to choose, pads with formats, two queues. Of the
    // sizes that a capture tries, the first says how each node answers all.
    const std::string rich = "--sim=" CORVANE_RICH_DEVICE;
    const std::regex others(R"(,\n {7}\[[0-9,]+\]|\s)");
    EXPECT_EQ(std::regex_replace(runShell(kInfo + rich + " --capture -").output, others, ""),
              std::regex_replace(contentOf(CORVANE_RICH_DEVICE), others, ""));
    EXPECT_THAT(runShell(kInfo + rich).output,
                AllOf(ContainsRegex("input  1    HDMI 0 +\\* +1280x720p 60\n"),
                      HasSubstr("0x2006      640x480"), HasSubstr("video output")));
    // A serial number stays at home unless it is asked for.
    std::string known = contentOf(capture);
    known.insert(known.find("\"bus\""), "\"serial\":\"0815\", ");
    std::ofstream(capture) << known;
    EXPECT_THAT(runShell(kInfo + pose + " --capture -").output, Not(HasSubstr("0815")));
    EXPECT_THAT(runShell(kInfo + pose + " --capture - --with-identity").output, HasSubstr("0815"));
}

TEST_F(ToolsTest, WhatCannotBeWrittenIsExitCode1) {
    const char* const lost = "corvane-[a-z]+: output was lost: No space left on device\n";
    const std::pair<std::string, const char*> cases[] = {
        {kStream + "--sim --requests 3 2>&1 >/dev/full", lost},
        {kInfo + "--sim 2>&1 >/dev/full", lost},
        {kInfo + "--sim --dot /dev/full 2>/dev/null", ""},
        {kInfo + "--sim --capture /dev/full 2>/dev/null", ""},
        {kStream + "--sim --ports 1 --requests 3 --quiet --snapshot /dev/full",
         "3 requests .* 0 failed, 0 lost\n"},
    };
    for (const auto& [command, output] : cases) {
        const Ran ran = runShell(command);
        EXPECT_EQ(ran.code, 1) << command;
        EXPECT_THAT(ran.output, ContainsRegex(output)) << command;
    }
}

TEST_F(ToolsTest, ShowsPicturesStateAndEventsOfARun) {
    const Ran result = runStream("--sim --quiet --requests 5 --ports 4 --dump --events " +
                                 ("--snapshot " + file("shot.png")));
    EXPECT_EQ(result.code, 0) << result.output;
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("frame sync: frame 4 at "),
                      HasSubstr("<<Scene>> state=STARTED #Request(Queued,Done)=(5,5)"),
                      HasSubstr("<<StreamPipe>> corvane-stream, buffers from memory files")));
    // Three pictures in two columns, or one row; the size stands in the file's first chunk.
    const std::string png = contentOf(file("shot.png"));
    EXPECT_THAT(png.substr(0, 16), StartsWith(std::string("\x89PNG\r\n\x1a\n")));
    EXPECT_EQ(png.substr(16, 8), std::string("\x00\x00\x04\x10\x00\x00\x01\x5a", 8));
}

TEST_F(ToolsTest, ListsDevicesTheSameWayInBothTools) {
    const Ran info = runShell("LC_ALL=C " + kInfo + "--sim --subdev vengine-subdev --dump");
    EXPECT_EQ(info.code, 0);
    EXPECT_THAT(
        info.output,
        AllOf(HasSubstr("vengine  /dev/media0\n  driver     vengine 6."),
              HasSubstr("Topology: 11 entities, 10 links\n"),
              HasSubstr("  |  |- pad 5 sink   <-- vengine-tuning:0     enabled, immutable\n"),
              HasSubstr("  `- vengine-mask      video node  /dev/video8\n"),
              HasSubstr("  vengine-mirror    2     /dev/video2  video capture, multi-planar  "
                        "YUV420M  320x240  320 + 160 + 160  76,800 + 19,200 + 19,200\n"),
              HasSubstr("  vengine-stats     3     /dev/video3  metadata capture             "
                        "VEST     -        -                64\n"),
              HasSubstr("vengine-grey      Brightness  0x980900  0            0  -64 to 64\n"),
              HasSubstr("brightness      0  -64 to 64, default 0\n"), HasSubstr("\nState\n"),
              HasSubstr("<<DeviceEnumerator>> "), HasSubstr("<<DefaultSubDeviceProvider>> ")));
    const Ran list = runShell("LC_ALL=C " + kStream + "--sim --list");
    EXPECT_EQ(list.code, 0);
    EXPECT_THAT(info.output, StartsWith(list.output));

    std::istringstream narrow(runShell("LC_ALL=C COLUMNS=60 " + kInfo + "--sim").output);
    for (std::string line; std::getline(narrow, line);)
        EXPECT_LE(line.size(), 60U) << line;
}

TEST_F(ToolsTest, ATerminalGetsALiveViewThatLeavesNothing) {
    const Ran result =
        runShell("SHELL=/bin/sh script -qec 'stty cols 50; " + kStream +
                 "--sim --ports 2 --requests 300 --size 64x16 --latency-us 5000 --in-flight 1' "
                 "/dev/null </dev/null");
    EXPECT_EQ(result.code, 0);
    // A head and a line a port, cut to the terminal; then back up by as many lines, and cleared.
    EXPECT_THAT(
        result.output,
        AllOf(ContainsRegex("\\[#*\\.+\\] [0-9]+ of 300 requests, [0-9]+ a seco?n?d?,?\033\\[K"),
              ContainsRegex("  vengine-main +[0-9]+/s  [01] in flight   0 bad \033\\[K\r\n"
                            "  vengine-input "),
              HasSubstr("\r\033[3A\033[J"), ContainsRegex("300 requests .* 0 failed, 0 lost")));
}

TEST_F(ToolsTest, WatchTellsOfDevicesUntilItIsInterrupted) {
    EXPECT_EQ(runShell("timeout -s INT 0.5 " + kInfo + "--sim --watch; echo ended $?").output,
              "there /dev/media0 vengine\nended 124\n");
}

TEST_F(ToolsTest, DrawsTheTopologyForGraphviz) {
    const Ran piped = runShell(kInfo + "--sim --dot");
    EXPECT_EQ(piped.code, 0);
    EXPECT_THAT(piped.output,
                AllOf(StartsWith("digraph media {\n"), HasSubstr("<b>vengine-core</b>"),
                      HasSubstr("NV12M 320x240"), ContainsRegex(":p0:e -> [^\n]*:p9:w .penwidth=2"),
                      ContainsRegex("style=dashed"), testing::EndsWith("  }\n}\n")));
    EXPECT_EQ(runShell(kInfo + "--sim --dot " + file("graph.dot")).code, 0);
    EXPECT_EQ(contentOf(file("graph.dot")), piped.output);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
