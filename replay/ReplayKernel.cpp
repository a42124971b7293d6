// SPDX-License-Identifier: Apache-2.0
#include <corvane/kvxdip.h>
#include <corvane/platform/Clock.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/UniqueFd.h>
#include <corvane/replay/ReplayKernel.h>
#include <fcntl.h>
#include <linux/media.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <thread>
#include <utility>

#include "Answer.h"
#include "PriorityFd.h"
#include "RecordArgument.h"
#include "Script.h"

namespace NSVista::NSCorvane::replay {

namespace {

using record::Operation;

/** Descriptors of the replay's own keep out of the client's numbers. */
constexpr int kOwnNumbers = 200;
/** A client may be later than it was by this much before the record goes on without its call. */
constexpr int64_t kPatienceNs = 2000000000;
/** Shorter delays are left out of a fast replay. */
constexpr int64_t kLongNs = 1000000000;

constexpr size_t kNone = Script::kNone;

int fail(int result) {
    if (result < 0)
        errno = -result;
    return result;
}

/** A call of this program's, in the form of a record's. */
struct LiveCall : Call {
    LiveCall(Operation asked, int64_t on, uint32_t with) {
        operation = asked;
        handle = on;
        code = with;
        returned = true;
    }
    LiveCall(int fd, uint32_t request, const void* arg) : LiveCall(Operation::Ioctl, fd, request) {
        record::Blocks blocks;
        record::collect(blocks, request, arg, false);
        for (uint32_t i = 0; i < blocks.count; ++i)
            before.push_back(
                {blocks.list[i].what,
                 {static_cast<const uint8_t*>(blocks.list[i].data), blocks.list[i].size}});
    }
    LiveCall(Operation asked, const char* path, uint32_t with = 0) : LiveCall(asked, -1, with) {
        before.push_back(
            {record::kArgument, {reinterpret_cast<const uint8_t*>(path), strlen(path)}});
    }
};

/** Gives a descriptor the number that it had, where that is free. */
int renumbered(int fd, int64_t wanted) {
    if (fd < 0 || fd == wanted || wanted < 0)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, static_cast<int>(wanted));
    if (moved < 0)
        return fd;
    ::close(moved == wanted ? fd : moved);
    return moved == wanted ? moved : fd;
}

}  // namespace

/** A record on its way through once more. */
class ReplayKernel::Play {
public:
    Play(Record record, bool fast) : mScript(std::move(record)), mFast(fast) {
        listSignals();
        mLastMade = std::chrono::steady_clock::now();
        mThread = std::thread([this] {
            pthread_setname_np(pthread_self(), "Replay");
            run();
        });
    }
    ~Play() {
        {
            const MutexLock lock(mLock);
            mEnding = true;
            mChanged.notify_all();
        }
        mThread.join();
    }

    int open(const char* path, int flags);
    int close(int fd);
    int ioctl(int fd, uint32_t code, void* arg);
    int openDir(const char* path, DIR** dir);
    int readDir(DIR* dir, struct dirent** entry);
    int closeDir(DIR* dir);
    int stat(const char* path, struct stat* info);
    int readLink(const char* path, char* buffer, size_t size);

    template <class Read>
    auto read(Read from) {
        const MutexLock lock(mLock);
        return from(mScript);
    }

private:
    using Instant = std::chrono::steady_clock::time_point;

    /** An open descriptor. */
    struct Live {
        size_t object;
        bool isBlocking = false;
        sim::PriorityFd signal;  ///< of nodes and requests
        size_t cycle = kNone;    ///< that a request is in
    };
    /** A request of the record on its way. */
    struct LiveCycle {
        bool isBound = false;
        bool isReady = false;
        int requestFd = -1;
        Instant queued{};
        std::map<size_t, LiveBuffer> buffers;  ///< by the call that queued them
    };
    /** Something that a descriptor shows by itself. */
    struct Signal {
        int64_t ns;    ///< in the record
        size_t cycle;  ///< that completes; #kNone for an event
        size_t call;   ///< that takes the event, or a buffer of no request
    };
    struct LiveDir {
        size_t object;
        struct dirent entry;
    };
    using Finder = std::map<int, Live>::iterator;

