// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The buffer monitor: makes video devices dequeue when requests complete.
 */
#pragma once

#include <cstddef>
#include <memory>

#include <corvane/platform/Export.h>
#include <corvane/platform/ThreadLoop.h>

namespace NSVista::NSCorvane {

/** Whom the buffer monitor calls: a video device. */
class CORVANE_EXPORT IV4L2BufferObserver {
public:
    virtual ~IV4L2BufferObserver();
    /** One buffer is to be dequeued. The argument is always 0. No monitor lock is held. */
    virtual void onNotify(int) = 0;
};

/**
 * One scene's worker that turns completed requests into dequeues.
 *
 * Observers are attached and detached by one thread at a time, and not while their requests
 * complete; everything else may be called on any thread.
 */
class CORVANE_EXPORT IV4L2BufferMonitor : public IThreadLoop {
public:
    /** Makes a V4L2BufferMonitor. @param name begins its name; null counts as empty. */
    static std::shared_ptr<IV4L2BufferMonitor> make(const char* name);

    /**
     * Registers a port's observer, held weakly. Fatal when @p portIndex has one already.
     */
    virtual void attachObserver(const std::shared_ptr<IV4L2BufferObserver>& observer,
                                int portIndex) = 0;
    /** Forgets a port's observer, whichever it is. Fatal when there is none. */
    virtual void detachObserver(const std::shared_ptr<IV4L2BufferObserver>& observer,
                                int portIndex) = 0;
    /** A buffer was queued under a request. */
    virtual void attachRequestBuffer(int requestFd, unsigned int bufferIndex) = 0;
    /** A buffer was dequeued. */
    virtual void detachRequestBuffer(int requestFd, unsigned int bufferIndex) = 0;
    /**
     * A request completed: its ports' observers are to dequeue, directly for one port in
     * configuration mode 0, else on the worker thread.
     * @param portIndexes not kept.
     * @param count 0 is fatal, as is a port without observer.
     */
    virtual void notifyRequestDone(int requestFd, int* portIndexes, size_t count) = 0;
};

}  // namespace NSVista::NSCorvane
