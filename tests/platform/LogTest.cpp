// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/UniqueFd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "support/Capture.h"
#include "support/Process.h"

CORVANE_LOG_UNIT("corvane-50%Test")

using testing::HasSubstr;

#define X64 "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
#define X1024 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64

namespace NSVista::NSCorvane::test {
namespace {

using namespace Utils::ULog;

const uint32_t kConfiguredMask = ULogger::sNormalDetailsMask;  ///< before a test sets it

struct FlushTeller : ULogger {
    void log(uint32_t, const char*, int, const char*, size_t) override {}
    void flush(int wait) override { fprintf(stderr, "flush %d\n", wait); }
};

class LogTest : public testing::Test {
protected:
    LogTest() {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        ULogger::install(&mRing);
        set(3, 5, ~0U);
    }
    ~LogTest() override {
        ULogger::install(nullptr);
        set(2, 2, ~0U);
    }
    static void set(uint32_t mode, uint32_t level, uint32_t mask) {
        ULogger::sMode = mode;
        ULogger::sDetailsLevel = level;
        ULogger::sNormalDetailsMask = mask;
    }
    template <class Log>
    static std::string printed(Log log) {
        testing::internal::CaptureStderr();
        log();
        return testing::internal::GetCapturedStderr();
    }

    RingULogger mRing{8};
};

TEST_F(LogTest, GatesBySeverityAndMask) {
    std::make_unique<Gates>().reset();  // a library that was unloaded
    struct {
        uint32_t level, mask;
        const char* levels;
    } const cases[] = {
        {0, ~0U, "E"},           {2, ~0U, "EW"},        {3, ~0U, "EWI"},          {4, ~0U, "EWIK"},
        {5, 0x8002000, "EWIKD"}, {6, ~0x2000U, "EWIK"}, {6, ~0x8000000U, "EWIK"},
    };
    for (const auto& c : cases) {
        set(3, c.level, c.mask);
        size_t evaluated = 0;
        std::istringstream lines(printed([&] {
            CORVANE_LOGE("%zu", ++evaluated);
            CORVANE_LOGW("%zu", ++evaluated);
            CORVANE_LOGI("%zu", ++evaluated);
            CORVANE_LOGK("%zu  #DECKEY", ++evaluated);
            CORVANE_LOGD("%zu", ++evaluated);
        }));
        std::string printed;
        for (std::string line; std::getline(lines, line);)
            printed += line[0];
        std::string unified;
        for (const auto& line : mRing.take())
            unified += " EWIKDV"[line.level];
        EXPECT_EQ(printed, c.levels);
        EXPECT_EQ(unified, c.levels);
        EXPECT_EQ(evaluated, unified.size());
    }
}

TEST_F(LogTest, WritesToTheSinksThatAreOn) {
    for (const uint32_t mode : {0U, 1U, 2U, 4U, 8U, 9U}) {
        SCOPED_TRACE(mode);
        set(mode, 5, ~0U);
        EXPECT_EQ(printed([] { CORVANE_LOGI("x"); }).empty(), (mode & 1) == 0);
        EXPECT_EQ(mRing.take().empty(), (mode & 0xA) == 0);
    }
    set(1, 5, ~0U);
    g_logInfoLv[CAM_DEBUG_INFO].flags = 0x7f;
    EXPECT_EQ(printed([] { CORVANE_LOGI("x"); }), "");
    g_logInfoLv[CAM_DEBUG_INFO].flags = 0x80;
}

TEST_F(LogTest, ComposesLinesWithPercentSigns) {
    const auto log = [] {
        errno = ENODEV;
#line 70 "/build/50%d/50%s.cpp"
        CORVANE_LOGE("%d%% of %s", 7, "%n");
        EXPECT_EQ(errno, ENODEV);
    };
    EXPECT_EQ(printed(log),
              "E [corvane-50%Test] 50%s.cpp:70 operator()() [operator()] 7% of %n "
              "(operator()){#70:/build/50%d/50%s.cpp}\n");
#line 107 "LogTest.cpp"
    const auto lines = mRing.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].module, 0x8002001U);
    EXPECT_EQ(lines[0].tag, "corvane-50%Test");
    EXPECT_EQ(lines[0].text, "[operator()] 7% of %n");
}

TEST_F(LogTest, CutsTheUnifiedLineAndDropsACutComposition) {
    EXPECT_EQ(printed([] { CORVANE_LOGI(X1024); }), "");
    const std::string text(70000, 'y');
    const std::string line = printed([&] { CORVANE_LOGI("%s", text.c_str()); });
    EXPECT_EQ(line.size(), 65536U);  // the longest line of the debug print
    EXPECT_EQ(line.back(), '\n');
    for (const size_t length : {4095, 4096, 4097}) {
        const std::string whole(length, 'z');
        EXPECT_EQ(printed([&] { log_dbg_print("", CAM_DEBUG_ERROR, "%s", whole.c_str()); }),
                  whole + '\n');
    }
    const auto lines = mRing.take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text.size(), 1023U);
    EXPECT_EQ(lines[1].text.size(), 1023U);
}

