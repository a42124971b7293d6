// SPDX-License-Identifier: Apache-2.0
// What a request costs on a kernel driver, by ways of streaming it: a line of JSON for each round.
// In a guest that counts instructions a nanosecond of the clock is an instruction.
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/platform/System.h>
#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <tuple>

#include "GuestMarks.h"
#include "TinyMonitor.h"
#include "Way.h"
#include "support/Allocations.h"
#include "support/PassingKernel.h"

namespace NSVista::NSCorvane::bench {
namespace {

const std::map<std::string, std::function<std::unique_ptr<Way>(Device&)>> kWays = {
    {"bare", [](Device& device) { return makeBare(device, false); }},
    {"bare, in company", [](Device& device) { return makeBare(device, true); }},
    {"bare, handed over", makeHandOver},
    {"library",
     [](Device& device) { return makeLibrary(device, std::make_shared<TinyMonitor>(), false); }},
    {"library, direct",
     [](Device& device) { return makeLibrary(device, std::make_shared<TinyMonitor>(), true); }},
    {"library, EpollEventMonitor",
     [](Device& device) { return makeLibrary(device, client::EpollEventMonitor::make(), true); }},
    {"session, callback", [](Device& device) { return makeSession(device, true); }},
    {"session, waiting", [](Device& device) { return makeSession(device, false); }},
};

/** Planes that came to an index which had other memory before. One thread queues at a time. */
std::atomic<uint64_t> sRemapped{0};

void noteRemaps(int node, const v4l2_buffer& buffer) {
    static std::mutex sLock;
    static std::map<std::tuple<int, uint32_t, uint32_t>, int> sMemory;
    const std::lock_guard lock(sLock);
    const bool several = v4l2::isMultiPlanar(buffer.type);
    for (uint32_t i = 0; i < (several ? buffer.length : 1); ++i) {
        int& known = sMemory[{node, buffer.index, i}];
        const int fd = several ? buffer.m.planes[i].m.fd : buffer.m.fd;
        sRemapped += known != fd ? 1 : 0;
        known = fd;
    }
}

/** The kernel, with an eye on what is queued. */
class WatchingKernel : public test::PassingKernel {
public:
    WatchingKernel() : PassingKernel(System::linuxKernel()) {}
    int ioctl(int fd, unsigned long request, void* arg) override {
        if (request == VIDIOC_QBUF)
            noteRemaps(fd, *static_cast<v4l2_buffer*>(arg));
        return mKernel.ioctl(fd, request, arg);
    }
};

/** Counts the system calls of the threads that begin while it lives, and of this one. */
class SystemCalls {
public:
    SystemCalls() {
        std::ifstream("/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id") >>
            mEvent.config;
        mEvent.type = PERF_TYPE_TRACEPOINT;
        mEvent.size = sizeof(mEvent);
        mEvent.inherit = 1;
        mFd.reset(static_cast<int>(syscall(SYS_perf_event_open, &mEvent, 0, -1, -1, 0)));
        require(static_cast<bool>(mFd), "perf_event_open");
    }
    uint64_t read() const {
        uint64_t count = 0;
        require(::read(mFd.get(), &count, sizeof(count)) == sizeof(count), "a count");
        return count;
    }

private:
    perf_event_attr mEvent = {};
    UniqueFd mFd;
};

int64_t processInNs() {
    return clockInNs(CLOCK_PROCESS_CPUTIME_ID);
}

int64_t switches() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

/** One measurement: the way is set up anew, and warmed up. */
class Round {
public:
    Round(const std::string& way, size_t ports, size_t slots, uint64_t requests)
        : mWay(way), mRequests(requests), mDevice(ports, slots) {}

    void cost() {
        const auto way = warmWay();
        const int64_t time = monotonicInNs();
        const int64_t own = processInNs();
        const int64_t switched = switches();
        const uint64_t allocated = test::allocations;
        markGuestBegin();
        way->run(mRequests);
        markGuestEnd();
        // In the order of what disturbs most.
        const int64_t ownAfter = processInNs();
        print("instructions", double(ownAfter - own), true);
        print("time", double(monotonicInNs() - time));
        print("switches", double(switches() - switched));
        print("allocations", double(test::allocations - allocated));
        end();
    }
    void latency() {
        const auto way = warmWay();
        way->watch.runs = true;
        way->run(mRequests);
        print("to callback", double(way->watch.toCallback), true);
        if (way->watch.toLastDequeue != 0)
            print("to last dequeue", double(way->watch.toLastDequeue));
        end();
    }
    void count() {
        noteQueuedBuffer = noteRemaps;
        WatchingKernel kernel;
        System::setKernel(&kernel);
        {
            const SystemCalls calls;
            const auto way = warmWay();
            const uint64_t called = calls.read();
            const uint64_t remapped = sRemapped;
            way->run(mRequests);
            print("system calls", double(calls.read() - called), true);
            print("remapped planes", double(sRemapped - remapped));
            end();
        }
        System::setKernel(nullptr);
        noteQueuedBuffer = nullptr;
    }

private:
    std::unique_ptr<Way> warmWay() {
        auto way = kWays.at(mWay)(mDevice);
        way->run(50);
        return way;
    }
    /** A value a request. */
    void print(const char* name, double value, bool first = false) {
        if (first)
            printf("{\"way\": \"%s\", \"ports\": %zu, \"in flight\": %zu", mWay.c_str(),
                   mDevice.ports(), mDevice.slots());
        printf(", \"%s\": %.3f", name, value / double(mRequests));
    }
    void end() {
        printf("}\n");
        fflush(stdout);
    }

    std::string mWay;
    uint64_t mRequests;
    Device mDevice;
};

}  // namespace
}  // namespace NSVista::NSCorvane::bench

int main(int argc, char** argv) {
    using namespace NSVista::NSCorvane::bench;
    const size_t ports = argc > 4 ? strtoul(argv[1], nullptr, 10) : 0;
    const size_t slots = argc > 4 ? strtoul(argv[2], nullptr, 10) : 0;
    const uint64_t requests = argc > 4 ? strtoull(argv[3], nullptr, 10) : 0;
    const unsigned long rounds = argc > 4 ? strtoul(argv[4], nullptr, 10) : 0;
    if (ports < 1 || ports > 8 || slots < 1 || slots > 32 || requests < slots) {
        fprintf(stderr, "usage: %s PORTS IN-FLIGHT REQUESTS ROUNDS [WAY...]\n", argv[0]);
        return 2;
    }
    std::vector<std::string> ways(argv + 5, argv + argc);
    if (ways.empty())
        for (const auto& [name, make] : kWays)
            ways.push_back(name);
    for (unsigned long i = 0; i < rounds; ++i)
        for (const auto& way : ways)
            Round(way, ports, slots, requests).cost();
    for (const auto& way : ways) {
        Round(way, ports, slots, requests).latency();
        Round(way, ports, slots, requests).count();
    }
    return 0;
}
