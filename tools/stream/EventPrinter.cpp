// SPDX-License-Identifier: Apache-2.0
#include "EventPrinter.h"

#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IV4L2SubDevice.h>
#include <sys/epoll.h>

#include <cstdio>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

constexpr const char kUser[] = "STREAM";

}  // namespace

EventPrinter::EventPrinter()
    : mSubDevice(IDefaultSubDeviceProvider::instance()->acquire(kUser)),
      mMonitor(client::EpollEventMonitor::make("Stream-Events")) {
}

std::unique_ptr<EventPrinter> EventPrinter::start() {
    std::unique_ptr<EventPrinter> printer(new EventPrinter);
    if (printer->mSubDevice && printer->mMonitor &&
        printer->mMonitor->attachObserver(printer.get(), EPOLLPRI) == 0)
        return printer;
    say("no events from the default sub-device");
    return nullptr;
}

EventPrinter::~EventPrinter() {
    if (mMonitor)
        mMonitor->detachObserver(this);
    IDefaultSubDeviceProvider::instance()->release(kUser, mSubDevice);
}

int EventPrinter::getEventFD() const {
    return mSubDevice->getDeviceFd();
}

void EventPrinter::onEvent(const OnEvent& /*event*/) {
    v4l2_event event{};
    do {
        if (mSubDevice->queryEvent(event) != 0)
            return;
        if (event.type == V4L2_EVENT_FRAME_SYNC)
            printf("frame sync: frame %u at %lld.%06ld\n", event.u.frame_sync.frame_sequence,
                   static_cast<long long>(event.timestamp.tv_sec),
                   static_cast<long>(event.timestamp.tv_nsec / 1000));
    } while (event.pending != 0);
}

}  // namespace NSVista::NSCorvane::tools
