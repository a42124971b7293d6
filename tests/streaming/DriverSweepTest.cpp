// SPDX-License-Identifier: Apache-2.0
// Whole lives of a client on the driver, each of whose operations is refused at its first and at
// its second call. How that has to end stands in a table; the driver tells that nothing is left.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IV4L2SubDevice.h>
#include <corvane/platform/Service.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "Rig.h"
#include "support/Process.h"
#include "support/SubDeviceCalls.h"
#include "vengine-fault.h"

namespace NSVista::NSCorvane::test {
namespace {

enum class Ending {
    UNSEEN,    ///< the client's life goes on
    RETURNED,  ///< an operation fails
    SERVICE,   ///< it is reported, and the service is to end
    FATAL,     ///< the process ends at once
};

struct Refusal {
    std::string fault;  ///< operation, errno and call; without a call, both
    Ending ending;
    std::string line;  ///< of the log
};

const Refusal kRefusals[] = {
    {"querycap -5", Ending::SERVICE, "[openDevice] Failed to query device capability: -5"},
    {"g_fmt -5", Ending::SERVICE, "[getFormat] Failed to get device format: -5"},
    {"s_fmt -5", Ending::SERVICE, "[setFormat] Failed to set device format: -5"},
    {"reqbufs -12", Ending::SERVICE, "[importBuffer] VIDIOC_REQBUFS count=3 ret=-12"},
    {"qbuf -5", Ending::RETURNED, "[queueBuffer] Failed to queue buffer vengine-"},
    {"dqbuf -5", Ending::RETURNED, "[dequeBuffer] Failed to dequeue buffer: -5"},
    {"streamon -5", Ending::SERVICE, "[start] Failed to start port"},
    {"streamoff -5", Ending::SERVICE, "[stop] Failed to stop port"},
    {"buffer -5", Ending::UNSEEN, ""},
    {"request_alloc -12", Ending::FATAL, "Bad request fd < 0"},
    {"request_queue -5", Ending::FATAL, "Failed to queue media request"},
    {"request_reinit -16", Ending::FATAL, "Failed to reinit media request: -16"},
    {"setup_link -5", Ending::SERVICE, "MEDIA_IOC_SETUP_LINK fail err=-5"},
    {"subscribe_event -5", Ending::SERVICE, "Failed to VIDIOC_SUBSCRIBE_EVENT: -5"},
    {"unsubscribe_event -5", Ending::SERVICE, "Failed to VIDIOC_UNSUBSCRIBE_EVENT: -5"},
    {"dqevent -5", Ending::RETURNED, ""},
};

std::vector<Refusal> refusals() {
    std::vector<Refusal> all(std::begin(kRefusals), std::end(kRefusals));
    std::set<std::string> known;
    for (const SubDeviceCall& call : subDeviceCalls(SubDeviceArguments(-1))) {
        std::string word = call.name;
        std::transform(word.begin(), word.end(), word.begin(), tolower);
        if (known.insert(word).second)
            all.push_back({word + " -5", call.report.empty() ? Ending::RETURNED : Ending::SERVICE,
                           call.line.substr(0, call.line.find(" fd"))});
    }
    return all;
}

constexpr int kBuffers = 3;
bool serviceEnds = false;

/**
 * A life's steps. A failed one ends it, and so does the service's end, but all that was begun is
 * given back.
 */
class Life {
public:
    /** @return false from the first failure on, whose result is told. */
    bool step(const char* name, int result) {
        if (serviceEnds)
            result = -ECANCELED;
        mIsWhole &= result >= 0;
        if (result < 0)
            fprintf(stderr, "@failed %s %d\n", name, result);
        return mIsWhole;
    }
    bool isWhole() const { return mIsWhole; }

private:
    bool mIsWhole = true;
};

void negotiate(Life& life) {
    Rig rig(2);
    if (!life.step("init", rig.init()))
        return;
    rig.scene->acquire();
    PixelFormat format{};
    for (int port = 0; port < 2 && life.isWhole(); ++port)
        life.step("getFormat", rig.scene->getFormat(rig.scene->queryPort(port), format)) &&
            life.step("setFormat", rig.scene->setFormat(rig.scene->queryPort(port), format));
}

/** @return false when a buffer stayed with the driver, which only a stop without looking ends. */
bool cycle(Life& life, Rig& rig, unsigned round) {
    const size_t slot = round % kBuffers;
    rig.fill(slot);
    if (!life.step("queue", rig.queue(slot)) || !rig.waitDone(round + 1))
        return false;
    rig.takeDone();
    for (int waited = 0; rig.withDriver() != 0; ++waited) {
        if (waited == 200)
            return life.step("dequeue", -1);
        usleep(1000);
    }
    return true;
}

void stream(Life& life) {
    Rig rig(2);
    const int started = rig.start(kBuffers);
    if (life.step("start", started)) {
        unsigned round = 0;
        while (round < 2 * kBuffers && cycle(life, rig, round))
            ++round;
    }
    rig.events.reset();
    if (started == 0)
        life.step("stop", rig.stop());
}

void useSubDevice(Life& life) {
    auto& provider = *IDefaultSubDeviceProvider::instance();
    auto device = provider.acquire("user");
    if (life.step("acquire", device == nullptr ? -1 : 0)) {
        client::DmaBuf memory;
        Platform::instance().source().allocate(4096, memory);
        for (int round = 0; round < 2; ++round) {
            SubDeviceArguments with(memory.fd());
            for (const SubDeviceCall& call : subDeviceCalls(with))
                life.step(call.name.c_str(), call.run(*device, with));
            v4l2_event event;
            const int pending = device->queryEvent(event);
            life.step("queryEvent", pending == -ENOENT ? 0 : pending);
        }
    }
    provider.release("user", device);
    life.step("release", 0);
}

bool live() {
    Life life;
    negotiate(life);
    stream(life);
    useSubDevice(life);
    useSubDevice(life);
    return life.isWhole();
}

/** Lives with a fault, then without: the process that survived it is as good as new. */
[[noreturn]] void liveWith(const std::string& fault) {
    alarm(60);
    Utils::setExceptionHandler([](const char*, const char*) { fputs("@reported\n", stderr); });
    Utils::setTerminateHandler([] { serviceEnds = true; });
    const Platform& platform = Platform::instance();
    const DefaultMediaConfigs configs{platform.model(), VENGINE_SUBDEV_ENTITY};
    registerDefaultMediaConfigs(&configs);
    platform.order(fault);
    live();
    platform.order("clear");
    fputs(serviceEnds ? "@terminated @again\n" : "@again\n", stderr);
    serviceEnds = false;
    exit(live() ? 0 : 1);
}

testing::Matcher<const std::string&> told(Ending ending, const std::string& line) {
    using testing::AllOf;
    using testing::HasSubstr;
    using testing::Not;
    const auto has = [](const char* text, bool is) -> testing::Matcher<const std::string&> {
        return is ? testing::Matcher<const std::string&>(HasSubstr(text)) : Not(HasSubstr(text));
    };
    return AllOf(HasSubstr(line), has("@reported", ending == Ending::SERVICE),
                 has("@terminated", ending == Ending::SERVICE),
                 has("@failed", ending == Ending::RETURNED || ending == Ending::SERVICE),
                 has("@again", ending != Ending::FATAL));
}

TEST(DriverSweep, EveryRefusalEndsAsItHasToAndLeavesNothing) {
    std::set<std::string> swept;
    for (const Refusal& refusal : refusals()) {
        for (const char* const nth : {" 1", " 2"}) {
            const std::string fault = refusal.fault + nth;
            SCOPED_TRACE(fault);
            swept.insert(fault.substr(0, fault.find(' ')));
            const auto ended = [&refusal](int status) {
                return refusal.ending == Ending::FATAL ? testing::KilledBySignal(SIGABRT)(status)
                                                       : testing::ExitedWithCode(0)(status);
            };
            EXPECT_EXIT(liveWith(fault), ended, told(refusal.ending, refusal.line));
            EXPECT_EQ(contentOf("/sys/kernel/debug/vengine/fault"), "")
                << "it was never called so often";
            EXPECT_THAT(contentOf("/sys/kernel/debug/vengine/counts"),
                        testing::Not(testing::ContainsRegex(" [1-9]")));
            Platform::instance().order("clear");
        }
    }
    EXPECT_EQ(swept.size(), size_t{VENGINE_OPS});
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