    void listSignals();
    void run();
    std::optional<Instant> dueTime(const Signal& signal) CORVANE_REQUIRES(mLock);
    void fire(const Signal& signal) CORVANE_REQUIRES(mLock);

    /** Makes a recorded call again: @return its result, once its time has passed. */
    int finish(MutexLock& lock, Instant began, size_t call) CORVANE_REQUIRES(mLock)
        CORVANE_NO_THREAD_SAFETY_ANALYSIS;  // it lets the caller's lock go for a while
    void make(size_t call) CORVANE_REQUIRES(mLock);
    std::string labelOf(const Live& live) const CORVANE_REQUIRES(mLock) {
        return mScript.story().objects[live.object].label();
    }

    int generic(MutexLock& lock, Instant began, Live& live, const LiveCall& now, void* arg)
        CORVANE_REQUIRES(mLock);
    int queueBuffer(MutexLock& lock, Instant began, Live& live, const LiveCall& now,
                    v4l2_buffer& buffer) CORVANE_REQUIRES(mLock);
    int dequeueBuffer(MutexLock& lock, Instant began, int fd, const LiveCall& now,
                      v4l2_buffer& buffer) CORVANE_REQUIRES(mLock);
    int dequeueEvent(MutexLock& lock, Instant began, Live& live, const LiveCall& now, void* arg)
        CORVANE_REQUIRES(mLock);
    int callRequest(MutexLock& lock, Instant began, Live& live, const LiveCall& now)
        CORVANE_REQUIRES(mLock);
    bool isAvailable(size_t call) const CORVANE_REQUIRES(mLock);
    bool bind(Live& request, size_t node) CORVANE_REQUIRES(mLock);
    int makeDescriptor(size_t object, int64_t wanted, bool isBlocking) CORVANE_REQUIRES(mLock);
    int makeExport(size_t call) CORVANE_REQUIRES(mLock);
    int makeFences(size_t call, const kvxdip_fence& list) CORVANE_REQUIRES(mLock);
    std::string partingOfFences(const Call& recorded, const Call& now) const
        CORVANE_REQUIRES(mLock);
    std::vector<int32_t> descriptorsOf(const Call& call, bool after) const CORVANE_REQUIRES(mLock);
    size_t byPath(Operation operation, const char* path, uint32_t with) CORVANE_REQUIRES(mLock);

    Mutex mLock;
    std::condition_variable mChanged;
    Script mScript CORVANE_GUARDED_BY(mLock);
    const bool mFast;
    bool mEnding CORVANE_GUARDED_BY(mLock) = false;
    std::map<int, Live> mOpen CORVANE_GUARDED_BY(mLock);
    std::map<DIR*, std::unique_ptr<LiveDir>> mDirectories CORVANE_GUARDED_BY(mLock);
    std::vector<LiveCycle> mCycles CORVANE_GUARDED_BY(mLock);
    size_t mFirstUnbound CORVANE_GUARDED_BY(mLock) = 0;  ///< of mCycles
    std::vector<Signal> mSignals CORVANE_GUARDED_BY(mLock);
    size_t mNextSignal CORVANE_GUARDED_BY(mLock) = 0;
    std::map<size_t, int> mEvents CORVANE_GUARDED_BY(mLock);   ///< that wait, by object
    std::set<size_t> mPlainReady CORVANE_GUARDED_BY(mLock);    ///< dequeues of no request
    std::map<int32_t, int> mFences CORVANE_GUARDED_BY(mLock);  ///< by their numbers in the record
    int64_t mLastMadeNs CORVANE_GUARDED_BY(mLock) = 0;         ///< in the record
    Instant mLastMade CORVANE_GUARDED_BY(mLock);
    std::thread mThread;
};

