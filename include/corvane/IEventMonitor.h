// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Who watches the descriptors of requests: the client's event thread.
 */
#pragma once

#include <cstdint>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

/** An object with a descriptor to watch. */
class CORVANE_EXPORT IEventObserver {
public:
    /** A report. */
    struct OnEvent {
        uint32_t events;  ///< the epoll event bits reported
    };

    virtual ~IEventObserver();
    /** The descriptor to watch; constant while attached. */
    virtual int getEventFD() const = 0;
    /** Called on the monitor's thread when the descriptor reports. */
    virtual void onEvent(const OnEvent& event) = 0;
};

/**
 * A thread that watches the descriptors of its observers. Supplied by the client; all operations
 * may be called from any thread.
 */
class CORVANE_EXPORT IEventMonitor {
public:
    virtual ~IEventMonitor();
    virtual void dumpState(IPrinter* printer) const = 0;
    /** Static storage. */
    virtual const char* getThreadName() const = 0;
    /**
     * Starts to watch.
     * @param observer not owned; attached until detachObserver().
     * @param events epoll event bits; with EPOLLONESHOT a report disarms the watch.
     * @return 0 or the negated errno.
     */
    virtual int attachObserver(IEventObserver* observer, uint32_t events) = 0;
    /** Arms the watch again. @return 0 or the negated errno. */
    virtual int rearmObserver(IEventObserver* observer, uint32_t events) = 0;
    /**
     * Stops to watch. When it returns on another thread than the monitor's, the observer's callback
     * is not running and never runs again.
     * @return 0 or the negated errno.
     */
    virtual int detachObserver(IEventObserver* observer) = 0;
};

}  // namespace NSVista::NSCorvane
