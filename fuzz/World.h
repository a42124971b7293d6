// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the fuzzers of the streaming interface share.
 */
#pragma once

#include <corvane/IEventMonitor.h>
#include <corvane/client/DmaBuf.h>
#include <corvane/platform/Printer.h>
#include <corvane/sim/Engine.h>
#include <sys/epoll.h>

#include <algorithm>
#include <vector>

#include "Ending.h"

namespace NSVista::NSCorvane::fuzz {

/** Reads what is dumped. */
class Reading : public IPrinter {
public:
    void printLine(const char* text) override { mLength += strlen(text); }

private:
    size_t mLength = 0;
};

/** A monitor without a thread: what is armed is reported when the fuzzer says so. */
class Events : public IEventMonitor {
public:
    void dumpState(IPrinter*) const override {}
    const char* getThreadName() const override { return "fuzz"; }
    int attachObserver(IEventObserver*, uint32_t) override { return 0; }
    int rearmObserver(IEventObserver* observer, uint32_t) override {
        mArmed.push_back(observer);
        return 0;
    }
    int detachObserver(IEventObserver* observer) override {
        mArmed.erase(std::remove(mArmed.begin(), mArmed.end(), observer), mArmed.end());
        return 0;
    }
    /** @return whether there was a watch to report. */
    bool report(uint32_t events = EPOLLPRI) {
        if (mArmed.empty())
            return false;
        IEventObserver* const observer = mArmed.front();
        if ((events & EPOLLPRI) != 0)
            mArmed.erase(mArmed.begin());
        observer->onEvent({events});
        return true;
    }
    void forget() { mArmed.clear(); }

private:
    std::vector<IEventObserver*> mArmed;
};

/** An engine whose requests are complete when their queueing returns. */
class QuickEngine : public sim::VirtualEngine {
public:
    QuickEngine() {
        sim::Timing timing;
        timing.onQueueingThread = true;
        device().setTiming(timing);
    }
};

/** Memory for every buffer; a megabyte. */
inline int memoryFd() {
    static const client::DmaBuf memory = [] {
        client::DmaBuf made;
        client::makeMemoryFileSource()->allocate(1 << 20, made);
        return made;
    }();
    return memory.fd();
}

}  // namespace NSVista::NSCorvane::fuzz