// Called by the constructor alone, before there is another thread.
void ReplayKernel::Play::listSignals() CORVANE_NO_THREAD_SAFETY_ANALYSIS {
    const Story& story = mScript.story();
    mCycles.resize(story.cycles.size());
    for (size_t i = 0; i < story.cycles.size(); ++i)
        if (story.cycles[i].readyNs)
            mSignals.push_back({*story.cycles[i].readyNs, i, kNone});
    const Record& record = mScript.record();
    const auto tells = [&](size_t i) {
        return record.calls[i].isIoctl(VIDIOC_DQEVENT) ||
               (record.calls[i].isIoctl(VIDIOC_DQBUF) && story.cycleOf[i] == kNone);
    };
    for (size_t i = 0; i < record.calls.size(); ++i)
        if (record.calls[i].returned && record.calls[i].result >= 0 && tells(i))
            mSignals.push_back({record.calls[i].begin, kNone, i});
    std::stable_sort(mSignals.begin(), mSignals.end(),
                     [](const Signal& a, const Signal& b) { return a.ns < b.ns; });
    mLastMadeNs = record.calls.empty() ? 0 : record.calls.front().begin;
}

/** @return when a signal is to come; nothing while a call that came before it was not made. */
std::optional<std::chrono::steady_clock::time_point> ReplayKernel::Play::dueTime(
    const Signal& signal) {
    const size_t first = mScript.first();
    if (first != kNone && mScript.call(first).begin < signal.ns)
        return std::nullopt;
    Instant from = mLastMade;
    int64_t delay = signal.ns - mLastMadeNs;
    if (signal.cycle != kNone && mCycles[signal.cycle].isBound) {
        from = mCycles[signal.cycle].queued;
        delay = signal.ns - mScript.story().cycles[signal.cycle].queuedNs;
    }
    const bool isLeftOut = mFast && delay < kLongNs;
    return from + std::chrono::nanoseconds(isLeftOut ? 0 : std::max<int64_t>(delay, 0));
}

void ReplayKernel::Play::fire(const Signal& signal) {
    if (signal.cycle == kNone) {
        const size_t object = mScript.story().objectOf[signal.call];
        const bool isBuffer = mScript.call(signal.call).isIoctl(VIDIOC_DQBUF);
        if (isBuffer)
            mPlainReady.insert(signal.call);
        else
            ++mEvents[object];
        for (auto& [fd, live] : mOpen) {
            if (live.object != object)
                continue;
            if (isBuffer)
                live.signal.addData();
            else
                live.signal.raise();
        }
        return;
    }
    LiveCycle& cycle = mCycles[signal.cycle];
    cycle.isReady = true;
    const auto request = mOpen.find(cycle.requestFd);
    if (request != mOpen.end() && request->second.cycle == signal.cycle)
        request->second.signal.raise();
}

void ReplayKernel::Play::run() {
    MutexLock lock(mLock);
    while (!mEnding) {
        if (mNextSignal == mSignals.size()) {
            mChanged.wait(lock.native());
            continue;
        }
        const Signal& signal = mSignals[mNextSignal];
        const auto due = dueTime(signal);
        const Instant now = std::chrono::steady_clock::now();
        if (due && *due <= now) {
            fire(signal);
            ++mNextSignal;
            mChanged.notify_all();
            continue;
        }
        // The record's client took its time, too.
        const auto giveUp =
            mLastMade +
            std::chrono::nanoseconds(std::max<int64_t>(signal.ns - mLastMadeNs, 0) + kPatienceNs);
        if (!due && giveUp <= now) {
            mScript.giveUpUntil(signal.ns);
            continue;
        }
        mChanged.wait_until(lock.native(), due ? *due : giveUp);
    }
}

