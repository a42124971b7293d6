// SPDX-License-Identifier: Apache-2.0
#include <corvane/SceneControl.h>

#include <corvane/IMediaDevice.h>
#include <corvane/IMediaRequest.h>
#include <corvane/V4L2VideoDevice.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/ReqTrack.h>
#include <corvane/platform/TimeBomb.h>
#include <corvane/platform/Trace.h>

#include <algorithm>
#include <string_view>
#include <thread>
#include <utility>

#include "DriverCall.h"
#include "RequestRoll.h"
#include "SceneText.h"
#include "Stamp.h"
#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-SceneControl")

namespace NSVista::NSCorvane {

namespace {

constexpr int kSubflow = 4;
constexpr size_t kIndexesInPlace = 64;
constexpr int64_t kRaceNs = 1'000'000;
constexpr char kStillQueued[] =
    "is still under way: wait for its done callback, which must return, or use another request";

/** " #A=time#B=time..." of a request's stamps, in order. */
void addDebugTimes(TextStream& text, const RequestDebugInfo& info) {
    text << ' ';
    char label = 'A';
    for (const struct timespec* stamp :
         {&info.created, &info.filled, &info.queueStart, &info.queued, &info.done, &info.reported,
          &info.consumed, &info.released}) {
        char time[kLogTimeSize];
        const size_t length = formatLogTime(loadStamp(*stamp), time);
        text << '#' << label++ << '=' << std::string_view(time, length);
    }
}

/** A kernel looks at the memory of a request's buffers only when it queues the request. */
void explainBuffer(const Port& port, const FrameBuffer& buffer) {
    const auto device = std::dynamic_pointer_cast<V4L2VideoDevice>(port.getVideoDevice());
    if (device != nullptr)
        CORVANE_LOGE_AS("queueRequest", "%s", device->describeQueued(buffer).c_str());
}

}  // namespace

std::atomic<uint32_t> Request::sUnseen{0};
const std::atomic<uint32_t> Request::sUncounted{0};

Request::Request(IMediaDevice* mediaDevice, QueryPort queryPort, RequestDone requestDone) try
    : mMediaRequest(mediaDevice != nullptr ? mediaDevice->makeRequest() : nullptr),
      mQueryPort(std::move(queryPort)),
      mRequestDone(std::move(requestDone)) {
    if (mMediaRequest == nullptr)
        CORVANE_FATAL("%p: Bad MediaRequest - mediaDev=%p", static_cast<void*>(this),
                      static_cast<void*>(mediaDevice));
    mPortIndexes.reserve(1);
    mBuffers.max_load_factor(1.0F);
    mBuffers.reserve(1);
    mMediaRequest->setRequestDone([this] { this->requestDone(); });
    mMediaState = dynamic_cast<const mc::MediaRequest*>(mMediaRequest.get());
}
CORVANE_NO_THROW

Request::~Request() {
    if (mRoll != nullptr)
        mRoll->remove(*this);
}

/** Lets the scene's roll see the request. Before anyone else has it. */
void Request::enlist(const std::shared_ptr<RequestRoll>& roll,
                     const std::atomic<uint32_t>& queuedCount) {
    mCallback = &roll->add(*this);
    mQueuedCount = &queuedCount;
    mRoll = roll;
}

void Request::show(RequestView& view) const {
    using Media = mc::MediaRequest;
    using Phase = RequestView::Phase;
    view.number = mNumber.load(std::memory_order_relaxed);
    view.waitingSince = mWaitingSince.load(std::memory_order_relaxed);
    view.waiter = mWaiter.load(std::memory_order_relaxed);
    const auto media = mMediaState != nullptr ? mMediaState->state() : Media::kIdle;
    const auto cycle = mCycle.load(std::memory_order_relaxed);
    if (cycle == kRefused || media == Media::kFailed)
        view.phase = Phase::Refused;
    else if (media == Media::kQueuing)
        view.phase = Phase::Queueing;
    else if (media == Media::kDone)
        view.phase = Phase::Reinitialising;
    else if (media == Media::kQueued || mState.load(std::memory_order_relaxed) == kQueued)
        view.phase = Phase::WithDriver;
    else if (cycle == kUnderWay)
        view.phase = Phase::Filling;
}

std::shared_ptr<RequestDebugInfo> Request::getDebugInfo() const {
    return mMediaRequest->getDebugInfo();
}

int Request::getRequestFD() const {
    return mMediaRequest->getRequestFD();
}

unsigned long* Request::getTrackBuffer() const {
    return mMediaRequest->getTrackBuffer();
}

void Request::setTrackBuffer(unsigned long* track) {
    mMediaRequest->setTrackBuffer(track);
}

int Request::setMonitor(const std::shared_ptr<IEventMonitor>& monitor) {
    mMediaRequest->setMonitor(monitor);
    return 0;
}

/** Covers a completion that races the end of the queueing, or a refill that races the completion.
 */
void Request::waitForState(State state, const char* operation, const char* advice) const {
    if (mState.load(std::memory_order_acquire) != state)
        keepWaiting(state, operation, advice);
}

/** A race is over within microseconds: a wait that goes on is an error of the client's. */
void Request::keepWaiting(State state, const char* operation, const char* advice) const {
    const int64_t begin = monotonicInNs();
    while (mState.load(std::memory_order_acquire) != state)
        if (monotonicInNs() - begin > kRaceNs)
            return waitUnderGuard(state, operation, advice);
}

void Request::waitUnderGuard(State state, const char* operation, const char* advice) const {
    const auto guard =
        timeguard::TimeBomb::make("Request", kDriverLimitNs, kDriverPeriodNs, "%s: request %s %s",
                                  operation, nameForGuard(state).c_str(), advice);
    mWaitingSince.store(monotonicInNs(), std::memory_order_relaxed);
    mWaiter.store(operation, std::memory_order_relaxed);
    while (mState.load(std::memory_order_acquire) != state)
        std::this_thread::yield();
    mWaiter.store(nullptr, std::memory_order_relaxed);
}

/** "17 of scene preview over ports main, mirror": descriptor, scene and, for who fills, ports. */
std::string Request::nameForGuard(State state) const {
    std::string text = std::to_string(getRequestFD());
    if (mRoll != nullptr)
        text += " of scene " + mRoll->sceneName();
    // The queueing thread looks ports up while a completion waits for it.
    if (state != kIdle)
        return text;
    const char* separator = " over ports ";
    for (const auto& [index, entry] : mBuffers) {
        TextStream number;
        number << "0x" << std::hex << index;
        text += separator + (entry.port != nullptr ? entry.port->getName() : number.str());
        separator = ", ";
    }
    return text;
}

int Request::addBuffer(int portIndex, std::function<void(FrameBuffer&)> fill) try {
    const TraceSection section(area::kQueue, "Request::addBuffer");
    if (!fill)
        CORVANE_FATAL("Bad buffer fill: index=%#x", portIndex);
    waitForState(kIdle, "addBuffer", kStillQueued);
    // Cycles are filled alike, as a rule.
    const size_t place = mPortIndexes.size();
    FrameBuffer& buffer = place < mAdded.size() && mAdded[place].first == portIndex
                              ? mAdded[place].second->buffer
                              : bufferOf(portIndex).buffer;
    mPortIndexes.push_back(portIndex);
    if (buffer.planeCount != 0)
        refuseSecondBuffer(portIndex, buffer);
    fill(buffer);
    return 0;
}
CORVANE_NO_THROW

/** The entry of a port, made when there is none. */
Request::PortBuffer& Request::bufferOf(int portIndex) {
    const auto [entry, made] = mBuffers.try_emplace(portIndex);
    if (made)
        mAdded.emplace_back(portIndex, &entry->second);
    return entry->second;
}

void Request::findPort(int portIndex, PortBuffer& entry) const {
    constexpr const char* kOperation = "queueBuffers";
    if (!mQueryPort)
        CORVANE_FATAL_AS(kOperation, "Bad function");
    entry.port = mQueryPort(portIndex);
    if (entry.port == nullptr)
        CORVANE_FATAL_AS(kOperation, "Bad port index:%#x", portIndex);
}

void Request::refuseSecondBuffer(int portIndex, const FrameBuffer& existing) const {
    constexpr const char* kOperation = "addBuffer";
    CORVANE_LOGE_AS(kOperation, "(%#x, %s) has existed", portIndex,
                    NSCorvane::toString(existing).c_str());
    CORVANE_LOGE_AS(kOperation, "Something wrong - Request=%s", toString().c_str());
    for (const auto& [index, entry] : mBuffers)
        CORVANE_LOGE_AS(kOperation, "Existed (%#x, %s)", index,
                        NSCorvane::toString(entry.buffer).c_str());
    CORVANE_FATAL_AS(kOperation, "FATAL");
}

int Request::queueBuffers(int argument) try {
    const TraceSection section(area::kQueueBuffers, "Request::queueBuffers");
    for (auto& [portIndex, entry] : mBuffers) {
        if (entry.port == nullptr)
            findPort(portIndex, entry);
        const auto device = entry.port->queueingDevice();
        if (device == nullptr)
            CORVANE_FATAL("Bad VideoDevice");
        const int ret = device->queueBuffer(entry.buffer, mMediaRequest.get(), argument);
        if (ret != 0) {
            CORVANE_LOGE("Failed to queue buffer to port %s", entry.port->getName().c_str());
            return ret;
        }
        // The mark of a buffer that was filled in this cycle.
        entry.buffer.planeCount = 0;
    }
    mState.store(kBuffersQueued, std::memory_order_release);
    return 0;
}
CORVANE_NO_THROW

int Request::queueRequest(int argument) try {
    const TraceSection section(area::kQueue, "Request::queueRequest");
    waitForState(kIdle, "queueRequest", kStillQueued);
    mNumber.store(mQueuedCount->load(std::memory_order_relaxed), std::memory_order_relaxed);
    mCycle.store(kUnderWay, std::memory_order_relaxed);
    if (const int ret = queueBuffers(argument); ret != 0) {
        mCycle.store(kRefused, std::memory_order_relaxed);
        CORVANE_LOGE("Failed to queue request's buffers");
        return ret;
    }
    // Before the media request is queued, so that its completion finds it.
    mState.store(kQueued, std::memory_order_release);
    CORVANE_LOGD("It's time to queue: %s", describe(TextStream{}).c_str());
    if (mMediaRequest->queueRequest() != 0) {
        for (const int32_t index : mPortIndexes)
            explainBuffer(*mBuffers[index].port, mBuffers[index].buffer);
        CORVANE_FATAL("Failed to queue media request");
    }
    return 0;
}
CORVANE_NO_THROW

void Request::requestDone() try {
    const TraceSection section(area::kDone, "Request::requestDone");
    if (unsigned long* const track = mMediaRequest->getTrackBuffer())
        reqtrack::doneToSubmodule(track, kSubflow);
    waitForState(kQueued, "requestDone", "has completed, but its queueing does not end");
    int32_t inPlace[kIndexesInPlace];
    std::vector<int32_t> more;
    const size_t count = mPortIndexes.size();
    int32_t* indexes = inPlace;
    if (count > kIndexesInPlace) {
        more.resize(count);
        indexes = more.data();
    }
    std::copy(mPortIndexes.begin(), mPortIndexes.end(), indexes);
    mPortIndexes.clear();
    mStatus.store(0, std::memory_order_relaxed);
    mCycle.store(kNone, std::memory_order_relaxed);
    // From here on the request may be filled again.
    mState.store(kIdle, std::memory_order_release);
    CORVANE_LOGD("[Request::requestDone] %s", describe(TextStream{}).c_str());
    if (mRequestDone)
        mRequestDone(this, indexes, count);
}
CORVANE_NO_THROW

/** toString(), without an allocation. @return @p text. */
TextStream& Request::describe(TextStream&& text) const {
    text << "{ .requestFD=" << getRequestFD();
    if (getStatus() != 0)
        text << " .status=" << getStatus();
    text << " .state=" << mState.load(std::memory_order_relaxed);
    if (const auto info = getDebugInfo())
        addDebugTimes(text, *info);
    return text << " }";
}

std::string Request::toString() const try { return describe(TextStream{}).str(); }
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
