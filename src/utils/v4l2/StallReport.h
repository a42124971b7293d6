// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Says in words why a scene does not go on.
 */
#pragma once

#include <corvane/V4L2VideoDevice.h>
#include <corvane/platform/System.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RequestRoll.h"

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

/** Where a scene stands, copied from it; explains itself line by line. */
class StallReport {
public:
    struct PortView {
        std::string name;
        V4L2VideoDevice::Standing standing;
    };

    std::string scene;
    const char* state = "";
    uint32_t queued = 0, done = 0;  ///< requests
    uint32_t due = 0;               ///< buffers that completed and were not dequeued
    std::vector<PortView> ports;
    std::vector<RequestView> requests;

    /** @param calls those of the scene's ports are explained and taken out. */
    void print(IPrinter& printer, std::vector<System::CallUnderWay>& calls) const;

private:
    void printRequest(IPrinter& printer, const RequestView& request) const;
    void printPort(IPrinter& printer, const PortView& port,
                   std::vector<System::CallUnderWay>& calls) const;
    std::string standingOf(const RequestView& request) const;
    std::string buffersOf(int requestFd) const;
    const PortView* portInQueueCall(int requestFd) const;
    bool isCompletionThreadBusy() const;
};

/** "VIDIOC_STREAMON of fd 7 for 5000 ms, thread 1234: the driver's turn". */
std::string textOf(const System::CallUnderWay& call);

}  // namespace NSVista::NSCorvane
