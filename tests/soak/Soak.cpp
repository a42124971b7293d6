// SPDX-License-Identifier: Apache-2.0
// Streams one scene after the other for as long as wanted and tells every ten seconds what it
// takes: memory, descriptors, threads and times have to be at the end what they were at the start.
#include <corvane/client/SceneSession.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/ULog.h>
#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "LatencyHistogram.h"
#include "streaming/Platform.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using client::SceneSession;

constexpr auto kSceneTime = 2s;
constexpr auto kSampleTime = 10s;
constexpr auto kFaultTime = 3s;
constexpr auto kPatience = 5s;
constexpr auto kRequestTime = 5ms;

/** What a client survives, by a new scene where not otherwise. */
const char* const kFaults[] = {"querycap -5",   "s_fmt -5",      "reqbufs -12",
                               "qbuf -5",       "dqbuf -5",      "streamon -5",
                               "buffer -5",     "setup_link -5", "streamoff -5",
                               "dqbuf hang 9",  "qbuf hang 9",   "request_queue hang 9",
                               "streamoff hang"};

/** A figure that is told, and by how much of it and beyond that it may grow. */
struct Column {
    const char* name;
    double factor;  ///< 0: it is not judged
    double slack;
    bool isTime;
};

enum {
    kSeconds,
    kRequests,
    kScenes,
    kRecovered,
    kRss,
    kHeap,
    kKernel,
    kFds,
    kThreads,
    kP50,
    kP99,
    kStop
};

constexpr std::array<Column, 12> kColumns{{{"seconds", 0, 0, false},
                                           {"requests", 0, 0, false},
                                           {"scenes", 0, 0, false},
                                           {"recovered", 0, 0, false},
                                           {"rss_kB", 1, 1024, false},
                                           {"heap_kB", 1, 128, false},
                                           {"kernel_kB", 1, 4096, false},
                                           {"fds", 1, 0, false},
                                           {"threads", 1, 0, false},
                                           {"p50_us", 0, 0, true},
                                           {"p99_us", 2, 1000, true},
                                           {"stop_us", 2, 1000, true}}};

using Sample = std::array<double, kColumns.size()>;

/** A number after a word of a file of /proc. */
double numberIn(const char* path, const std::string& word) {
    std::ifstream file(path);
    double number = 0;
    for (std::string read; file >> read;)
        if (read == word && file >> number)
            return number;
    return 0;
}

int entriesOf(const char* path) {
    DIR* const folder = opendir(path);
    int count = 0;
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count - 2;
}

/** Whether the driver or the engine holds nothing for this process. */
bool holdsNothing() {
    if (sim::Device* const device = Platform::instance().virtualDevice())
        return device->counts().requests == 0 && device->counts().mappedPlanes == 0;
    std::ifstream file("/sys/kernel/debug/vengine/counts");
    int count = 0;
    for (std::string name; file >> name >> count;)
        if (count != 0)
            return false;
    return true;
}

class Soak {
public:
    Soak(std::chrono::seconds duration, bool faults) : mEnd(mBegin + duration), mHasFaults(faults) {
        mSamples.reserve(static_cast<size_t>(duration / kSampleTime) + 1);  // else it would grow
        mDesc = Platform::instance().describe("soak", 1);
        mDesc.ports[0].width = 64;
        mDesc.ports[0].height = 16;
        mDesc.times = true;
    }

    /** @return whether everything stayed as it was. */
    bool run() {
        for (const Column& column : kColumns)
            printf("%s%s", &column == kColumns.data() ? "# " : " ", column.name);
        putchar('\n');
        auto nextSample = mBegin + kSampleTime;
        auto nextFault = mBegin + kFaultTime;
        while (Clock::now() < mEnd) {
            if (mHasFaults && Clock::now() >= nextFault) {
                arm();
                nextFault += kFaultTime;
            }
            live();
            Platform::instance().order("clear");
            mIsArmed = false;
            if (!holdsNothing())
                fail("the driver holds what the scene left");
            if (Clock::now() >= nextSample) {
                tell();
                nextSample += kSampleTime;
            }
        }
        return judge() && mFailures == 0;
    }

private:
    void arm() {
        mIsArmed = true;
        mFault = kFaults[std::uniform_int_distribution<size_t>(0, std::size(kFaults) - 1)(mRandom)];
        Platform::instance().order(mFault);
    }

    void fail(const std::string& what) {
        fprintf(stderr, "%s%s%s\n", what.c_str(), mIsArmed ? ", after " : "",
                mIsArmed ? mFault : "");
        ++mFailures;
    }

    /** What fails for a fault's sake is mended by the next scene; all else is a failure. */
    bool step(const char* name, int result) {
        if (result >= 0)
            return true;
        if (mIsArmed)
            ++mRecovering;
        else
            fail(name + std::string(": ") + std::to_string(result));
        return false;
    }

    /** A scene's life. A hang that it runs into ends after a while. */
    void live() {
        std::thread releasing;
        if (mIsArmed && std::string(mFault).find("hang") != std::string::npos)
            releasing = std::thread([] {
                std::this_thread::sleep_for(kSceneTime / 2);
                Platform::instance().order("clear");
            });
        const uint64_t before = mRecovering;
        int error = 0;
        if (auto session = SceneSession::open(mDesc, Platform::instance().search(),
                                              Platform::instance().source(), error)) {
            if (step("start", session->start()))
                stream(*session);
            const auto begin = Clock::now();
            step("stop", session->stop(mRecovering == before ? kPatience : 0s));
            mStops.add(Clock::now() - begin);
        } else {
            step("open", error);
        }
        if (releasing.joinable())
            releasing.join();
        ++mScenes;
        mRecovered += mRecovering == before && std::exchange(mWasRecovering, false) ? 1 : 0;
        mWasRecovering |= mRecovering != before;
    }

