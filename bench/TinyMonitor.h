// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The least that an event monitor can be.
 */
#pragma once

#include <corvane/IEventMonitor.h>
#include <corvane/platform/UniqueFd.h>

#include <thread>
#include <vector>

namespace NSVista::NSCorvane::bench {

/**
 * Watches requests without a lock or a table to search, so that the library is measured and not
 * what watches for it. A watch begins with its first re-arm, and descriptors are low. An observer
 * is detached only once nothing is queued: nothing else keeps its callback from running.
 */
class TinyMonitor : public IEventMonitor {
public:
    TinyMonitor();
    ~TinyMonitor() override;
    TinyMonitor(const TinyMonitor&) = delete;
    TinyMonitor& operator=(const TinyMonitor&) = delete;

    void dumpState(IPrinter*) const override {}
    const char* getThreadName() const override { return "tiny"; }
    int attachObserver(IEventObserver* observer, uint32_t events) override;
    int rearmObserver(IEventObserver* observer, uint32_t events) override;
    int detachObserver(IEventObserver* observer) override;

private:
    void watch();

    UniqueFd mEpoll;
    UniqueFd mStop;
    std::vector<int> mOperations;  ///< by descriptor: what arms its watch
    std::thread mThread;
};

}  // namespace NSVista::NSCorvane::bench
