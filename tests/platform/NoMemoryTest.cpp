// SPDX-License-Identifier: Apache-2.0
// Operations of the platform that cannot go on without memory end with a line that says so.
#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/System.h>
#include <corvane/platform/ThreadLoop.h>
#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/Trace.h>
#include <corvane/platform/ULog.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <utility>

#include "support/Allocations.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using timeguard::TimeBomb;
using namespace Utils::Properties;

const std::string kLong(100, 'x');

TEST(NoMemory, EndsOperationsWithAFatalLine) {
    Utils::ULog::RingULogger ring(8);
    TimeBomb::make("first", 1000000000, 0, "makes the guards' thread");
    const auto handler = ThreadLoopHandler::make();
    const auto report = [](const char*, const char*) {};
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"property_get_int32", [] { property_get_int32(kLong.c_str(), 0); }},
        {"property_set", [] { property_set(kLong.c_str(), "1"); }},
        {"corvane_oxu_trigger_exception",
         [] { corvane_oxu_trigger_exception("m", "%s", kLong.c_str()); }},
        {"setExceptionHandler", [&] { Utils::setExceptionHandler(report); }},
        {"makeUnarmed", [] { TimeBomb::make("n", 1, 1, "m"); }},
        {"make", [] { ThreadLoopHandler::make(); }},
        {"start", [] { trace::start(kLong.c_str()); }},
    };
    for (const auto& [operation, call] : cases) {
        const auto withoutMemory = [&call = call, &ring] {
            mayAllocate = [] { return false; };
            Utils::ULog::ULogger::install(&ring);  // loses its lines
            call();
        };
        EXPECT_EXIT(withoutMemory(), testing::KilledBySignal(SIGABRT),
                    std::string("F .*.") + operation + ". exception: std::bad_alloc")
            << operation;
    }
}

TEST(NoMemory, LeavesSystemCallsAlone) {
    mayAllocate = [] { return false; };
    const int fd = System::Open("/dev/null", 0, 0);
    const int closed = System::Close(fd, 0);
    int value = 0;
    const int refused = System::Ioctl(-1, 0, &value, 3);
    mayAllocate = nullptr;
    EXPECT_GE(fd, 0);
    EXPECT_EQ(closed, 0);
    EXPECT_EQ(refused, -EBADF);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