TEST_F(LogTest, PrintsDumpsAndKeepsTheNewestLines) {
    android::LogPrinter printer("Tag", CAM_DEBUG_WARNING, "> ");
    EXPECT_EQ(printed([&] { printer.printFormatLine("%d%%", 5); }), "W [Tag] > 5%\n");
    ULogPrinter unified(7, "Tag", kVerbose, "> ");
    for (int i = 0; i < 10; ++i)
        unified.printFormatLine("%d", i);
    const auto lines = mRing.take();
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_EQ(lines.front().text, "> 2");
    EXPECT_EQ(lines.back().text, "> 9");

    // Taken out: the ring begins anew, and goes round twice.
    for (int i = 12; i < 29; ++i)
        unified.printLine(std::to_string(i).c_str());
    const auto later = mRing.take();
    ASSERT_EQ(later.size(), 8U);
    EXPECT_EQ(later.front().text, "> 21");
    EXPECT_EQ(later.back().text, "> 28");
}

/** Standard error is a pipe while it lives. */
class StderrPipe {
public:
    StderrPipe() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reader = UniqueFd(ends[0]);
        dup2(UniqueFd(ends[1]).get(), STDERR_FILENO);
    }
    ~StderrPipe() { dup2(mSaved.get(), STDERR_FILENO); }
    std::string read() const {
        std::string text(size_t{1} << 20, '\0');
        const ssize_t length = ::read(reader.get(), text.data(), text.size());
        return text.substr(0, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    }

    UniqueFd reader;

private:
    const UniqueFd mSaved{dup(STDERR_FILENO)};
};

TEST_F(LogTest, SurvivesAClosedPipeAndKeepsErrno) {
    struct Spoiler : ULogger {
        void log(uint32_t, const char*, int, const char*, size_t) override { errno = EXDEV; }
    } spoiler;
    StderrPipe pipe;
    pipe.reader.reset();
    for (const uint32_t mode : {1U, 2U, 3U}) {
        set(mode, 2, 0);
        ULogger::install(mode == 3 ? &spoiler : nullptr);
        errno = ENODEV;
        CORVANE_LOGW("nobody reads this");
        EXPECT_EQ(errno, ENODEV);
    }
    sigset_t pending;
    sigset_t blocked;
    sigpending(&pending);
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE) || sigismember(&blocked, SIGPIPE));
}

TEST_F(LogTest, DropsAndCountsWhatNobodyReads) {
    const std::string text(1000, 'x');
    ULogger::install(nullptr);
    set(2, 2, 0);
    CORVANE_LOGW("after this line nothing is missing");
    StderrPipe pipe;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 500; ++i)
        CORVANE_LOGW("%s", text.c_str());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    const std::string kept = pipe.read();
    const auto lines = std::count(kept.begin(), kept.end(), '\n');
    EXPECT_GT(lines, 30);
    CORVANE_LOGW("again");
    EXPECT_THAT(pipe.read(), testing::MatchesRegex("\\(" + std::to_string(500 - lines) +
                                                   " log lines were dropped\\)\n[^\n]*again\n"));
    CORVANE_LOGW("and on");
    EXPECT_THAT(pipe.read(), testing::MatchesRegex("[0-9][^\n]*and on\n")) << "told once";
    std::string numbers;
    while (numbers.size() < 10000)  // longer than what a pipe takes at once
        numbers += std::to_string(numbers.size()) + ' ';
    log_dbg_print("", CAM_DEBUG_ERROR, "%s", numbers.c_str());
    EXPECT_TRUE(pipe.read().ends_with(numbers + '\n'));
}

TEST_F(LogTest, PrintsMicroseconds) {
    EXPECT_EQ(convertToFormattedLogTime({0, 0}), "-");
    EXPECT_THAT(convertToFormattedLogTime({86400 * 20, 7123999}),
                testing::MatchesRegex("01-2[0-9] [0-2][0-9]:[0-5][0-9]:00[.]007123"));
}