    void stream(SceneSession& session) {
        const auto end = Clock::now() + kSceneTime;
        while (Clock::now() < end) {
            int result = 0;
            while ((result = session.submit({})) == 0) {
            }
            if (result != -EAGAIN && !step("submit", result))
                return;
            const bool goesOn = step("wait", session.wait(kPatience, [this](auto& request) {
                mLatencies.add(request.times().total);
                ++mRequests;
                if (!request.frame(0).isGood())
                    step("frame", -EIO);
            }));
            if (!goesOn)
                return;
        }
        step("drain", session.drain(kPatience));
    }

    void tell() {
        const auto us = [](std::chrono::nanoseconds time) {
            return static_cast<double>(time.count()) / 1000;
        };
        Sample sample{};
        sample[kSeconds] = std::chrono::duration<double>(Clock::now() - mBegin).count();
        sample[kRequests] = static_cast<double>(mRequests);
        sample[kScenes] = static_cast<double>(mScenes);
        sample[kRecovered] = static_cast<double>(mRecovered);
        sample[kRss] = numberIn("/proc/self/status", "VmRSS:");
        sample[kHeap] = static_cast<double>(mallinfo2().uordblks) / 1024;
        if (Platform::instance().virtualDevice() == nullptr)
            sample[kKernel] = numberIn("/proc/meminfo", "SUnreclaim:");
        sample[kFds] = entriesOf("/proc/self/fd");
        sample[kThreads] = entriesOf("/proc/self/task");
        sample[kP50] = us(mLatencies.quantile(0.5));
        sample[kP99] = us(mLatencies.quantile(0.99));
        sample[kStop] = us(mStops.quantile(0.5));
        for (const double& value : sample)
            printf("%s%.0f", &value == sample.data() ? "" : " ", value);
        putchar('\n');
        fflush(stdout);
        mSamples.push_back(sample);
        mLatencies = {};
        mStops = {};
    }

    /** Of up to six samples. */
    double middle(std::vector<Sample>::const_iterator first, size_t column) const {
        std::vector<double> values;
        for (size_t n = 0; n < std::min<size_t>(6, mSamples.size()); ++n)
            values.push_back((*(first + static_cast<long>(n)))[column]);
        std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                         values.end());
        return values[values.size() / 2];
    }

    /** Compares the last minute with the first. Faults take time, so then no time is judged. */
    bool judge() {
        bool isFlat = mSamples.size() >= 12;
        if (!isFlat)
            printf("# it takes two minutes to judge\n");
        const auto last = mSamples.end() - static_cast<long>(std::min<size_t>(6, mSamples.size()));
        for (size_t n = 0; isFlat && n < kColumns.size(); ++n) {
            const Column& column = kColumns[n];
            if (column.factor == 0 || (column.isTime && mHasFaults))
                continue;
            const double first = middle(mSamples.begin(), n), now = middle(last, n);
            // What is not measured is not flat; of kernels there is none in this process.
            const bool isMeasured = first > 0 || n == kKernel;
            const bool holds = isMeasured && now <= first * column.factor + column.slack;
            printf("# %s: %.0f in the first minute, %.0f in the last: %s\n", column.name, first,
                   now, holds ? "flat" : "NOT FLAT");
            mFailures += holds ? 0 : 1;
        }
        if (mHasFaults && mRecovered == 0)
            fail("no fault struck");
        printf("# %" PRIu64 " requests, %" PRIu64 " scenes, %" PRIu64 " recoveries, %u failures\n",
               mRequests, mScenes, mRecovered, mFailures);
        return isFlat;
    }

    const Clock::time_point mBegin = Clock::now();
    const Clock::time_point mEnd;
    const bool mHasFaults;
    client::SessionDesc mDesc;
    std::mt19937 mRandom{1};
    bool mIsArmed = false;
    const char* mFault = "";
    uint64_t mRequests = 0, mScenes = 0, mRecovering = 0, mRecovered = 0;
    bool mWasRecovering = false;
    unsigned mFailures = 0;
    tools::LatencyHistogram mLatencies, mStops;
    std::vector<Sample> mSamples;
};

/** soak SECONDS [faults] */
int run(int argc, char** argv) {
    Utils::ULog::RingULogger log{100};
    Utils::ULog::ULogger::install(&log);
    Utils::setExceptionHandler([](const char*, const char*) {});
    Utils::setTerminateHandler([] {});
    if (sim::Device* const device = Platform::instance().virtualDevice())
        device->setTiming({.latency = kRequestTime});
    else
        std::ofstream("/sys/module/vengine/parameters/delay_us")
            << std::chrono::microseconds(kRequestTime).count();
    bool isGood = false;
    {
        Soak soak(std::chrono::seconds(argc > 1 ? atoi(argv[1]) : 0),
                  argc > 2 && argv[2] == std::string("faults"));
        isGood = soak.run();
    }
    Utils::ULog::ULogger::install(nullptr);
    return isGood ? 0 : 1;
}

}  // namespace
}  // namespace NSVista::NSCorvane::test

int main(int argc, char** argv) {
    return NSVista::NSCorvane::test::run(argc, argv);
}
