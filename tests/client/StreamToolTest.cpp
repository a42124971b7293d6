#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace {

using testing::ContainsRegex;

struct Outcome {
    int code;
    std::string output;  ///< both streams
};

Outcome runTool(const std::string& arguments) {
    FILE* const tool = popen((CORVANE_STREAM " " + arguments + " 2>&1").c_str(), "r");
    Outcome result{-1, {}};
    std::array<char, 512> text{};
    while (fgets(text.data(), text.size(), tool) != nullptr)
        result.output += text.data();
    const int status = pclose(tool);
    if (WIFEXITED(status))
        result.code = WEXITSTATUS(status);
    return result;
}

TEST(StreamToolTest, BadUseIsOneLineAndExitCode2) {
    for (const char* arguments :
         {"--bogus", "--model nothing", "--sim --model nothing", "--sim --ports nobody",
          "--sim --ports 0", "--sim --requests -3", "--sim --ports 10", "--sim --ports 3,3",
          "--sim --in-flight 0", "--sim --size 5", "--sim --buffers 2", "--latency-us 5",
          "--sim --trace /dev/null/none.json"}) {
        const Outcome result = runTool(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_THAT(result.output, ContainsRegex("^corvane-stream: [^\n]*\n$")) << arguments;
    }
}

TEST(StreamToolTest, GoodRunsCountEveryBuffer) {
    for (const char* arguments :
         {"--ports all --in-flight 5 --order random --seed 7", "--ports 3 --worker",
          "--ports vengine-flip,vengine-mask --offset 0 --order reversed", "--ports 7,0,8,5"}) {
        const Outcome result =
            runTool(std::string("--sim --quiet --size 64x48 --requests 60 ") + arguments);
        EXPECT_EQ(result.code, 0) << arguments << '\n' << result.output;
        EXPECT_THAT(result.output, ContainsRegex("60 requests .* 0 failed, 0 lost\n"));
        EXPECT_THAT(result.output, ContainsRegex("vengine-[a-z]+ .* 60 +60 +0\n"));
    }
}

TEST(StreamToolTest, FailedRunIsExitCode1) {
    const Outcome result = runTool("--sim --ports 1 --buffers 40");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.output, ContainsRegex("the scene cannot be set up: Cannot allocate memory"));
}

}  // namespace
