// SPDX-License-Identifier: Apache-2.0
#include "CallbackWatch.h"

#include <corvane/platform/Clock.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>
#include <vector>

#include "DriverCall.h"
#include "RequestRoll.h"

namespace NSVista::NSCorvane {

namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kLimit{kDriverLimitNs};
constexpr nanoseconds kPeriod{kDriverPeriodNs};

/** The guard thread's memory of the callbacks that it met. */
class CallbackWatch {
public:
    explicit CallbackWatch(std::shared_ptr<RequestRoll> roll) : mRoll(std::move(roll)) {}

    nanoseconds look(const timeguard::TimeBomb::Tell& tell) {
        std::vector<Met> met;
        nanoseconds pause = kPeriod;
        for (const RequestView& view : mRoll->view()) {
            if (view.callback == 0)
                continue;
            met.push_back(meet(view));
            const nanoseconds age{monotonicInNs() - met.back().since};
            if (age >= kLimit)
                tell(age, textOf(view).c_str());
            else
                pause = std::min(pause, kLimit - age);
        }
        mMet.swap(met);
        return pause;
    }

private:
    struct Met {
        int fd;
        uint32_t callback;
        int64_t since;  ///< CLOCK_MONOTONIC
    };

    /** A callback began after the last look, so that a log clock that is set misleads little. */
    Met meet(const RequestView& view) const {
        for (const Met& known : mMet)
            if (known.fd == view.fd && known.callback == view.callback)
                return known;
        const int64_t age = clockInNs(CLOCK_REALTIME) - timeInNs(view.done);
        return {view.fd, view.callback,
                monotonicInNs() - std::clamp<int64_t>(age, 0, int64_t{kDriverPeriodNs})};
    }

    std::string textOf(const RequestView& view) const {
        char text[256];
        snprintf(text, sizeof(text),
                 "scene %.80s: the done callback of request %" PRIu32
                 " (fd %d) does not return: completions wait for it; it must not block",
                 mRoll->sceneName().c_str(), view.callback - 1, view.fd);
        return text;
    }

    const std::shared_ptr<RequestRoll> mRoll;
    std::vector<Met> mMet;
};

}  // namespace

std::shared_ptr<timeguard::TimeBomb> watchCallbacks(const std::shared_ptr<RequestRoll>& roll) {
    const auto watch = std::make_shared<CallbackWatch>(roll);
    return timeguard::TimeBomb::watch(
        "Scene", kDriverPeriodNs,
        [watch](const timeguard::TimeBomb::Tell& tell) { return watch->look(tell); });
}

}  // namespace NSVista::NSCorvane
