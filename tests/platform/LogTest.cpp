// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Printer.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

CORVANE_LOG_UNIT("corvane-50%Test")

using namespace NSVista::Utils::ULog;
using testing::HasSubstr;

#define X64 "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
#define X1024 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64 X64

namespace {

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
    /** What @p log prints to standard error. */
    template <class Log>
    static std::string printed(Log log) {
        testing::internal::CaptureStderr();
        log();
        return testing::internal::GetCapturedStderr();
    }

    RingULogger mRing{8};
};

TEST_F(LogTest, GatesBySeverityAndMask) {
    std::make_unique<NSVista::NSCorvane::Gates>().reset();  // a library that was unloaded
    struct {
        uint32_t level, mask;
        const char *debugPrint, *unified;
    } const cases[] = {
        {0, ~0U, "E", "1"},
        {2, ~0U, "EW", "12"},
        {3, ~0U, "EWI", "123"},
        {4, ~0U, "EWIK", "1234"},
        {5, 0x8002000, "EWIKD", "12345"},
        {6, ~0x2000U, "EWIK", "1234"},
        {6, ~0x8000000U, "EWIK", "1234"},
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
        std::string letters;
        for (std::string line; std::getline(lines, line);)
            letters += line[0];
        std::string levels;
        for (const auto& line : mRing.take())
            levels += std::to_string(line.level);
        EXPECT_EQ(letters, c.debugPrint);
        EXPECT_EQ(levels, c.unified);
        EXPECT_EQ(evaluated, levels.size());
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
        EXPECT_EQ(pipe2(mEnds, O_CLOEXEC), 0);
        dup2(mEnds[1], STDERR_FILENO);
        ::close(mEnds[1]);
    }
    ~StderrPipe() {
        dup2(mSaved, STDERR_FILENO);
        ::close(mSaved);
        closeReader();
    }
    void closeReader() {
        if (mEnds[0] >= 0)
            ::close(std::exchange(mEnds[0], -1));
    }
    std::string read() const {
        std::string text(size_t{1} << 20, '\0');
        text.resize(
            static_cast<size_t>(std::max<ssize_t>(::read(mEnds[0], text.data(), text.size()), 0)));
        return text;
    }

private:
    int mSaved = dup(STDERR_FILENO);
    int mEnds[2] = {};
};

TEST_F(LogTest, SurvivesAClosedPipeAndKeepsErrno) {
    struct Spoiler : ULogger {
        void log(uint32_t, const char*, int, const char*, size_t) override { errno = EXDEV; }
    } spoiler;
    StderrPipe pipe;
    pipe.closeReader();
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
}

TEST_F(LogTest, PrintsMicroseconds) {
    using NSVista::NSCorvane::convertToFormattedLogTime;
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
    const auto logsInAProcessOfItsOwn = [] {
        ULogger::install(nullptr);
        CORVANE_LOGI("second");
        exit(0);
    };
    EXPECT_EXIT(logsInAProcessOfItsOwn(), testing::ExitedWithCode(0), "");
    unsetenv("PERSIST_VENDOR_KVX_CAMERA_ULOG_FILE");
    struct stat info {};
    stat(path.c_str(), &info);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    std::ifstream file(path);
    const std::string text(std::istreambuf_iterator<char>(file), {});
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
    NSVista::NSCorvane::Mutex mutex;
    const auto relock = [&]() CORVANE_NO_THREAD_SAFETY_ANALYSIS {
        const NSVista::NSCorvane::MutexLock lock(mutex);
        mutex.lock();
    };
    ULogger::install(nullptr);
    EXPECT_EXIT(relock(), testing::KilledBySignal(SIGABRT), "locks again what it holds");
    // Other threads wait, and so does the same one when it has given the mutex back.
    NSVista::NSCorvane::MutexLock lock(mutex);
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
        const char* const ending = "F [corvane-50%Test] [operator()] Bad fd. ret=-5 (operator()){#";
        const auto flushed = testing::ResultOf(
            [](const std::string& text) { return text.find("flush 1") != std::string::npos; },
            (mode & 2) != 0);
        EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), AllOf(flushed, HasSubstr(ending)));
    }
    const auto dieOfALongLine = [] { CORVANE_FATAL("%s", std::string(5000, 'x').c_str()); };
    EXPECT_EXIT(dieOfALongLine(), testing::KilledBySignal(SIGABRT), "xxx\n");
}

TEST_F(LogTest, RefusedDriverCallsReportAndTerminate) {
    const auto terminate = [] {
        FlushTeller teller;
        ULogger::install(&teller);
        NSVista::Utils::terminateService();
    };
    EXPECT_EXIT(terminate(), testing::KilledBySignal(SIGTERM), "flush 1");

    std::string seen;
    NSVista::Utils::setExceptionHandler(
        [&](const char* module, const char* text) { seen += std::string(module) + ": " + text; });
    NSVista::Utils::setTerminateHandler([&] { seen += "; terminated"; });
    CORVANE_DRIVER_EXCEPTION("VIDIOC_X fail err=%d(%s)", -5, "five");
    EXPECT_EQ(seen,
              "zelsys: VIDIOC_X fail err=-5(five) Please check ZelsysKernel.\n"
              "CRDISPATCH_KEY:ZelsysKernel; terminated");
    NSVista::Utils::setExceptionHandler(nullptr);
    NSVista::Utils::setTerminateHandler(nullptr);

    std::string directory = testing::TempDir() + "corvane-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const char* const key = "persist.vendor.kvx.camera.exception.dir";
    NSVista::Utils::Properties::property_set(key, directory.c_str());
    const auto report = [] { corvane_oxu_trigger_exception("zelsys", "long %s\nend", X1024); };
    const std::string line = printed(report);
    printed(report);  // within the same second
    NSVista::Utils::Properties::property_set(key, nullptr);
    EXPECT_THAT(line, HasSubstr("xx end (reportException){"));
    const std::string check =
        "test $(cat " + directory + "/*.txt | grep -c '^end$') = 2 && rm -r " + directory;
    EXPECT_EQ(system(check.c_str()), 0);  // both reports are there, whole
}

}  // namespace