void ReplayKernel::Play::make(size_t call) {
    mScript.make(call);
    mLastMadeNs = std::max(mLastMadeNs, mScript.call(call).begin);
    mLastMade = std::chrono::steady_clock::now();
    mChanged.notify_all();
}

int ReplayKernel::Play::finish(MutexLock& lock, Instant began, size_t call) {
    const Call& recorded = mScript.call(call);
    if (!recorded.returned)
        for (;;)  // As it did there: whoever waits for it is in for the same.
            mChanged.wait(lock.native());
    const int result = recorded.result;
    const auto duration = std::chrono::nanoseconds(recorded.duration());
    const bool isLeftOut = duration.count() < (mFast ? kLongNs : 100000);
    lock.unlock();
    if (!isLeftOut)
        std::this_thread::sleep_until(began + duration);
    lock.lock();
    return result;
}

int ReplayKernel::Play::makeDescriptor(size_t object, int64_t wanted, bool isBlocking) {
    Live live{object, isBlocking, {}};
    const int fd = renumbered(live.signal.open(!isBlocking, kOwnNumbers), wanted);
    if (fd >= 0)
        mOpen.insert_or_assign(fd, std::move(live));
    return fd;
}

size_t ReplayKernel::Play::byPath(Operation operation, const char* path, uint32_t with) {
    const size_t call = mScript.findByPath(operation, path);
    const LiveCall now(operation, path, with);
    if (call == kNone) {
        mScript.tellDifference(now, {}, kNone, {});
        return kNone;
    }
    if (mScript.call(call).code != with)
        mScript.tellDifference(now, {}, call, "flags");
    make(call);
    return call;
}

int ReplayKernel::Play::open(const char* path, int flags) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const size_t call = byPath(Operation::Open, path, static_cast<uint32_t>(flags));
    if (call == kNone)
        return -ENOENT;
    const int result = finish(lock, began, call);
    if (result < 0)
        return result;
    return makeDescriptor(mScript.objectBy(call), result, (flags & O_NONBLOCK) == 0);
}

int ReplayKernel::Play::close(int fd) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const Finder found = mOpen.find(fd);
    if (found == mOpen.end()) {
        lock.unlock();
        return System::linuxKernel().close(fd);
    }
    std::string parting;
    const LiveCall now(Operation::Close, fd, 0);
    const size_t call = mScript.findSame(mScript.callsOn(found->second.object), now, parting);
    if (call == kNone)
        mScript.tellDifference(now, labelOf(found->second), kNone, {});
    else
        make(call);
    found->second.signal.close();
    mOpen.erase(found);
    ::close(fd);
    return call != kNone ? finish(lock, began, call) : 0;
}

int ReplayKernel::Play::generic(MutexLock& lock, Instant began, Live& live, const LiveCall& now,
                                void* arg) {
    const std::span<const size_t> calls = mScript.callsOn(live.object);
    std::string parting;
    const size_t call = mScript.findSame(calls, now, parting);
    if (call != kNone && parting.empty() && now.code == KVXDIP_IOC_DEL_FENCE)
        parting = partingOfFences(mScript.call(call), now);
    if (call == kNone || !parting.empty()) {
        const auto next =
            std::find_if(calls.begin(), calls.end(),
                         [&](size_t i) CORVANE_REQUIRES(mLock) { return !mScript.isMade(i); });
        mScript.tellDifference(now, labelOf(live),
                               call != kNone         ? call
                               : next != calls.end() ? *next
                                                     : kNone,
                               parting);
    }
    if (call == kNone)
        return -ENOTTY;
    make(call);
    const int result = finish(lock, began, call);
    const Call& recorded = mScript.call(call);
    answer(recorded, arg);
    if (result < 0 || arg == nullptr)
        return result;
    const size_t object = mScript.objectBy(call);
    if (now.code == MEDIA_IOC_REQUEST_ALLOC && object != kNone) {
        const int fd = makeDescriptor(object, mScript.story().objects[object].handle, false);
        *static_cast<int*>(arg) = fd;
        return fd < 0 ? fd : result;
    }
    if (now.code == VIDIOC_EXPBUF) {
        const int fd = makeExport(call);
        static_cast<v4l2_exportbuffer*>(arg)->fd = fd;
        return fd < 0 ? fd : result;
    }
    if (now.code == KVXDIP_IOC_ADD_FENCE)
        return makeFences(call, *static_cast<const kvxdip_fence*>(arg));
    return result;
}

