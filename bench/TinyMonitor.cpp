// SPDX-License-Identifier: Apache-2.0
#include "TinyMonitor.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include "Device.h"

namespace NSVista::NSCorvane::bench {

namespace {

constexpr size_t kDescriptors = 1024;

}  // namespace

TinyMonitor::TinyMonitor()
    : mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mStop(eventfd(0, EFD_CLOEXEC)),
      mOperations(kDescriptors, EPOLL_CTL_ADD) {
    epoll_event event{EPOLLIN, {.ptr = nullptr}};
    require(epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mStop.get(), &event) == 0, "a watch");
    mThread = std::thread([this] { watch(); });
}

TinyMonitor::~TinyMonitor() {
    eventfd_write(mStop.get(), 1);
    mThread.join();
}

int TinyMonitor::attachObserver(IEventObserver* observer, uint32_t) {
    mOperations.at(static_cast<size_t>(observer->getEventFD())) = EPOLL_CTL_ADD;
    return 0;
}

int TinyMonitor::rearmObserver(IEventObserver* observer, uint32_t events) {
    const int fd = observer->getEventFD();
    epoll_event event{events, {.ptr = observer}};
    int& operation = mOperations[static_cast<size_t>(fd)];
    const int result = epoll_ctl(mEpoll.get(), operation, fd, &event);
    operation = EPOLL_CTL_MOD;
    return result;
}

int TinyMonitor::detachObserver(IEventObserver* observer) {
    return epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, observer->getEventFD(), nullptr);
}

void TinyMonitor::watch() {
    while (true) {
        epoll_event events[16];
        const int count = epoll_wait(mEpoll.get(), events, 16, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.ptr == nullptr)
                return;
            static_cast<IEventObserver*>(events[i].data.ptr)->onEvent({events[i].events});
        }
    }
}

}  // namespace NSVista::NSCorvane::bench
