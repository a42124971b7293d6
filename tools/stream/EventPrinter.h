// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Prints the events of the default sub-device.
 */
#pragma once

#include <memory>

#include <corvane/IEventMonitor.h>
#include <corvane/client/EpollEventMonitor.h>

namespace NSVista::NSCorvane {
class IV4L2SubDevice;
}

namespace NSVista::NSCorvane::tools {

/** A user of the default sub-device that prints each frame-sync event to stdout as it comes. */
class EventPrinter : public IEventObserver {
public:
    /** @return null, with a line on stderr, when the sub-device or a thread is not to be had. */
    static std::unique_ptr<EventPrinter> start();
    ~EventPrinter() override;
    EventPrinter(const EventPrinter&) = delete;
    EventPrinter& operator=(const EventPrinter&) = delete;

    int getEventFD() const override;
    void onEvent(const OnEvent& event) override;

private:
    EventPrinter();

    std::shared_ptr<IV4L2SubDevice> mSubDevice;
    std::shared_ptr<client::EpollEventMonitor> mMonitor;
};

}  // namespace NSVista::NSCorvane::tools