std::vector<int32_t> ReplayKernel::Play::descriptorsOf(const Call& call, bool after) const {
    const auto bytes = call.piece(record::kArray, after);
    std::vector<int32_t> numbers(bytes.size() / sizeof(int32_t));
    memcpy(numbers.data(), bytes.data(), numbers.size() * sizeof(int32_t));
    return numbers;
}

/** Fences that are signalled already: when the driver did that no call tells. */
int ReplayKernel::Play::makeFences(size_t call, const kvxdip_fence& list) {
    auto* const given = reinterpret_cast<int32_t*>(static_cast<uintptr_t>(list.fds));
    const std::vector<int32_t> recorded = descriptorsOf(mScript.call(call), true);
    for (size_t i = 0; i < std::min<size_t>(list.count, recorded.size()); ++i) {
        given[i] = renumbered(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK), recorded[i]);
        if (given[i] < 0)
            return -EMFILE;
        mFences[recorded[i]] = given[i];
    }
    return mScript.call(call).result;
}

/** @return the first descriptor that is another fence's than the record's, empty for none. */
std::string ReplayKernel::Play::partingOfFences(const Call& recorded, const Call& now) const {
    const std::vector<int32_t> then = descriptorsOf(recorded, false);
    const std::vector<int32_t> given = descriptorsOf(now, false);
    for (size_t i = 0; i < std::min(then.size(), given.size()); ++i) {
        const auto fence = mFences.find(then[i]);
        if (fence != mFences.end() && fence->second != given[i])
            return "fds[" + std::to_string(i) + "], " + std::to_string(fence->second) +
                   " by the record";
    }
    return {};
}

int ReplayKernel::Play::makeExport(size_t call) {
    const uint64_t told =
        mScript.record().machine.read(mScript.call(call).piece(record::kExportSize, true), 0, 8);
    const size_t object = mScript.objectBy(call);
    const int64_t wanted = object != kNone ? mScript.story().objects[object].handle : -1;
    const int fd = renumbered(memfd_create("corvane-replay", MFD_CLOEXEC), wanted);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(told != 0 ? told : 4096)) != 0) {
        const int error = errno;
        ::close(fd);
        return -error;
    }
    return fd < 0 ? -errno : fd;
}

/** Finds the record's request for one whose first buffer is queued on a node. */
bool ReplayKernel::Play::bind(Live& request, size_t node) {
    const auto& cycles = mScript.story().cycles;
    while (mFirstUnbound < cycles.size() && mCycles[mFirstUnbound].isBound)
        ++mFirstUnbound;
    for (size_t i = mFirstUnbound; i < cycles.size(); ++i) {
        const bool fits = !mCycles[i].isBound &&
                          std::any_of(cycles[i].buffers.begin(), cycles[i].buffers.end(),
                                      [&](const BufferUse& use) { return use.node == node; });
        if (!fits)
            continue;
        mCycles[i].isBound = true;
        request.cycle = i;
        return true;
    }
    return false;
}

