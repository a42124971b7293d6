// SPDX-License-Identifier: Apache-2.0
// What watching costs: the program's own epoll calls stand before the library's.
#include <dlfcn.h>
#include <sys/epoll.h>

#include "StreamingFixture.h"

namespace {
std::atomic<uint64_t> sWaits{0};
std::atomic<uint64_t> sControls{0};

template <class Function>
Function* next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) int epoll_wait(int epoll, epoll_event* events, int count,
                                                      int timeout) {
    static const auto real = next(&epoll_wait, "epoll_wait");
    ++sWaits;
    return real(epoll, events, count, timeout);
}
__attribute__((visibility("default"))) int epoll_ctl(int epoll, int operation, int fd,
                                                     epoll_event* event) noexcept {
    static const auto real = next(&epoll_ctl, "epoll_ctl");
    ++sControls;
    return real(epoll, operation, fd, event);
}
}

namespace NSVista::NSCorvane::test {
namespace {

class EventCost : public Streaming {};

TEST_F(EventCost, IsOneRearmAndOneWaitARequest) {
    constexpr uint64_t kRequests = 20;
    Rig rig(portsOrSkip(3));
    ASSERT_EQ(rig.start(2), 0);
    uint64_t done = 0;
    const auto cycle = [&] {
        rig.fill(0);
        ASSERT_EQ(rig.queue(0), 0);
        ASSERT_TRUE(rig.waitDone(++done));
    };
    cycle();
    const uint64_t waits = sWaits;
    const uint64_t controls = sControls;
    for (uint64_t i = 0; i < kRequests; ++i)
        cycle();
    // The wait that follows the last completion may have begun or not.
    EXPECT_NEAR(double(sWaits - waits), double(kRequests), 1);
    EXPECT_EQ(sControls - controls, kRequests);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