TEST_F(LogTest, AppendsToAFileOfItsOwner) {
    const std::string path = testing::TempDir() + "corvane-log-" + std::to_string(getpid());
    {
        const auto file = FileULogger::open(path.c_str());
        ASSERT_NE(file, nullptr);
        for (int level = kError; level <= kVerbose; ++level)
            file->log(0, "Tag", level, "first and more", 5);
        file->flush(1);
    }
    EXPECT_EQ(symlink(path.c_str(), (path + "-link").c_str()), 0);
    EXPECT_EQ(FileULogger::open((path + "-link").c_str()), nullptr);
    EXPECT_EQ(errno, ELOOP);
    unlink((path + "-link").c_str());
    setenv("PERSIST_VENDOR_KVX_CAMERA_ULOG_FILE", path.c_str(), 1);
    setenv("PERSIST_VENDOR_KVX_CAMERA_ULOG_DETAILSMASK", "5", 1);
    const auto logsInAProcessOfItsOwn = [] {
        ULogger::install(nullptr);
        CORVANE_LOGI("second");
        exit(static_cast<int>(kConfiguredMask));
    };
    EXPECT_EXIT(logsInAProcessOfItsOwn(), testing::ExitedWithCode(5), "");
    unsetenv("PERSIST_VENDOR_KVX_CAMERA_ULOG_DETAILSMASK");
    unsetenv("PERSIST_VENDOR_KVX_CAMERA_ULOG_FILE");
    struct stat info {};
    stat(path.c_str(), &info);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    const std::string text = contentOf(path);
    unlink(path.c_str());
    const std::string stamp =
        "[0-9][0-9]-[0-9][0-9] [0-9:]*[.][0-9][0-9][0-9][0-9][0-9][0-9] [0-9]+ [0-9]+ ";
    std::string lines;
    for (const char letter : std::string("EWIKDV"))
        lines += stamp + letter + " Tag: first\n";
    EXPECT_THAT(text,
                testing::MatchesRegex(lines + stamp + "I corvane-50%Test: .operator... second\n"));
}

#if defined(CORVANE_CHECK_RELOCK)
TEST_F(LogTest, EndsAThreadThatLocksWhatItHolds) {
    Mutex mutex;
    const auto relock = [&]() CORVANE_NO_THREAD_SAFETY_ANALYSIS {
        const MutexLock lock(mutex);
        mutex.lock();
    };
    ULogger::install(nullptr);
    EXPECT_EXIT(relock(), testing::KilledBySignal(SIGABRT), "locks again what it holds");
    // Other threads wait, and so does the same one when it has given the mutex back.
    MutexLock lock(mutex);
    lock.unlock();
    lock.lock();
}
#endif

TEST_F(LogTest, FatalErrorsFlushAndAbortWithTheirLocation) {
    for (const uint32_t mode : {0U, 1U, 2U, 3U}) {
        const auto die = [mode] {
            FlushTeller teller;
            ULogger::install(&teller);
            set(mode, 2, 0);
            CORVANE_FATAL("Bad fd. ret=%d", -5);
        };
        std::string told = (mode & 1) != 0 ? "E [^\n]*\n" : "";
        told += (mode & 2) != 0 ? "flush 1\n" : "";
        told += "F .corvane-50%Test. .operator[(][)]. Bad fd. ret=-5 .operator[(][)].[{]#[^\n]*\n";
        told += "(qemu: [^\n]*\n)?";  // an emulator's own
        EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), testing::MatchesRegex(told));
    }
    const auto dieOfALongLine = [] { CORVANE_FATAL("%s", std::string(5000, 'x').c_str()); };
    EXPECT_EXIT(dieOfALongLine(), testing::KilledBySignal(SIGABRT), "xxx\n");
}

TEST_F(LogTest, RefusedDriverCallsReportAndTerminate) {
    const auto terminate = [] {
        FlushTeller teller;
        ULogger::install(&teller);
        Utils::terminateService();
    };
    EXPECT_EXIT(terminate(), testing::KilledBySignal(SIGTERM), "flush 1");

    {
        ReportCapture reports;
        CORVANE_DRIVER_EXCEPTION("VIDIOC_X fail err=%d(%s)", -5, "five");
        EXPECT_EQ(reports.take(), ReportCapture::of("VIDIOC_X fail err=-5(five)"));
    }
    std::string directory = testing::TempDir() + "corvane-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const char* const key = "persist.vendor.kvx.camera.exception.dir";
    Utils::Properties::property_set(key, directory.c_str());
    const auto report = [] { corvane_oxu_trigger_exception("zelsys", "long %s\nend", X1024); };
    const std::string line = printed(report);
    printed(report);  // within the same second
    Utils::Properties::property_set(key, nullptr);
    EXPECT_THAT(line, HasSubstr("xx end (reportException){"));
    EXPECT_EQ(runShell("cat " + directory +
                       "/*.txt | grep -cE '^end$|^[0-9].* module zelsys'; rm -r " + directory)
                  .output,
              "4\n");  // both are there, whole
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