int ReplayKernel::Play::queueBuffer(MutexLock& lock, Instant began, Live& live, const LiveCall& now,
                                    v4l2_buffer& buffer) {
    const Finder request = mOpen.find(buffer.request_fd);
    if ((buffer.flags & V4L2_BUF_FLAG_REQUEST_FD) == 0 || request == mOpen.end())
        return generic(lock, began, live, now, &buffer);
    if (request->second.cycle == kNone && !bind(request->second, live.object)) {
        mScript.tellDifference(now, labelOf(live), kNone, {});
        return -EINVAL;
    }
    const size_t cycleIndex = request->second.cycle;
    LiveCycle& cycle = mCycles[cycleIndex];
    cycle.requestFd = buffer.request_fd;
    std::vector<size_t> calls;
    for (const BufferUse& use : mScript.story().cycles[cycleIndex].buffers)
        if (use.node == live.object)
            calls.push_back(use.queue);
    std::string parting;
    const size_t call = mScript.findSame(calls, now, parting);
    if (call == kNone || !parting.empty())
        mScript.tellDifference(now, labelOf(live), call, parting);
    if (call == kNone)
        return -EINVAL;
    make(call);
    const LiveBuffer queued = readBuffer(buffer);
    cycle.buffers[call] = queued;
    const int result = finish(lock, began, call);
    answerBuffer(mScript.call(call), buffer, queued);
    return result;
}

int ReplayKernel::Play::callRequest(MutexLock& lock, Instant began, Live& live,
                                    const LiveCall& now) {
    if (live.cycle == kNone)
        return generic(lock, began, live, now, nullptr);
    const size_t cycleIndex = live.cycle;
    std::string parting;
    const size_t call = mScript.findSame(mScript.story().cycles[cycleIndex].calls, now, parting);
    if (call == kNone) {
        mScript.tellDifference(now, labelOf(live), kNone, {});
        return -EINVAL;
    }
    make(call);
    const bool isGood = mScript.call(call).returned && mScript.call(call).result >= 0;
    if (isGood && now.code == MEDIA_REQUEST_IOC_REINIT) {
        live.signal.lower();
        live.cycle = kNone;
    }
    if (!isGood || now.code != MEDIA_REQUEST_IOC_QUEUE)
        return finish(lock, began, call);
    mCycles[cycleIndex].queued = std::chrono::steady_clock::now();
    return finish(lock, began, call);
}

/** Whether the answer of a dequeue can be given. */
bool ReplayKernel::Play::isAvailable(size_t call) const {
    const size_t cycle = mScript.story().cycleOf[call];
    if (cycle != kNone)
        return mCycles[cycle].isReady;
    if (mScript.call(call).result >= 0)
        return mPlainReady.count(call) != 0;
    const size_t first = mScript.first();
    return first == kNone || first >= call;
}

int ReplayKernel::Play::dequeueBuffer(MutexLock& lock, Instant began, int fd, const LiveCall& now,
                                      v4l2_buffer& buffer) {
    for (;;) {
        // While this thread waited the descriptor may have been closed.
        const Finder live = mOpen.find(fd);
        if (live == mOpen.end())
            return -EBADF;
        const size_t object = live->second.object;
        const std::span<const size_t> calls = mScript.callsOn(object);
        size_t idle = kNone;
        size_t next = kNone;
        for (const size_t i : calls)
            if (!mScript.isMade(i) && mScript.call(i).isIoctl(VIDIOC_DQBUF)) {
                size_t& place = mScript.isIdle(i) ? idle : next;
                place = place == kNone ? i : place;
                if (next != kNone)
                    break;
            }
        if (next != kNone && isAvailable(next)) {
            make(next);
            if (mPlainReady.erase(next) != 0)
                live->second.signal.takeData();
            const int result = finish(lock, began, next);
            const size_t cycle = mScript.story().cycleOf[next];
            if (result < 0 || cycle == kNone) {
                answerBuffer(mScript.call(next), buffer, readBuffer(buffer));
                return result;
            }
            for (const BufferUse& use : mScript.story().cycles[cycle].buffers)
                if (use.dequeue == next)
                    answerBuffer(mScript.call(next), buffer, mCycles[cycle].buffers[use.queue]);
            return result;
        }
        if (!live->second.isBlocking) {
            if (next == kNone && idle == kNone)
                mScript.tellDifference(now, labelOf(live->second), kNone, {});
            return -EAGAIN;
        }
        mChanged.wait(lock.native());
    }
}

