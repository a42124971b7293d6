// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2VideoDevice.h>
#include <corvane/client/SceneSession.h>
#include <corvane/client/VideoNode.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/UniqueFd.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "Signal.h"

CORVANE_LOG_UNIT("corvane-SceneSession")

namespace NSVista::NSCorvane::client {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

/** Of a session: bits of SessionRequest::mPending. */
constexpr size_t kMaxPorts = 60;
constexpr milliseconds kDestructorDrain{1000};
constexpr milliseconds kLastDequeues{1000};

uint64_t bitOf(size_t ordinal) {
    return uint64_t{1} << ordinal;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

/** @return what two ports have in common that they must not, empty for nothing. */
std::string clashOf(const SessionPort& a, const SessionPort& b) {
    const std::string both = "ports " + quoted(a.name) + " and " + quoted(b.name);
    if (a.index == b.index)
        return both + " have the same index " + std::to_string(a.index);
    return a.entity == b.entity ? both + " use the same entity " + quoted(a.entity) : std::string();
}

/** @return why a link cannot be enabled, null when nothing speaks against it. */
const char* wrongWithLink(const IMediaDevice& media, const SessionLink& link) {
    if (!media.hasEntity(link.sourceEntity) || !media.hasEntity(link.sinkEntity))
        return media.hasEntity(link.sourceEntity) ? "the device has no such sink entity"
                                                  : "the device has no such source entity";
    const auto* const device = dynamic_cast<const mc::MediaDevice*>(&media);
    if (device == nullptr)
        return nullptr;  // What a client brings along cannot be asked.
    switch (device->matchLink(link.sourceEntity, link.sourcePad, link.sinkEntity, link.sinkPad)) {
        case mc::MediaDevice::LinkMatch::kNone:
            return "the device has no link between these pads";
        case mc::MediaDevice::LinkMatch::kOther:
            return "another link of the device has the same two pad numbers, and would be set";
        default:
            return nullptr;
    }
}

}  // namespace

struct SceneSession::Wakeup {
    Signal signal;
    UniqueFd eventFd;
};

SceneSession::SceneSession(SessionDesc desc)
    : mDesc(std::move(desc)),
      mAllPorts(bitOf(std::min(mDesc.ports.size(), kMaxPorts)) - 1),
      mCounts(std::make_unique<Counts[]>(mDesc.ports.size())),
      mWakeup(std::make_unique<Wakeup>()),
      mLosses(mDesc.ports.size()) {
}

std::unique_ptr<SceneSession> SceneSession::open(SessionDesc desc,
                                                 std::shared_ptr<IMediaDevice> media,
                                                 IDmaBufSource& source, int& error,
                                                 std::shared_ptr<SceneDebugInfo> debugInfo) try {
    std::unique_ptr<SceneSession> session(new SceneSession(std::move(desc)));
    error = session->openScene(std::move(media), std::move(debugInfo));
    if (error == 0)
        error = session->prepareBuffers(source);
    if (error != 0)
        session.reset();
    return session;
}
CORVANE_NO_THROW

std::string SceneSession::wrongWith(const IMediaDevice& media) const {
    if (mDesc.ports.empty() || mDesc.ports.size() > kMaxPorts)
        return "a session has 1 to " + std::to_string(kMaxPorts) + " ports, not " +
               std::to_string(mDesc.ports.size());
    if (mDesc.buffers < 1 || mDesc.buffers > V4L2VideoDevice::kMaxBuffers)
        return "a session has 1 to " + std::to_string(V4L2VideoDevice::kMaxBuffers) +
               " buffers a port, not " + std::to_string(mDesc.buffers);
    for (size_t i = 0; i < mDesc.ports.size(); ++i) {
        const SessionPort& port = mDesc.ports[i];
        for (size_t j = 0; j < i; ++j)
            if (std::string clash = clashOf(mDesc.ports[j], port); !clash.empty())
                return clash;
        if (!media.hasEntity(port.entity))
            return "port " + quoted(port.name) + ": the device has no entity " +
                   quoted(port.entity);
    }
    for (const SessionLink& link : mDesc.links)
        if (const char* wrong = wrongWithLink(media, link); wrong != nullptr)
            return "link " + link.sourceEntity + ":" + std::to_string(link.sourcePad) + " to " +
                   link.sinkEntity + ":" + std::to_string(link.sinkPad) + ": " + wrong;
    return {};
}

void SceneSession::describe() {
    for (const SessionPort& port : mDesc.ports) {
        mIsInOrder = mIsInOrder && port.index == static_cast<int>(mPortDescs.size());
        mPortDescs.push_back(
            {port.name.c_str(), port.index, port.entity.c_str(), true, false, false});
    }
    for (const SessionLink& link : mDesc.links)
        mLinkDescs.push_back(
            {link.sourceEntity.c_str(), link.sourcePad, link.sinkEntity.c_str(), link.sinkPad});
    mSceneDesc = {mDesc.name.c_str(),
                  this,
                  static_cast<int32_t>(mPortDescs.size()),
                  mPortDescs.data(),
                  static_cast<int32_t>(mLinkDescs.size()),
                  mLinkDescs.data()};
}

int SceneSession::openScene(std::shared_ptr<IMediaDevice> media,
                            std::shared_ptr<SceneDebugInfo> debugInfo) {
    const std::string wrong = media == nullptr ? "there is no media device" : wrongWith(*media);
    if (!wrong.empty()) {
        CORVANE_LOGE("%s: %s", mDesc.name.c_str(), wrong.c_str());
        return -EINVAL;
    }
    describe();
    mEvents = EpollEventMonitor::make();
    if (mEvents == nullptr)
        return -EMFILE;
    if (const int result = media->acquire(); result != 0)
        return result;
    mMedia = std::move(media);
    auto scene = std::make_shared<Scene>(std::move(debugInfo), mSceneDesc, mMedia);
    if (const int result = scene->init(); result != 0)
        return result;
    mScene = std::move(scene);
    return mScene->acquire();
}

int SceneSession::prepareBuffers(IDmaBufSource& source) {
    // First of all: here a busy device says so, where a refused format would end the service.
    for (const SessionPort& port : mDesc.ports)
        if (const int result = askForBuffers(port); result != 0)
            return result;
    for (const SessionPort& wanted : mDesc.ports) {
        PixelFormat format{};
        if (const int result = negotiate(wanted, mScene->queryPort(wanted.index), format);
            result != 0)
            return result;
        mFormats.push_back(format);
    }
    // Before the ports own their nodes' buffers: the source may be one of the nodes.
    for (int slot = 0; slot < mDesc.buffers; ++slot)
        if (const int result = allocateRequest(static_cast<unsigned>(slot), source); result != 0)
            return result;
    for (size_t i = 0; i < mDesc.ports.size(); ++i)
        if (const int result =
                mScene->importBuffer(mScene->queryPort(mDesc.ports[i].index), mIndexCounts[i]);
            result != 0)
            return result;
    prepareRequests();
    return 0;
}

int SceneSession::askForBuffers(const SessionPort& port) {
    // With one index more than requests no queueing finds all of them taken.
    const auto wanted =
        static_cast<uint32_t>(std::min(mDesc.buffers + 1, V4L2VideoDevice::kMaxBuffers));
    uint32_t granted = 0;
    const int result =
        queryGrantedBuffers(mMedia->getEntityDevnodePath(port.entity), wanted, granted);
    if (result != 0) {
        CORVANE_LOGE("%s: %s cannot be asked for buffers: %s", mDesc.name.c_str(),
                     port.name.c_str(), strerror(-result));
        return result;
    }
    if (granted < static_cast<uint32_t>(mDesc.buffers)) {
        CORVANE_LOGE("%s: %s grants %u buffers, not %d", mDesc.name.c_str(), port.name.c_str(),
                     granted, mDesc.buffers);
        return -ENOMEM;
    }
    mIndexCounts.push_back(static_cast<int>(std::min(granted, wanted)));
    return 0;
}

void SceneSession::prepareRequests() {
    mScene->setDirectDequeue(mDesc.direct);
    mScene->setKeepIndexes(true);
    mScene->setBufferDequeuedCallback([this](const DequeuedBuffer& buffer) { dequeued(buffer); });
    mScene->setRequestDoneCallback([this](IRequest* request) {
        requestDone(*static_cast<SessionRequest*>(request->getCookie()));
    });
    for (const auto& request : mRequests) {
        request->mRequest = mScene->createRequest();
        request->mRequest->setCookie(request.get());
        if (mDesc.times)
            request->mRequest->setTrackBuffer(request->mTrack);
        request->mRequest->setMonitor(mEvents);
        const auto fd = static_cast<size_t>(request->mRequest->getRequestFD());
        mRequestOfFd.resize(std::max(mRequestOfFd.size(), fd + 1));
        mRequestOfFd[fd] = request.get();
    }
    mFdEnd = static_cast<uint32_t>(mRequestOfFd.size());
    mFree = ~uint64_t{0} >> (V4L2VideoDevice::kMaxBuffers - mDesc.buffers);
    const MutexLock lock(mLock);
    mFinished.reserve(mRequests.size());
}

int SceneSession::negotiate(const SessionPort& wanted, const std::shared_ptr<IPort>& port,
                            PixelFormat& format) {
    if (const int result = mScene->getFormat(port, format); result != 0)
        return result;
    const bool isMeta = format.width == 0;
    const bool resize = !isMeta && wanted.width != 0 && wanted.height != 0;
    if (wanted.format == 0 && !resize)
        return 0;
    if (wanted.format != 0)
        format.format = wanted.format;
    if (resize) {
        format.width = wanted.width;
        format.height = wanted.height;
    }
    if (!isMeta)  // The driver knows best how long lines are.
        std::fill(std::begin(format.planes), std::end(format.planes), PixelFormat::Plane{});
    return mScene->setFormat(port, format);
}

int SceneSession::allocateRequest(unsigned slot, IDmaBufSource& source) {
    auto request = std::make_unique<SessionRequest>();
    request->mSlot = slot;
    request->mFrames = std::vector<Frame>(mFormats.size());
    for (size_t port = 0; port < mFormats.size(); ++port)
        if (const int result =
                request->mFrames[port].allocate(mFormats[port], mDesc.layout, source);
            result != 0) {
            CORVANE_LOGE("%s: no buffer for %s from %s: %s", mDesc.name.c_str(),
                         mDesc.ports[port].name.c_str(), source.toString().c_str(),
                         strerror(-result));
            return result;
        }
    mRequests.push_back(std::move(request));
    return 0;
}

SceneSession::~SceneSession() try {
    stop(kDestructorDrain);
    mEvents.reset();
    mRequests.clear();
    if (mScene) {
        mScene->release();
        mScene->uninit();
        mScene.reset();
    }
    if (mMedia)
        mMedia->release();
}
CORVANE_NO_THROW

void SceneSession::visitAll(const Visit& visit) try {
    for (const auto& request : mRequests)
        visit(*request);
}
CORVANE_NO_THROW

int SceneSession::eventFd() {
    if (!mWakeup->eventFd)
        mWakeup->eventFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return mWakeup->eventFd ? mWakeup->eventFd.get() : -errno;
}

int SceneSession::start() {
    if (std::exchange(mWasStarted, true))
        return -EBUSY;
    if (const int result = mScene->start(); result != 0)
        return result;
    mStreaming = true;
    // Not 0 where the service outlived it: a request would wait for a port that does not stream.
    const int refusal = mScene->streamRefusal();
    mRefused = refusal != 0;
    return refusal;
}

SessionRequest* SceneSession::takeFree() {
    uint64_t free = mFree.load(std::memory_order_relaxed);
    while (free != 0)
        if (mFree.compare_exchange_weak(free, free & (free - 1), std::memory_order_acquire))
            return mRequests[static_cast<size_t>(std::countr_zero(free))].get();
    return nullptr;
}

int SceneSession::submit(const Visit& fill) try {
    if (!mStreaming || mRefused)
        return -EPIPE;
    SessionRequest* const request = takeFree();
    if (request == nullptr)
        return mRetired == mRequests.size() ? -ENOBUFS : -EAGAIN;
    return queue(*request, fill);
}
CORVANE_NO_THROW

int SceneSession::submitAgain(SessionRequest& request, const Visit& fill) try {
    if (!mStreaming || mRefused)
        return -EPIPE;
    const uint64_t pending = request.mPending;
    if ((pending & SessionRequest::kRetired) != 0)
        return -ENOBUFS;
    return pending == SessionRequest::kHeld ? queue(request, fill) : -EAGAIN;
}
CORVANE_NO_THROW

int SceneSession::queue(SessionRequest& request, const Visit& fill) {
    request.mNumber = mNumbers.fetch_add(1, std::memory_order_relaxed);
    if (fill)
        fill(request);
    const PortDesc* port = mPortDescs.data();
    for (Frame& frame : request.mFrames) {
        frame.setResult(-EINPROGRESS);
        request.mRequest->addBuffer((port++)->index,
                                    [&frame](FrameBuffer& to) { to = frame.mBuffer; });
    }
    mInFlight.fetch_add(1, std::memory_order_relaxed);
    mAccepted.fetch_add(1, std::memory_order_relaxed);
    request.mCycle.fetch_add(1, std::memory_order_relaxed);
    request.mPending.store(mAllPorts | SessionRequest::kNotDone | SessionRequest::kHeld,
                           std::memory_order_release);
    if (mDesc.times)
        request.mQueued = nanoseconds(monotonicInNs());
    const int result = mScene->queueRequest(request.mRequest.get(), 0);
    if (result == 0)
        return 0;
    mRefused = true;
    mAccepted.fetch_sub(1, std::memory_order_relaxed);
    mInFlight.fetch_sub(1, std::memory_order_release);
    mWakeup->signal.raise();
    return result;
}

void SceneSession::requestDone(SessionRequest& request) {
    if (mDesc.times)
        request.mDone = nanoseconds(monotonicInNs());
    clear(request, SessionRequest::kNotDone);
    // One order with lose(): either this sees the loss, or that sees the request done.
    if (mHasLosses.load(std::memory_order_seq_cst))
        settleLosses();
}

/** @return the ordinal of one of the session's ports. */
size_t SceneSession::ordinalOf(int portIndex) const {
    size_t port = 0;
    if (mIsInOrder)
        return static_cast<size_t>(portIndex);
    while (mPortDescs[port].index != portIndex)
        ++port;
    return port;
}

SessionRequest* SceneSession::requestOf(const DequeuedBuffer& buffer) const {
    const auto fd = static_cast<uint32_t>(buffer.requestFd);
    return fd < mFdEnd ? mRequestOfFd[fd] : nullptr;
}

// All dequeues of a session are on one thread, and so are the losses that they tell of.
void SceneSession::dequeued(const DequeuedBuffer& buffer) {
    const size_t port = ordinalOf(buffer.portIndex);
    if (buffer.result < 0 || mHasLosses.load(std::memory_order_relaxed)) {
        dequeuedAmongLosses(port, buffer);
        return;
    }
    SessionRequest* const request = requestOf(buffer);
    const uint64_t bit = bitOf(port);
    if (request == nullptr || (request->mPending.load(std::memory_order_relaxed) & bit) == 0)
        return;
    mCounts[port].take(buffer);
    request->mFrames[port].tell(buffer);
    // Nobody else clears the bit of a frame while none is lost.
    const uint64_t left = request->mPending.fetch_sub(bit, std::memory_order_seq_cst) - bit;
    if ((left & ~SessionRequest::kHeld) == 0)
        goOn(*request, bit, left);
}

void SceneSession::dequeuedAmongLosses(size_t port, const DequeuedBuffer& buffer) {
    if (buffer.result < 0) {
        lose(port, buffer.result);
        return;
    }
    SessionRequest* const request = requestOf(buffer);
    if (request == nullptr)
        return;
    mCounts[port].take(buffer);
    {
        // The completing thread may take this very frame for a lost one.
        const MutexLock lock(mLock);
        if ((request->mPending.load(std::memory_order_relaxed) & bitOf(port)) != 0)
            request->mFrames[port].tell(buffer);
    }
    if (!clear(*request, bitOf(port)))
        cameLate(*request, port);
}

/**
 * A frame that was taken for lost is back after all: the driver had kept it ready. So it has one
 * ready for whoever this dequeue was made for.
 */
void SceneSession::cameLate(SessionRequest& request, size_t port) {
    bool isWhole = false;
    {
        const MutexLock lock(mLock);
        const bool wasLost = (request.mLost & bitOf(port)) != 0;
        request.mLost &= ~bitOf(port);
        isWhole = wasLost && request.mLost == 0;
        if (isWhole)
            --mRetired;
    }
    if (isWhole)
        clear(request, SessionRequest::kRetired);
    mScene->queryPort(mPortDescs[port].index)->getVideoDevice()->dequeBuffer();
}

/** @return whether the bit was set. */
bool SceneSession::clear(SessionRequest& request, uint64_t bit) {
    const uint64_t before = request.mPending.fetch_and(~bit, std::memory_order_seq_cst);
    if ((before & bit) == 0)
        return false;
    goOn(request, bit, before & ~bit);
    return true;
}

void SceneSession::goOn(SessionRequest& request, uint64_t cleared, uint64_t left) {
    const bool isSettled =
        (cleared & SessionRequest::kLater) == 0 && (left & ~SessionRequest::kLater) == 0;
    const bool isDelivered =
        mDesc.handOver == HandOver::WhenDone ? cleared == SessionRequest::kNotDone : isSettled;
    if (isDelivered)
        deliver(request);
    if (left == 0)
        mFree.fetch_or(bitOf(request.mSlot), std::memory_order_release);
    if (isSettled)
        mInFlight.fetch_sub(1, std::memory_order_release);
    if (isSettled || isDelivered)
        mWakeup->signal.raise();
}

void SceneSession::deliver(SessionRequest& request) {
    if (mDone) {
        const uint32_t cycle = request.mCycle.load(std::memory_order_relaxed);
        mDone(request);
        if (request.mCycle.load(std::memory_order_relaxed) == cycle)
            clear(request, SessionRequest::kHeld);
        return;
    }
    const MutexLock lock(mLock);
    mFinished.push_back(&request);
    if (mWakeup->eventFd && mFinished.size() == 1)
        eventfd_write(mWakeup->eventFd.get(), 1);
}

void SceneSession::lose(size_t port, int error) {
    mCounts[port].lost.fetch_add(1, std::memory_order_relaxed);
    CORVANE_LOGE("%s: %s lost a frame, its dequeue failed: %s", mDesc.name.c_str(),
                 mDesc.ports[port].name.c_str(), strerror(-error));
    {
        const MutexLock lock(mLock);
        mLosses[port].push_back(error);
    }
    mHasLosses.store(true, std::memory_order_seq_cst);
    settleLosses();
}

void SceneSession::settleLosses() {
    for (size_t port = 0; port < mDesc.ports.size(); ++port)
        while (settleOneLoss(port)) {
        }
}

bool SceneSession::settleOneLoss(size_t port) {
    // A failed dequeue does not tell whose buffer it was: the oldest request that is done and still
    // lacks one of this port is the likeliest.
    SessionRequest* victim = nullptr;
    {
        const MutexLock lock(mLock);
        if (mLosses[port].empty())
            return false;
        const auto lacks = [port](const SessionRequest& request) {
            const uint64_t pending = request.mPending.load(std::memory_order_seq_cst);
            constexpr uint64_t kNot = SessionRequest::kNotDone | SessionRequest::kSettling;
            return (pending & bitOf(port)) != 0 && (pending & kNot) == 0;
        };
        for (const auto& request : mRequests)
            if (lacks(*request) && (victim == nullptr || request->mNumber < victim->mNumber))
                victim = request.get();
        if (victim == nullptr)
            return false;
        uint64_t pending = victim->mPending.load(std::memory_order_acquire);
        do {
            if ((pending & bitOf(port)) == 0)
                return true;  // It came just now: look again.
        } while (!victim->mPending.compare_exchange_weak(pending, (pending & ~bitOf(port)) |
                                                                      SessionRequest::kSettling |
                                                                      SessionRequest::kRetired));
        if (victim->mLost == 0)
            ++mRetired;
        victim->mLost |= bitOf(port);
        victim->mFrames[port].mDequeued = {};
        victim->mFrames[port].mDequeued.result = mLosses[port].front();
        victim->mFrames[port].setResult(mLosses[port].front());
        mLosses[port].erase(mLosses[port].begin());
    }
    clear(*victim, SessionRequest::kSettling);
    return true;
}

int SceneSession::wait(milliseconds timeout, const Visit& inspect) try {
    const auto deadline = Signal::Clock::now() + timeout;
    SessionRequest* request = nullptr;
    while (request == nullptr) {
        const uint32_t seen = mWakeup->signal.value();
        // In this order: what was under way before is finished by the time it no longer is.
        const bool isIdle = mInFlight.load(std::memory_order_acquire) == 0;
        {
            const MutexLock lock(mLock);
            if (!mFinished.empty()) {
                request = mFinished.front();
                mFinished.erase(mFinished.begin());
            }
            eventfd_t ignored = 0;
            if (mWakeup->eventFd && mFinished.empty())
                eventfd_read(mWakeup->eventFd.get(), &ignored);
        }
        if (request == nullptr && isIdle)
            return -ENOENT;
        if (request == nullptr && !mWakeup->signal.wait(seen, deadline))
            return -ETIMEDOUT;
    }
    if (inspect)
        inspect(*request);
    clear(*request, SessionRequest::kHeld);
    return 0;
}
CORVANE_NO_THROW

template <class Condition>
bool SceneSession::waitFor(std::chrono::steady_clock::time_point deadline, Condition isMet) const {
    for (;;) {
        const uint32_t seen = mWakeup->signal.value();
        if (isMet())
            return true;
        if (!mWakeup->signal.wait(seen, deadline))
            return isMet();
    }
}

int SceneSession::drain(milliseconds timeout) {
    const auto isIdle = [this] { return mInFlight.load(std::memory_order_acquire) == 0; };
    return waitFor(Signal::Clock::now() + timeout, isIdle) ? 0 : -ETIMEDOUT;
}

bool SceneSession::isAwaitingDequeues() const {
    return std::any_of(mRequests.begin(), mRequests.end(), [this](const auto& request) {
        const uint64_t pending = request->mPending.load(std::memory_order_acquire);
        return (pending & SessionRequest::kNotDone) == 0 && (pending & mAllPorts) != 0;
    });
}

int SceneSession::stop(milliseconds timeout) try {
    if (!mStreaming.exchange(false))
        return -EPIPE;
    const int drained = drain(timeout);
    mEvents.reset();
    // No request completes any more; what did complete is still being dequeued, perhaps.
    if (drained != 0) {
        waitFor(Signal::Clock::now() + kLastDequeues, [this] { return !isAwaitingDequeues(); });
        tellLost();
    }
    const int stopped = mScene->stop();
    const int refusal = mScene->streamRefusal();
    mInFlight = 0;
    return stopped != 0 ? stopped : refusal != 0 ? refusal : drained;
}
CORVANE_NO_THROW

void SceneSession::tellLost() const {
    std::string ports;
    for (const PortStatistics& port : statistics())
        if (const uint64_t left = port.queued - port.dequeued - port.lost; left != 0)
            ports += (ports.empty() ? "" : ", ") + port.name + " " + std::to_string(left);
    CORVANE_LOGW("%s: stopped with requests under way; frames still with the driver: %s",
                 mDesc.name.c_str(), ports.empty() ? "none" : ports.c_str());
}

std::vector<PortStatistics> SceneSession::statistics() const try {
    std::vector<PortStatistics> result;
    for (size_t i = 0; i < mDesc.ports.size(); ++i) {
        const auto device = std::dynamic_pointer_cast<V4L2VideoDevice>(
            mScene->queryPort(mDesc.ports[i].index)->getVideoDevice());
        const Counts& counts = mCounts[i];
        result.push_back({mDesc.ports[i].name, mAccepted.load(), counts.dequeued.load(),
                          counts.broken.load(), counts.lost.load(),
                          device ? device->remappedBuffers() : 0});
    }
    return result;
}
CORVANE_NO_THROW

void SceneSession::dumpState(IPrinter* printer) const try {
    if (mEvents)
        mEvents->dumpState(printer);
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane::client
