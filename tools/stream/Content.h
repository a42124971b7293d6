// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a run puts into its output buffers, and what it expects in its captures.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <corvane/client/SceneSession.h>

#include "Canary.h"
#include "ControlPlan.h"
#include "Device.h"
#include "RawFiles.h"

namespace NSVista::NSCorvane::tools {

/**
 * Fills and checks the frames of one session. What every device owes is checked here: captures are
 * written, and nothing around the planes is. What a particular device makes of its input is for the
 * derived classes.
 */
class Content {
public:
    /**
     * Before the session starts.
     * @param ports the session's, in its order. Both outlive the content.
     */
    Content(const std::vector<NodePort>& ports, client::SceneSession& session);
    virtual ~Content() = default;
    Content(const Content&) = delete;
    Content& operator=(const Content&) = delete;

    /** Takes a port's frames from a file in place of the content's own. */
    void setInput(size_t port, FrameReader reader) { mInputs[port] = std::move(reader); }
    /** Controls that change what captures show; outlives the content. */
    void setControls(const ControlPlan* controls) { mControls = controls; }

    /** Makes a request ready to be queued. @return false when its memory cannot be mapped, or a
     * file not be read. */
    bool fill(client::SessionRequest& request);
    /** Checks a finished request; the first errors go to stderr. @return all is as expected. */
    bool check(client::SessionRequest& request);

    /** Frames that were not as expected, per port. */
    const std::vector<uint64_t>& errors() const { return mErrors; }

protected:
    using Mappings = std::vector<client::FrameMapping>;

    const std::vector<NodePort>& ports() const { return mPorts; }
    const client::SceneSession& session() const { return mSession; }

    /** Writes an output port's planes. */
    virtual void fillOutput(uint64_t number, size_t port, const client::FrameMapping& planes) = 0;
    /** Called before the captures of a request are checked. */
    virtual void beginCheck(uint64_t /*number*/) {}
    /** @return what is wrong with a capture port's planes, empty for nothing. */
    virtual std::string checkCapture(uint64_t number, size_t port,
                                     const client::FrameMapping& planes) = 0;
    const Canary& canary() const { return mCanary; }
    const ControlPlan* controls() const { return mControls; }
    /** Bytes that the driver wrote to a plane of the request at hand; all where it does not tell.
     */
    size_t written(size_t port, size_t plane) const;
    /** The frames of the request at hand, in the order of the ports. */
    const Mappings& frames() const { return mMappings; }

private:
    /** Maps all frames of a request: outputs for one access, captures for another. */
    bool map(client::SessionRequest& request, client::CpuAccess outputs,
             client::CpuAccess captures);
    void layGaps(client::SessionRequest& request);
    std::string checkFrame(size_t port);
    std::string checkGaps(const client::FrameMapping& planes) const;
    void report(uint64_t number, size_t port, const std::string& error);

    const std::vector<NodePort>& mPorts;
    client::SceneSession& mSession;
    Canary mCanary;
    Mappings mMappings;
    std::vector<std::optional<FrameReader>> mInputs;  ///< by port
    const ControlPlan* mControls = nullptr;
    const client::SessionRequest* mRequest = nullptr;  ///< the one at hand
    std::vector<uint64_t> mErrors;
    uint64_t mReported = 0;
};

/** For any device: captures must have been written to their last byte. */
class PlainContent : public Content {
public:
    using Content::Content;

protected:
    void fillOutput(uint64_t number, size_t port, const client::FrameMapping& planes) override;
    std::string checkCapture(uint64_t number, size_t port,
                             const client::FrameMapping& planes) override;
};

/** For a replay: nobody writes its captures. */
class ReplayedContent : public PlainContent {
public:
    using PlainContent::PlainContent;

protected:
    std::string checkCapture(uint64_t /*number*/, size_t /*port*/,
                             const client::FrameMapping& /*planes*/) override {
        return {};
    }
};

}  // namespace NSVista::NSCorvane::tools
