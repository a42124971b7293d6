// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the library says: its log, its reports, its dumps and how it ends the process.
 */
#pragma once

#include <corvane/platform/Printer.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/Trace.h>
#include <corvane/platform/ULog.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <mutex>
#include <regex>
#include <set>
#include <thread>
#include <utility>

namespace NSVista::NSCorvane::test {

using Lines = std::vector<std::string>;

/** Collects the unified log's lines of one tag (null: all) up to a details level. */
class LogCapture {
public:
    explicit LogCapture(const char* tag, uint32_t level = Utils::ULog::kInfo)
        : mTag(tag), mPreviousLevel(Logger::sDetailsLevel.exchange(level)) {
        Logger::install(&mRing);
    }
    ~LogCapture() {
        Logger::sDetailsLevel = mPreviousLevel;
        Logger::install(nullptr);
    }

    void setLevel(uint32_t level) { Logger::sDetailsLevel = level; }
    /** The lines since the last call, each after the letter of its level (EWIKDV) and a blank. */
    Lines take() {
        Lines lines;
        for (const auto& line : mRing.take())
            if (mTag == nullptr || line.tag == mTag)
                lines.push_back(std::string(1, " EWIKDV"[line.level]) + " " + line.text);
        return lines;
    }
    /** The lines since the last call, once @p awaited is among them. */
    Lines takeUntil(const std::string& awaited) {
        Lines lines;
        while (std::find(lines.begin(), lines.end(), awaited) == lines.end()) {
            std::this_thread::yield();
            for (std::string& line : take())
                lines.push_back(std::move(line));
        }
        return lines;
    }

private:
    using Logger = Utils::ULog::ULogger;
    const char* const mTag;
    Utils::ULog::RingULogger mRing{10000};
    const uint32_t mPreviousLevel;
};

/** Collects exception reports and service terminations. */
class ReportCapture {
public:
    ReportCapture() {
        Utils::setExceptionHandler([this](const char* module, const char* text) {
            add(std::string(module) + ": " + text);
        });
        Utils::setTerminateHandler([this] { add("terminate"); });
    }
    ~ReportCapture() {
        Utils::setTerminateHandler(nullptr);
        Utils::setExceptionHandler(nullptr);
    }

    Lines take() {
        const std::lock_guard lock(mLock);
        return std::exchange(mLines, {});
    }
    /** What a refused driver call leaves: its report, then the end of the service. */
    static Lines of(const std::string& what) {
        return {"zelsys: " + what + " Please check ZelsysKernel.\nCRDISPATCH_KEY:ZelsysKernel",
                "terminate"};
    }

private:
    void add(std::string line) {
        const std::lock_guard lock(mLock);
        mLines.push_back(std::move(line));
    }
    std::mutex mLock;
    Lines mLines;
};

/** Keeps the lines of a state dump. */
class LinePrinter : public IPrinter {
public:
    void printLine(const char* text) override { lines.emplace_back(text); }
    Lines lines;
};

/** The lines that an object's dumpState() prints. */
template <class T, class... Args>
Lines dumpOf(T& object, Args... args) {
    LinePrinter printer;
    object.dumpState(&printer, args...);
    return printer.lines;
}

/**
 * The names of what @p body traces in one area, sorted, each once: sections as they are,
 * beginnings and ends of asynchronous sections and counters after "b ", "e " and "C ".
 */
inline Lines tracedBy(const std::function<void()>& body, unsigned area) {
    const std::string path = testing::TempDir() + "corvane-traced-" + std::to_string(getpid());
    set_corvane_enabled_tracebits(uint64_t{1} << area);
    EXPECT_EQ(trace::start(path.c_str()), 0);
    body();
    trace::stop();
    set_corvane_enabled_tracebits(~uint64_t{0});
    std::set<std::string> names;
    std::ifstream file(path);
    const std::regex form("\"ph\":\"([BbeC])\".*\"name\":\"([^\"]*)\"");
    std::smatch found;
    for (std::string event; std::getline(file, event);)
        if (std::regex_search(event, found, form))
            names.insert((found[1] == "B" ? "" : found.str(1) + " ") + found.str(2));
    unlink(path.c_str());
    return {names.begin(), names.end()};
}

/** A text that contains the pieces, each after the one before. */
MATCHER_P(InOrder, pieces, "contains in order " + testing::PrintToString(pieces)) {
    size_t from = 0;
    for (const std::string& piece : pieces) {
        const size_t found = arg.find(piece, from);
        if (found == std::string::npos) {
            *result_listener << "lacks \"" << piece << "\"";
            return false;
        }
        from = found + piece.size();
    }
    return true;
}

/** A programming error and what it writes. */
struct FatalCase {
    std::function<void()> action;
    const char* tag;
    const char* function;
    std::string message;  ///< what the assertion says after the function's name
    Lines before = {};    ///< pieces of the lines that go before it, in order
};

/** Expects each action to abort the process with its message and the place in the source. */
inline void expectFatal(const std::vector<FatalCase>& cases) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const FatalCase& c : cases) {
        SCOPED_TRACE(c.message);
        const std::string function = c.function;
        Lines pieces = c.before;
        pieces.push_back("F [" + std::string(c.tag) + "] [" + function + "] " + c.message + " (" +
                         function + "){#");
        pieces.emplace_back("/src/utils/v4l2/");
        pieces.emplace_back(".cpp}\n");
        const auto act = [&c] {
            Utils::ULog::ULogger::install(nullptr);  // to standard error
            c.action();
        };
        EXPECT_EXIT(act(), testing::KilledBySignal(SIGABRT), InOrder(pieces));
    }
}

/** Runs @p body in a process of its own, for what a process has only one of. */
inline void inOwnProcess(const std::function<void()>& body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            body();
            exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace NSVista::NSCorvane::test
