// SPDX-License-Identifier: Apache-2.0
#include "StallWatch.h"

#include <corvane/platform/Printer.h>
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

using Clock = std::chrono::steady_clock;

/** How often progress is looked at. */
constexpr struct timespec kLook = {0, 100'000'000};

sigset_t quitSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGQUIT);
    return set;
}

}  // namespace

void StallWatch::takeSignal() {
    const sigset_t quit = quitSignal();
    pthread_sigmask(SIG_BLOCK, &quit, nullptr);
}

StallWatch::StallWatch(const SceneManager& manager, std::chrono::seconds limit)
    : mManager(manager), mLimit(limit), mThread([this] { watch(); }) {
}

StallWatch::~StallWatch() {
    mEnd = true;
    pthread_kill(mThread.native_handle(), SIGQUIT);
    mThread.join();
}

void StallWatch::watch() {
    const sigset_t quit = quitSignal();
    auto lastProgress = Clock::now();
    uint64_t steps = 0;
    bool isTold = false;
    for (;;) {
        const bool isAsked = sigtimedwait(&quit, nullptr, &kLook) == SIGQUIT;
        if (mEnd)
            return;
        if (isAsked)
            explain("asked by SIGQUIT");
        const uint64_t now = mSteps.load(std::memory_order_relaxed);
        if (now != steps) {
            steps = now;
            lastProgress = Clock::now();
            isTold = false;
        } else if (!isTold && Clock::now() - lastProgress >= mLimit) {
            isTold = true;
            explain(("nothing went on for " + std::to_string(mLimit.count()) + " s").c_str());
        }
    }
}

void StallWatch::explain(const char* why) const {
    say("%s:", why);
    FilePrinter printer(stderr);
    mManager.explainStall(&printer);
    fflush(stderr);
}

}  // namespace NSVista::NSCorvane::tools
