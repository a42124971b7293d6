// SPDX-License-Identifier: Apache-2.0
#include "Content.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

constexpr uint64_t kReportedErrors = 10;

}  // namespace

Content::Content(const std::vector<NodePort>& ports, client::SceneSession& session)
    : mPorts(ports), mSession(session), mInputs(ports.size()), mErrors(ports.size()) {
    mMappings.reserve(ports.size());
    session.visitAll([this](client::SessionRequest& request) { layGaps(request); });
}

bool Content::map(client::SessionRequest& request, client::CpuAccess outputs,
                  client::CpuAccess captures) {
    mMappings.clear();
    for (size_t port = 0; port < mPorts.size(); ++port) {
        mMappings.push_back(
            request.frame(port).map(mPorts[port].node.isOutput() ? outputs : captures));
        if (!mMappings.back())
            return false;
    }
    return true;
}

void Content::layGaps(client::SessionRequest& request) {
    if (map(request, client::CpuAccess::Write, client::CpuAccess::Write))
        for (const client::FrameMapping& frame : mMappings) {
            for (size_t i = 0; i < frame.planeCount(); ++i)
                mCanary.reserve(frame.plane(i).size());
            for (size_t i = 0; i < frame.gapCount(); ++i) {
                mCanary.reserve(frame.gap(i).size());
                mCanary.lay(frame.gap(i));
            }
        }
    mMappings.clear();
}

bool Content::fill(client::SessionRequest& request) {
    bool isFilled = map(request, client::CpuAccess::Write, client::CpuAccess::Write);
    for (size_t port = 0; isFilled && port < mPorts.size(); ++port) {
        const client::FrameMapping& frame = mMappings[port];
        if (mInputs[port])
            isFilled = mInputs[port]->read(frame);
        else if (mPorts[port].node.isOutput())
            fillOutput(request.number(), port, frame);
        else
            for (size_t i = 0; i < frame.planeCount(); ++i)
                mCanary.lay(frame.plane(i));
    }
    mMappings.clear();
    return isFilled;
}

bool Content::check(client::SessionRequest& request) {
    const uint64_t errorsBefore = mReported;
    if (map(request, client::CpuAccess::Read, client::CpuAccess::Read)) {
        mRequest = &request;
        beginCheck(request.number());
        for (size_t port = 0; port < mPorts.size(); ++port)
            if (const std::string error = checkFrame(port); !error.empty())
                report(request.number(), port, error);
    } else {
        report(request.number(), mMappings.size() - 1, "cannot be mapped");
    }
    mMappings.clear();
    return mReported == errorsBefore;
}

std::string Content::checkFrame(size_t port) {
    const int result = mRequest->frame(port).result();
    if (result < 0)
        return std::string("lost, its dequeue failed: ") + strerror(-result);
    if (result != 0)
        return "the driver flagged it as broken";
    std::string error = checkGaps(mMappings[port]);
    if (!error.empty() || mPorts[port].node.isOutput())
        return error;
    return checkCapture(mRequest->number(), port, mMappings[port]);
}

size_t Content::written(size_t port, size_t plane) const {
    const uint32_t used = mRequest->frame(port).bytesUsed(plane);
    const size_t size = mMappings[port].plane(plane).size();
    return used == 0 ? size : std::min<size_t>(used, size);
}

std::string Content::checkGaps(const client::FrameMapping& planes) const {
    for (size_t i = 0; i < planes.gapCount(); ++i)
        if (!mCanary.isIntact(planes.gap(i)))
            return i == 0 ? "bytes before the first plane were written"
                          : "bytes after plane " + std::to_string(i - 1) + " were written";
    return {};
}

void Content::report(uint64_t number, size_t port, const std::string& error) {
    ++mErrors[port];
    if (++mReported <= kReportedErrors)
        say("request %" PRIu64 ", %s: %s", number, mPorts[port].entity.c_str(), error.c_str());
    if (mReported == kReportedErrors)
        say("further errors are only counted");
}

void PlainContent::fillOutput(uint64_t number, size_t port, const client::FrameMapping& planes) {
    // Metadata: 16-bit words of 128, a neutral value where they are picture controls.
    constexpr uint8_t kNeutral[2] = {128, 0};
    for (size_t i = 0; i < planes.planeCount(); ++i) {
        const std::span<uint8_t> plane = planes.plane(i);
        const uint32_t stride = std::max(1U, session().format(port).planes[i].stride);
        for (size_t at = 0; at < plane.size(); at += stride) {
            const size_t length = std::min<size_t>(stride, plane.size() - at);
            if (!ports()[port].node.isMeta())
                memset(&plane[at], static_cast<uint8_t>(at / stride + number), length);
            else
                for (size_t byte = 0; byte < length; ++byte)
                    plane[at + byte] = kNeutral[byte % 2];
        }
    }
}

std::string PlainContent::checkCapture(uint64_t /*number*/, size_t port,
                                       const client::FrameMapping& planes) {
    for (size_t i = 0; i < planes.planeCount(); ++i)
        if (const auto at = canary().findUnwritten(planes.plane(i).first(written(port, i))))
            return "plane " + std::to_string(i) + " was not written at byte " +
                   std::to_string(*at) + " of " + std::to_string(planes.plane(i).size());
    return {};
}

}  // namespace NSVista::NSCorvane::tools