int ReplayKernel::Play::dequeueEvent(MutexLock& lock, Instant began, Live& live,
                                     const LiveCall& now, void* arg) {
    int& waiting = mEvents[live.object];
    const std::span<const size_t> calls = mScript.callsOn(live.object);
    const auto next =
        std::find_if(calls.begin(), calls.end(), [&](size_t i) CORVANE_REQUIRES(mLock) {
            return !mScript.isMade(i) && !mScript.isIdle(i) &&
                   mScript.call(i).isIoctl(VIDIOC_DQEVENT);
        });
    if (next == calls.end() || mScript.call(*next).result < 0)
        return generic(lock, began, live, now, arg);
    if (waiting == 0)
        return -ENOENT;
    if (--waiting == 0)
        live.signal.lower();
    make(*next);
    const int result = finish(lock, began, *next);
    answer(mScript.call(*next), arg);
    return result;
}

int ReplayKernel::Play::ioctl(int fd, uint32_t code, void* arg) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const Finder found = mOpen.find(fd);
    if (found == mOpen.end()) {
        lock.unlock();
        return System::linuxKernel().ioctl(fd, code, arg);
    }
    Live& live = found->second;
    const LiveCall now(fd, code, arg);
    switch (code) {
        case VIDIOC_QBUF:
            if (arg != nullptr)
                return queueBuffer(lock, began, live, now, *static_cast<v4l2_buffer*>(arg));
            break;
        case VIDIOC_DQBUF:
            if (arg != nullptr)
                return dequeueBuffer(lock, began, fd, now, *static_cast<v4l2_buffer*>(arg));
            break;
        case VIDIOC_DQEVENT:
            return dequeueEvent(lock, began, live, now, arg);
        case MEDIA_REQUEST_IOC_QUEUE:
        case MEDIA_REQUEST_IOC_REINIT:
            return callRequest(lock, began, live, now);
        default:
            break;
    }
    return generic(lock, began, live, now, arg);
}

int ReplayKernel::Play::openDir(const char* path, DIR** dir) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const size_t call = byPath(Operation::OpenDir, path, 0);
    if (call == kNone)
        return -ENOENT;
    if (const int result = finish(lock, began, call); result < 0)
        return result;
    auto live = std::make_unique<LiveDir>();
    live->object = mScript.objectBy(call);
    *dir = reinterpret_cast<DIR*>(live.get());
    mDirectories[*dir] = std::move(live);
    return 0;
}

int ReplayKernel::Play::readDir(DIR* dir, struct dirent** entry) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    *entry = nullptr;
    const auto found = mDirectories.find(dir);
    if (found == mDirectories.end())
        return -EBADF;
    LiveDir& live = *found->second;
    for (const size_t i : mScript.callsOn(live.object)) {
        if (mScript.isMade(i) || mScript.call(i).operation != Operation::ReadDir)
            continue;
        make(i);
        const int result = finish(lock, began, i);
        const std::string name = mScript.call(i).text(true);
        if (result < 0 || name.empty() || name.size() >= sizeof(live.entry.d_name))
            return result;
        live.entry.d_type = static_cast<unsigned char>(mScript.call(i).code);
        live.entry.d_ino = 1;
        memcpy(live.entry.d_name, name.c_str(), name.size() + 1);
        *entry = &live.entry;
        return result;
    }
    mScript.tellDifference(LiveCall(Operation::ReadDir, int64_t{0}, 0U),
                           mScript.story().objects[live.object].label(), kNone, {});
    return 0;
}

int ReplayKernel::Play::closeDir(DIR* dir) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const auto found = mDirectories.find(dir);
    if (found == mDirectories.end())
        return -EBADF;
    const size_t object = found->second->object;
    mDirectories.erase(found);
    for (const size_t i : mScript.callsOn(object)) {
        if (mScript.isMade(i) || mScript.call(i).operation != Operation::CloseDir)
            continue;
        make(i);
        return finish(lock, began, i);
    }
    return 0;
}

