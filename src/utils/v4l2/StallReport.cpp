// SPDX-License-Identifier: Apache-2.0
#include "StallReport.h"

#include <corvane/platform/Clock.h>
#include <corvane/platform/Printer.h>
#include <linux/media.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "Text.h"

namespace NSVista::NSCorvane {

namespace {

using Phase = RequestView::Phase;
using Standing = V4L2VideoDevice::Standing;

constexpr int64_t kNsPerMs = 1'000'000;

std::string milliseconds(int64_t ns) {
    return std::to_string(ns / kNsPerMs) + " ms";
}

std::string since(const struct timespec& logTime) {
    return milliseconds(clockInNs(CLOCK_REALTIME) - timeInNs(logTime));
}

std::string since(int64_t monotonic) {
    return milliseconds(monotonicInNs() - monotonic);
}

std::string callName(unsigned int request) {
#define CORVANE_NAMED(code) \
    { code, #code }
    static const std::pair<unsigned long, const char*> kNames[] = {
        CORVANE_NAMED(VIDIOC_QUERYCAP),       CORVANE_NAMED(VIDIOC_G_FMT),
        CORVANE_NAMED(VIDIOC_S_FMT),          CORVANE_NAMED(VIDIOC_REQBUFS),
        CORVANE_NAMED(VIDIOC_STREAMON),       CORVANE_NAMED(VIDIOC_STREAMOFF),
        CORVANE_NAMED(MEDIA_IOC_DEVICE_INFO), CORVANE_NAMED(MEDIA_IOC_ENUM_ENTITIES),
        CORVANE_NAMED(MEDIA_IOC_ENUM_LINKS),  CORVANE_NAMED(MEDIA_IOC_SETUP_LINK)};
#undef CORVANE_NAMED
    for (const auto& [code, name] : kNames)
        if (code == request)
            return name;
    TextStream text;
    text << "ioctl 0x" << std::hex << request;
    return text.str();
}

}  // namespace

std::string textOf(const System::CallUnderWay& call) {
    return callName(call.request) + " of fd " + std::to_string(call.fd) + " for " +
           since(call.since) + ", thread " + std::to_string(call.thread) + ": the driver's turn";
}

void StallReport::print(IPrinter& printer, std::vector<System::CallUnderWay>& calls) const {
    printer.printFormatLine("<<Stall>> scene %s %s: requests: %" PRIu32 " queued, %" PRIu32
                            " completed; buffers to dequeue: %" PRIu32,
                            scene.c_str(), state, queued, done, due);
    for (const RequestView& request : requests)
        printRequest(printer, request);
    for (const PortView& port : ports)
        printPort(printer, port, calls);
}

void StallReport::printRequest(IPrinter& printer, const RequestView& request) const {
    const std::string standing = standingOf(request);
    const std::string buffers = buffersOf(request.fd);
    const std::string name = "(fd " + std::to_string(request.fd) + ")";
    if (!standing.empty())
        printer.printFormatLine("  request %" PRIu32 " %s: %s%s", request.number, name.c_str(),
                                standing.c_str(), buffers.c_str());
    else if (!buffers.empty())
        printer.printFormatLine("  request %" PRIu32 " %s: completed %s ago, not dequeued%s",
                                request.number, name.c_str(), since(request.done).c_str(),
                                buffers.c_str());
    if (request.callback != 0)
        printer.printFormatLine("  request %" PRIu32
                                " %s: in its done callback, completed %s ago: the client's turn",
                                request.callback - 1, name.c_str(), since(request.done).c_str());
    if (request.waiter != nullptr)
        printer.printFormatLine("  request %" PRIu32 " %s: a thread in %s() waits for it for %s",
                                request.number, name.c_str(), request.waiter,
                                since(request.waitingSince).c_str());
}

/** @return empty for a request that is not under way. */
std::string StallReport::standingOf(const RequestView& request) const {
    switch (request.phase) {
        case Phase::Filling:
            if (const PortView* const port = portInQueueCall(request.fd))
                return "in VIDIOC_QBUF of port " + port->name + ": the driver's turn";
            return "its buffers are being queued";
        case Phase::Queueing:
            return "in MEDIA_REQUEST_IOC_QUEUE for " + since(request.queueStart) +
                   ": the driver's turn";
        case Phase::WithDriver:
            if (!System::hasPriorityData(request.fd))
                return "with the driver for " + since(request.queued) + ": the driver's turn";
            return "completed, queued " + since(request.queued) + " ago: the event monitor's turn" +
                   (isCompletionThreadBusy() ? ", whose thread is busy with another request" : "");
        case Phase::Reinitialising:
            return "in MEDIA_REQUEST_IOC_REINIT, completed " + since(request.done) +
                   " ago: the driver's turn";
        case Phase::Refused:
            return "its queueing was refused: the client's turn, to stop the scene";
        case Phase::Idle:
            break;
    }
    return {};
}

/** "; buffers main[2] mirror[1]": the indexes that are taken for a request. */
std::string StallReport::buffersOf(int requestFd) const {
    std::string text;
    for (const PortView& port : ports)
        for (const Standing::Buffer& buffer : port.standing.taken)
            if (buffer.requestFd == requestFd)
                text += (text.empty() ? "; buffers " : " ") + port.name + "[" +
                        std::to_string(buffer.index) + "]" + (buffer.wasRefused ? " refused" : "");
    return text;
}

/** The port in whose VIDIOC_QBUF a request that is being queued must be. */
const StallReport::PortView* StallReport::portInQueueCall(int requestFd) const {
    for (const PortView& port : ports)
        for (const Standing::Buffer& buffer : port.standing.taken)
            if (buffer.requestFd == requestFd && port.standing.isQueueing)
                return &port;
    return nullptr;
}

bool StallReport::isCompletionThreadBusy() const {
    return std::any_of(requests.begin(), requests.end(), [](const RequestView& request) {
        return request.callback != 0 || request.phase == Phase::Reinitialising;
    });
}

void StallReport::printPort(IPrinter& printer, const PortView& port,
                            std::vector<System::CallUnderWay>& calls) const {
    const Standing& standing = port.standing;
    const char* const name = port.name.c_str();
    if (standing.dequeue == Standing::kInDriver)
        printer.printFormatLine("  port %s: in VIDIOC_DQBUF: the driver's turn", name);
    if (standing.dequeue == Standing::kInCallback)
        printer.printFormatLine("  port %s: in the callback of a dequeue: the client's turn", name);
    if (standing.indexWaiters != 0)
        printer.printFormatLine("  port %s: threads that wait for a free index: %" PRIu32
                                ", for %s; taken: %zu of %" PRIu32,
                                name, standing.indexWaiters, since(standing.indexWaitSince).c_str(),
                                standing.taken.size(), standing.imported);
    if (standing.lost != 0)
        printer.printFormatLine("  port %s: indexes lost by failed dequeues: %" PRIu32, name,
                                standing.lost);
    std::erase_if(calls, [&](const System::CallUnderWay& call) {
        if (call.fd != standing.fd)
            return false;
        printer.printFormatLine("  port %s: in %s", name, textOf(call).c_str());
        return true;
    });
}

}  // namespace NSVista::NSCorvane
