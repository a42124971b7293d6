// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/UniqueFd.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

CORVANE_LOG_UNIT("corvane-EventMonitor")

namespace NSVista::NSCorvane::client {

namespace {

constexpr uint64_t kWakeId = 0;
constexpr unsigned kSlotBits = 24;
constexpr uint64_t kMostSlots = uint64_t{1} << kSlotBits;
constexpr int kBatch = 16;

size_t slotOf(uint64_t id) {
    return id % kMostSlots;
}

/** Whether to watch from the first re-arm on only. */
bool isDeferred(int fd, uint32_t events) {
    if ((events & EPOLLONESHOT) != 0)
        return true;
    constexpr uint32_t kPollable = POLLIN | POLLPRI | POLLOUT | POLLRDHUP;
    pollfd watched{fd, static_cast<short>(events & kPollable), 0};
    return poll(&watched, 1, 0) > 0 && (watched.revents & POLLERR) != 0;
}

/** A hang-up or an error stays until the descriptor is closed, and is reported unasked. */
bool isLasting(uint32_t events) {
    return (events & (EPOLLHUP | EPOLLERR)) != 0;
}

}  // namespace

/** What the monitor and its thread share; it outlives the monitor when that dies on the thread. */
class EpollEventMonitor::Loop : public IThreadLoop {
public:
    explicit Loop(std::string name) : mName(std::move(name)) {}

    /** @return 0 or the negated errno. */
    int open();

    void requestExit() override;
    int readyToRun(const ReadyToRun& ready) override { return readyToRun(ready.threadName); }
    int readyToRun(const std::string& threadName) override;
    bool threadLoop() override;
    void dumpState(IPrinter* printer) const override;
    const char* getThreadName() const override { return mName.c_str(); }

    int attach(IEventObserver* observer, uint32_t events);
    int rearm(IEventObserver* observer, uint32_t events);
    int detach(IEventObserver* observer);

private:
    /**
     * One attachment, in a slot that others had before. Its id, never used again, travels in the
     * epoll events, so that a report that was fetched before a detach finds nobody, whatever
     * descriptor or address came back since. The id's low bits are the slot.
     */
    struct Watch {
        uint64_t id;
        IEventObserver* observer;  ///< null in a free slot
        int fd;
        uint32_t events;
        bool added;  ///< epoll knows it
        uint64_t reports;
    };

    int control(int operation, Watch& watch) CORVANE_REQUIRES(mLock);
    void unwatch(Watch& watch) CORVANE_REQUIRES(mLock);
    size_t freeSlot() CORVANE_REQUIRES(mLock);
    IEventObserver* begin(uint64_t id, uint32_t events) CORVANE_EXCLUDES(mLock);
    void dispatch(uint64_t id, uint32_t events) CORVANE_EXCLUDES(mLock);
    void awaitCallback(const IEventObserver* observer, MutexLock& lock) CORVANE_REQUIRES(mLock);

    const std::string mName;
    UniqueFd mEpollFd;
    UniqueFd mWakeFd;
    std::atomic<bool> mExit{false};
    std::atomic<std::thread::id> mThread{};
    mutable Mutex mLock;
    std::condition_variable mCallbackEnded;
    std::vector<Watch> mWatches CORVANE_GUARDED_BY(mLock);
    std::unordered_map<IEventObserver*, size_t> mSlots CORVANE_GUARDED_BY(mLock);
    uint64_t mAttachments CORVANE_GUARDED_BY(mLock) = 0;
    /** Set under the lock, cleared without: whoever waits for that is counted before he looks. */
    std::atomic<IEventObserver*> mCalled{nullptr};
    std::atomic<int> mWaiting{0};
};

int EpollEventMonitor::Loop::open() {
    mEpollFd.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!mEpollFd)
        return -errno;
    mWakeFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!mWakeFd)
        return -errno;
    epoll_event event{EPOLLIN, {.u64 = kWakeId}};
    return epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, mWakeFd.get(), &event) == 0 ? 0 : -errno;
}

void EpollEventMonitor::Loop::requestExit() {
    mExit = true;
    eventfd_write(mWakeFd.get(), 1);
}

int EpollEventMonitor::Loop::readyToRun(const std::string& threadName) {
    mThread = std::this_thread::get_id();
    customizeThreadReadyToRun(threadName.data(), threadName.size());
    return 0;
}

bool EpollEventMonitor::Loop::threadLoop() {
    epoll_event events[kBatch];
    const int count = epoll_wait(mEpollFd.get(), events, kBatch, -1);
    if (count < 0 && errno != EINTR) {
        CORVANE_LOGE("epoll_wait: %s", strerror(errno));
        return false;
    }
    for (int i = 0; i < count && !mExit; ++i)
        if (events[i].data.u64 != kWakeId)
            dispatch(events[i].data.u64, events[i].events);
    return !mExit;
}

/** @return whom to call, null when he was detached since the report was fetched. */
IEventObserver* EpollEventMonitor::Loop::begin(uint64_t id, uint32_t events) {
    const MutexLock lock(mLock);
    Watch& watch = mWatches[slotOf(id)];
    if (watch.id != id)
        return nullptr;
    ++watch.reports;
    if (isLasting(events) && (watch.events & EPOLLONESHOT) == 0)
        unwatch(watch);
    mCalled.store(watch.observer, std::memory_order_relaxed);
    return watch.observer;
}

void EpollEventMonitor::Loop::dispatch(uint64_t id, uint32_t events) {
    IEventObserver* const observer = begin(id, events);
    if (observer == nullptr)
        return;
    observer->onEvent({events});
    // The observer may be gone by now.
    mCalled.store(nullptr);
    if (mWaiting.load() == 0)
        return;
    const MutexLock lock(mLock);
    mCallbackEnded.notify_all();
}