int ReplayKernel::Play::stat(const char* path, struct stat* info) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const size_t call = byPath(Operation::Stat, path, 0);
    if (call == kNone)
        return -ENOENT;
    const int result = finish(lock, began, call);
    const auto bytes = mScript.call(call).piece(record::kStat, true);
    record::StatRecord told{};
    if (result < 0 || bytes.size() < sizeof(told))
        return result;
    memcpy(&told, bytes.data(), sizeof(told));
    *info = {};
    info->st_mode = told.mode;
    info->st_rdev = makedev(told.major, told.minor);
    info->st_ino = told.inode;
    info->st_size = static_cast<off_t>(told.size);
    return result;
}

int ReplayKernel::Play::readLink(const char* path, char* buffer, size_t size) {
    const Instant began = std::chrono::steady_clock::now();
    MutexLock lock(mLock);
    const size_t call = byPath(Operation::ReadLink, path, 0);
    if (call == kNone)
        return -ENOENT;
    const int result = finish(lock, began, call);
    const std::string text = mScript.call(call).text(true);
    const size_t length = std::min(text.size(), size);
    std::copy_n(text.data(), length, buffer);
    return result < 0 ? result : static_cast<int>(length);
}

std::unique_ptr<ReplayKernel> ReplayKernel::make(Record record, bool fast, std::string& problem) {
    if (!record.isRecord || !record.isWhole)
        problem = record.problems.empty() ? "it is incomplete" : record.problems.front();
    else if (!record.machine.isNative())
        problem = "it was made on " + record.architecture +
                  ", whose numbers are laid out otherwise: it can be shown, not replayed";
    else
        return std::unique_ptr<ReplayKernel>(
            new ReplayKernel(std::make_unique<Play>(std::move(record), fast)));
    return nullptr;
}

ReplayKernel::ReplayKernel(std::unique_ptr<Play> play) : mPlay(std::move(play)) {
}
ReplayKernel::~ReplayKernel() = default;

uint64_t ReplayKernel::differences() const {
    return mPlay->read([](const Script& script) { return script.differences(); });
}

uint64_t ReplayKernel::callsLeft() const {
    return mPlay->read([](const Script& script) { return script.callsLeft(); });
}

std::string ReplayKernel::nextCall() const {
    return mPlay->read([](const Script& script) {
        return script.first() != kNone ? script.textOf(script.first()) : std::string();
    });
}

bool ReplayKernel::hasExports() const {
    return mPlay->read([](const Script& script) {
        const auto& objects = script.story().objects;
        return std::any_of(objects.begin(), objects.end(), [](const Object& object) {
            return object.kind == Object::Kind::Export;
        });
    });
}

int ReplayKernel::open(const char* path, int flags) {
    return fail(mPlay->open(path, flags));
}
int ReplayKernel::close(int fd) {
    return fail(mPlay->close(fd));
}
int ReplayKernel::ioctl(int fd, unsigned long request, void* arg) {
    return fail(mPlay->ioctl(fd, static_cast<uint32_t>(request), arg));
}
int ReplayKernel::openDir(const char* path, DIR** dir) {
    return fail(mPlay->openDir(path, dir));
}
int ReplayKernel::readDir(DIR* dir, struct dirent** entry) {
    return fail(mPlay->readDir(dir, entry));
}
int ReplayKernel::closeDir(DIR* dir) {
    return fail(mPlay->closeDir(dir));
}
int ReplayKernel::stat(const char* path, struct stat* info) {
    return fail(mPlay->stat(path, info));
}
int ReplayKernel::readLink(const char* path, char* buffer, size_t size) {
    return fail(mPlay->readLink(path, buffer, size));
}

}  // namespace NSVista::NSCorvane::replay
