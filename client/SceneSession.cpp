#include <corvane/client/SceneSession.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

CORVANE_LOG_UNIT("corvane-SceneSession")

namespace NSVista::NSCorvane::client {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int kMaxBuffers = 64;
constexpr milliseconds kDestructorDrain{1000};
constexpr milliseconds kLastDequeues{1000};
constexpr std::chrono::microseconds kDequeuePoll{100};

nanoseconds monotonicNow() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

/** Finds the set of free buffer indexes in a video device's state line. */
class FreeIndexes : public IPrinter {
public:
    /** @param count buffers of the device; all are free while it has printed nothing. */
    explicit FreeIndexes(int count) : mAll(~uint64_t{0} >> (64 - count)), mFree(mAll) {}
    void printLine(const char* text) override {
        if (const char* const at = strstr(text, "Free=0x"))
            sscanf(at, "Free=0x%" SCNx64, &mFree);
    }
    int taken() const { return std::popcount(mAll & ~mFree); }

private:
    uint64_t mAll;
    uint64_t mFree;
};

template <class T, class Key>
bool hasDuplicates(const std::vector<T>& items, Key key) {
    for (size_t i = 0; i < items.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (items[i].*key == items[j].*key)
                return true;
    return false;
}

}  // namespace

std::unique_ptr<SceneSession> SceneSession::open(SessionDesc desc,
                                                 std::shared_ptr<IMediaDevice> media,
                                                 IDmaBufSource& source, int& error,
                                                 std::shared_ptr<SceneDebugInfo> debugInfo) {
    std::unique_ptr<SceneSession> session(new SceneSession(std::move(desc)));
    error = session->openScene(std::move(media), std::move(debugInfo));
    if (error == 0)
        error = session->prepareBuffers(source);
    if (error != 0)
        session.reset();
    return session;
}

bool SceneSession::describe() {
    if (mDesc.ports.empty() || mDesc.buffers < 1 || mDesc.buffers > kMaxBuffers ||
        hasDuplicates(mDesc.ports, &SessionPort::index) ||
        hasDuplicates(mDesc.ports, &SessionPort::entity)) {
        CORVANE_LOGE("%s: no ports, ports twice, or a bad number of buffers: %d",
                     mDesc.name.c_str(), mDesc.buffers);
        return false;
    }
    for (const SessionPort& port : mDesc.ports)
        mPortDescs.push_back(
            {port.name.c_str(), port.index, port.entity.c_str(), true, false, false});
    for (const SessionLink& link : mDesc.links)
        mLinkDescs.push_back(
            {link.sourceEntity.c_str(), link.sourcePad, link.sinkEntity.c_str(), link.sinkPad});
    mSceneDesc = {mDesc.name.c_str(),
                  this,
                  static_cast<int32_t>(mPortDescs.size()),
                  mPortDescs.data(),
                  static_cast<int32_t>(mLinkDescs.size()),
                  mLinkDescs.data()};
    return true;
}

int SceneSession::openScene(std::shared_ptr<IMediaDevice> media,
                            std::shared_ptr<SceneDebugInfo> debugInfo) {
    if (media == nullptr || !describe())
        return -EINVAL;
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
    for (const SessionPort& port : mDesc.ports)
        if (const int result = mScene->importBuffer(mScene->queryPort(port.index), mDesc.buffers);
            result != 0)
            return result;
    mScene->setRequestDoneCallback([this](IRequest* request) {
        requestDone(*static_cast<SessionRequest*>(request->getCookie()));
    });
    for (const auto& request : mRequests) {
        request->mRequest = mScene->createRequest();
        request->mRequest->setCookie(request.get());
        request->mRequest->setTrackBuffer(request->mTrack);
        request->mRequest->setMonitor(mEvents);
    }
    MutexLock lock(mLock);
    mFinished.reserve(mRequests.size());
    mFree = ~uint64_t{0} >> (64 - mDesc.buffers);
    return 0;
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
    request->mFrames.resize(mFormats.size());
    for (size_t port = 0; port < mFormats.size(); ++port)
        if (const int result =
                request->mFrames[port].allocate(mFormats[port], mDesc.layout, source);
            result != 0) {
            CORVANE_LOGE("%s: no buffer for %s from %s: %d", mDesc.name.c_str(),
                         mDesc.ports[port].name.c_str(), source.toString().c_str(), result);
            return result;
        }
    mRequests.push_back(std::move(request));
    return 0;
}

SceneSession::~SceneSession() {
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

void SceneSession::visitAll(const Visit& visit) {
    for (const auto& request : mRequests)
        visit(*request);
}

int SceneSession::start() {
    if (std::exchange(mWasStarted, true))
        return -EBUSY;
    if (const int result = mScene->start(); result != 0)
        return result;
    MutexLock lock(mLock);
    mStreaming = true;
    return 0;
}

int SceneSession::submit(const Visit& fill) {
    MutexLock lock(mLock);
    if (!mStreaming || mRefused)
        return -EPIPE;
    if (mFree == 0)
        return -EAGAIN;
    SessionRequest& request = *mRequests[static_cast<size_t>(std::countr_zero(mFree))];
    mFree &= mFree - 1;
    request.mNumber = mQueuedCount++;
    ++mInFlight;
    lock.unlock();

    if (fill)
        fill(request);
    const int result = queue(request);
    if (result == 0)
        return 0;
    lock.lock();
    mRefused = true;
    --mQueuedCount;
    --mInFlight;
    return result;
}

int SceneSession::queue(SessionRequest& request) {
    for (size_t port = 0; port < mDesc.ports.size(); ++port) {
        const FrameBuffer& buffer = request.mFrames[port].buffer();
        request.mRequest->addBuffer(mDesc.ports[port].index,
                                    [&buffer](FrameBuffer& to) { to = buffer; });
    }
    request.mQueued = monotonicNow();
    return mScene->queueRequest(request.mRequest.get(), 0);
}

void SceneSession::requestDone(SessionRequest& request) {
    request.mDone = monotonicNow();
    MutexLock lock(mLock);
    mFinished.push_back(&request);
    --mInFlight;
    mCompletion.notify_all();
}

int SceneSession::wait(milliseconds timeout, const Visit& inspect) {
    const auto deadline = Clock::now() + timeout;
    MutexLock lock(mLock);
    while (mFinished.empty()) {
        if (mInFlight == 0)
            return -ENOENT;
        if (mCompletion.wait_until(lock.native(), deadline) == std::cv_status::timeout &&
            mFinished.empty())
            return -ETIMEDOUT;
    }
    SessionRequest& request = *mFinished.front();
    mFinished.erase(mFinished.begin());
    lock.unlock();

    if (inspect)
        inspect(request);
    lock.lock();
    mFree |= uint64_t{1} << request.mSlot;
    return 0;
}

int SceneSession::drain(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    return waitForCompletions(deadline) && waitForDequeues(deadline) ? 0 : -ETIMEDOUT;
}

bool SceneSession::waitForCompletions(Clock::time_point deadline) const {
    MutexLock lock(mLock);
    while (mInFlight != 0)
        if (mCompletion.wait_until(lock.native(), deadline) == std::cv_status::timeout)
            return mInFlight == 0;
    return true;
}

bool SceneSession::waitForDequeues(Clock::time_point deadline) const {
    uint64_t expected = 0;
    {
        MutexLock lock(mLock);
        // A refused request leaves a buffer at some of its ports.
        expected = mInFlight + (mRefused ? 1 : 0);
    }
    const auto isDone = [this, expected](const SessionPort& port) {
        return withDriver(port) <= expected;
    };
    while (!std::all_of(mDesc.ports.begin(), mDesc.ports.end(), isDone)) {
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(kDequeuePoll);
    }
    return true;
}

uint64_t SceneSession::withDriver(const SessionPort& port) const {
    // A dequeue is announced to nobody outside the library. What tells it for certain is the port's
    // set of free indexes: giving the index back is the last step of a dequeue.
    FreeIndexes indexes(mDesc.buffers);
    mScene->queryPort(port.index)->dumpState(&indexes);
    return static_cast<uint64_t>(indexes.taken());
}

int SceneSession::stop(milliseconds timeout) {
    {
        MutexLock lock(mLock);
        if (!mStreaming)
            return -EPIPE;
    }
    const int drained = drain(timeout);
    mEvents.reset();
    // No request completes any more; what did complete is still being dequeued, perhaps.
    if (drained != 0 && !waitForDequeues(Clock::now() + kLastDequeues))
        CORVANE_LOGW("%s: buffers of completed requests were not dequeued", mDesc.name.c_str());
    for (const SessionPort& port : mDesc.ports)
        mLeftWithDriver.push_back(withDriver(port));
    const int stopped = mScene->stop();
    MutexLock lock(mLock);
    mStreaming = false;
    mInFlight = 0;
    return stopped != 0 ? stopped : drained;
}

size_t SceneSession::inFlight() const {
    MutexLock lock(mLock);
    return mInFlight;
}

std::vector<PortStatistics> SceneSession::statistics() const {
    uint64_t queued = 0;
    {
        MutexLock lock(mLock);
        queued = mQueuedCount;
    }
    std::vector<PortStatistics> result;
    for (const SessionPort& port : mDesc.ports) {
        const uint64_t left =
            mLeftWithDriver.empty() ? withDriver(port) : mLeftWithDriver[result.size()];
        result.push_back({port.name, queued, queued - std::min(left, queued)});
    }
    return result;
}

void SceneSession::dumpState(IPrinter* printer) const {
    if (mEvents)
        mEvents->dumpState(printer);
}

}  // namespace NSVista::NSCorvane::client
