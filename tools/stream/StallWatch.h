// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Explains a run that does not go on.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include <corvane/SceneManager.h>

namespace NSVista::NSCorvane::tools {

/** A thread that prints on stderr where the scenes stand: at a stall, and at each SIGQUIT. */
class StallWatch {
public:
    /** Leaves SIGQUIT to watches, for the calling thread and those that it begins. */
    static void takeSignal();

    /** @param limit without progress, from now on, that makes a stall; told once each. */
    StallWatch(const SceneManager& manager, std::chrono::seconds limit);
    ~StallWatch();
    StallWatch(const StallWatch&) = delete;
    StallWatch& operator=(const StallWatch&) = delete;

    /** The run went on. Any thread. */
    void progress() { mSteps.fetch_add(1, std::memory_order_relaxed); }

private:
    void watch();
    void explain(const char* why) const;

    const SceneManager& mManager;
    const std::chrono::seconds mLimit;
    std::atomic<uint64_t> mSteps{0};
    std::atomic<bool> mEnd{false};
    std::thread mThread;
};

}  // namespace NSVista::NSCorvane::tools
