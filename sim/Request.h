// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Media requests, and the work that a request or a single buffer is for the engine.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Controls.h"
#include "File.h"
#include "Locks.h"
#include "PriorityFd.h"

namespace NSVista::NSCorvane::sim {

class BufferQueue;
class DeviceCore;
class Request;

using Clock = std::chrono::steady_clock;

struct BufferRef {
    BufferQueue* queue;
    uint32_t index;
    int32_t brightness = 0;  ///< the node's, when the engine takes the buffer
};

/** Buffers that the engine processes together. Guarded as its owner is. */
struct Job {
    enum class Stage {
        IDLE,
        WAITING,  ///< queued, but not all of its nodes stream
        READY,
        RUNNING,
    };
    std::vector<BufferRef> buffers;
    Request* request = nullptr;  ///< null for a buffer queued without one
    Stage stage = Stage::IDLE;
    uint32_t frame = 0;
    int32_t brightness = 0;  ///< the sub-device's
    Clock::time_point due;
};

/**
 * A media request. Its descriptor and every buffer between its QBUF and DQBUF keep it alive.
 */
class Request {
public:
    explicit Request(DeviceCore& device);
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /** MEDIA_REQUEST_IOC_QUEUE. */
    int queue() CORVANE_REQUIRES(deviceState);
    /** MEDIA_REQUEST_IOC_REINIT. */
    int reinit() CORVANE_REQUIRES(deviceState);
    /** Takes another buffer's reference; @return -EBUSY unless the request is idle. */
    int bind(const BufferRef& buffer) CORVANE_REQUIRES(deviceState);
    /** A bound buffer is taken back; the last one of a queued request completes it. */
    void unbind(const BufferRef& buffer) CORVANE_REQUIRES(deviceState);
    /** @name Controls that the request sets; a completed one has those of every node
     * @{ */
    void setControls(const BufferQueue& queue, const SomeControlValues& values)
        CORVANE_REQUIRES(deviceState);
    /** Null where the request holds none of the node. */
    const SomeControlValues* controls(const BufferQueue& queue) const CORVANE_REQUIRES(deviceState);
    void applyControls() CORVANE_REQUIRES(deviceState);
    /** @} */
    /** All buffers are done. */
    void finish() CORVANE_REQUIRES(deviceState);

    DeviceCore& device() const { return mDevice; }
    bool complete() const CORVANE_REQUIRES(deviceState) { return mState == State::COMPLETE; }
    bool idle() const CORVANE_REQUIRES(deviceState) { return mState == State::IDLE; }
    PriorityFd& signal() CORVANE_REQUIRES(deviceState) { return mSignal; }

private:
    enum class State { IDLE, QUEUED, COMPLETE };
    /** Of one node, whose place among the device's is this one's. */
    struct NodeControls {
        bool isThere = false;
        SomeControlValues values;
    };
    DeviceCore& mDevice;
    State mState CORVANE_GUARDED_BY(deviceState) = State::IDLE;
    Job mJob CORVANE_GUARDED_BY(deviceState);  ///< its buffers are those bound to the request
    std::vector<NodeControls> mControls CORVANE_GUARDED_BY(deviceState);
    PriorityFd mSignal CORVANE_GUARDED_BY(deviceState);
};

/** The open descriptor of a media request. */
class RequestFile : public File {
public:
    /** MEDIA_IOC_REQUEST_ALLOC. @return the descriptor or the negated errno. */
    static int open(DeviceCore& device);

    explicit RequestFile(DeviceCore& device) : mRequest(std::make_shared<Request>(device)) {}
    const std::shared_ptr<Request>& request() const { return mRequest; }

    int ioctl(uint32_t code, void* arg) override;
    Mutex* serialiser(uint32_t code) const override;
    std::string_view name() const override { return "request"; }
    std::string_view path() const override { return {}; }
    void released() override;

private:
    std::shared_ptr<Request> mRequest;
};

}  // namespace NSVista::NSCorvane::sim