void EpollEventMonitor::Loop::awaitCallback(const IEventObserver* observer, MutexLock& lock) {
    mWaiting.fetch_add(1);
    while (mCalled.load() == observer)
        mCallbackEnded.wait(lock.native());
    mWaiting.fetch_sub(1);
}

int EpollEventMonitor::Loop::control(int operation, Watch& watch) {
    epoll_event event{watch.events, {.u64 = watch.id}};
    return epoll_ctl(mEpollFd.get(), operation, watch.fd, &event) == 0 ? 0 : -errno;
}

void EpollEventMonitor::Loop::unwatch(Watch& watch) {
    control(EPOLL_CTL_DEL, watch);
    watch.added = false;
}

size_t EpollEventMonitor::Loop::freeSlot() {
    const auto found = std::find_if(mWatches.begin(), mWatches.end(),
                                    [](const Watch& watch) { return watch.observer == nullptr; });
    const auto slot = static_cast<size_t>(found - mWatches.begin());
    if (found == mWatches.end() && slot < kMostSlots)
        mWatches.push_back({});
    return slot;
}

int EpollEventMonitor::Loop::attach(IEventObserver* observer, uint32_t events) {
    if (observer == nullptr)
        return -EINVAL;
    const int fd = observer->getEventFD();
    if (fd < 0)
        return -EBADF;
    const MutexLock lock(mLock);
    if (mSlots.count(observer) != 0)
        return -EEXIST;
    const size_t slot = freeSlot();
    if (slot == kMostSlots)
        return -ENOSPC;
    Watch watch{
        ++mAttachments << kSlotBits | slot, observer, fd, events, !isDeferred(fd, events), 0};
    if (watch.added)
        if (const int result = control(EPOLL_CTL_ADD, watch); result != 0)
            return result;
    mSlots.emplace(observer, slot);
    mWatches[slot] = watch;
    return 0;
}

int EpollEventMonitor::Loop::rearm(IEventObserver* observer, uint32_t events) {
    const MutexLock lock(mLock);
    const auto found = mSlots.find(observer);
    if (found == mSlots.end())
        return -ENOENT;
    Watch& watch = mWatches[found->second];
    watch.events = events;
    const int result = control(watch.added ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, watch);
    watch.added = watch.added || result == 0;
    return result;
}

int EpollEventMonitor::Loop::detach(IEventObserver* observer) {
    MutexLock lock(mLock);
    const auto found = mSlots.find(observer);
    const bool attached = found != mSlots.end();
    if (attached) {
        Watch watch = std::exchange(mWatches[found->second], Watch{});
        mSlots.erase(found);
        // A descriptor that was closed too early may be another observer's by now.
        const bool reused = std::any_of(
            mWatches.begin(), mWatches.end(),
            [&watch](const Watch& other) { return other.added && other.fd == watch.fd; });
        if (watch.added && !reused)
            control(EPOLL_CTL_DEL, watch);
    }
    if (observer != nullptr && mThread.load() != std::this_thread::get_id())
        awaitCallback(observer, lock);
    return attached ? 0 : -ENOENT;
}

void EpollEventMonitor::Loop::dumpState(IPrinter* printer) const {
    std::vector<Watch> watches;
    {
        const MutexLock lock(mLock);
        std::copy_if(mWatches.begin(), mWatches.end(), std::back_inserter(watches),
                     [](const Watch& watch) { return watch.observer != nullptr; });
    }
    std::sort(watches.begin(), watches.end(),
              [](const Watch& a, const Watch& b) { return a.id < b.id; });
    printer->printFormatLine("<<EpollEventMonitor>> thread=%s observers=%zu", mName.c_str(),
                             watches.size());
    for (const Watch& watch : watches)
        printer->printFormatLine("    fd=%d events=%#x reports=%llu%s", watch.fd, watch.events,
                                 static_cast<unsigned long long>(watch.reports),
                                 watch.added ? "" : " (not watched before it is re-armed)");
}

EpollEventMonitor::EpollEventMonitor(std::shared_ptr<Loop> loop) : mLoop(std::move(loop)) {
}

std::shared_ptr<EpollEventMonitor> EpollEventMonitor::make(std::string threadName) try {
    auto loop = std::make_shared<Loop>(std::move(threadName));
    if (const int result = loop->open(); result != 0) {
        CORVANE_LOGE("No epoll or event descriptor: %d", result);
        return nullptr;
    }
    std::shared_ptr<EpollEventMonitor> monitor(new EpollEventMonitor(loop));
    monitor->mThread.setThreadName(loop->getThreadName());
    if (const int result = monitor->mThread.run(loop); result != 0) {
        CORVANE_LOGE("No thread: %d", result);
        return nullptr;
    }
    return monitor;
}
CORVANE_NO_THROW

EpollEventMonitor::~EpollEventMonitor() = default;

void EpollEventMonitor::dumpState(IPrinter* printer) const try { mLoop->dumpState(printer); }
CORVANE_NO_THROW

const char* EpollEventMonitor::getThreadName() const {
    return mLoop->getThreadName();
}

int EpollEventMonitor::attachObserver(IEventObserver* observer, uint32_t events) try {
    return mLoop->attach(observer, events);
}
CORVANE_NO_THROW

int EpollEventMonitor::rearmObserver(IEventObserver* observer, uint32_t events) {
    return mLoop->rearm(observer, events);
}

int EpollEventMonitor::detachObserver(IEventObserver* observer) {
    return mLoop->detach(observer);
}

}  // namespace NSVista::NSCorvane::client
