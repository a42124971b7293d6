// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The device that is streamed: its first ports, with formats and memory for every request.
 */
#pragma once

#include <corvane/IMediaDevice.h>
#include <corvane/SceneDesc.h>
#include <corvane/V4L2.h>
#include <corvane/client/SessionRequest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace NSVista::NSCorvane::bench {

/** A small format on each port, set once; frames of the slots, one DMA-buf a plane. */
class Device {
public:
    Device(size_t ports, size_t slots);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    size_t ports() const { return mPorts.size(); }
    size_t slots() const { return mFrames.size(); }
    const PortDesc& port(size_t index) const { return mPorts[index]; }
    uint32_t bufferType(size_t port) const;
    std::string node(size_t port) const;
    const std::shared_ptr<IMediaDevice>& media() const { return mMedia; }
    /** The media device's node. */
    const std::string& mediaNode() const { return mMediaNode; }
    const std::vector<LinkDesc>& links() const { return mLinks; }
    const SceneDesc& desc() const { return mDesc; }
    const FrameBuffer& buffer(size_t slot, size_t port) const {
        return mFrames[slot][port].buffer();
    }

    /** Writes what the driver wants to read: it gives requests back undone without it. */
    static void prepare(size_t port, client::Frame& frame);

    static constexpr uint32_t kWidth = 64;
    static constexpr uint32_t kHeight = 16;
    /** A node that nothing is streamed through: it exports memory. */
    static std::string exporter(const IMediaDevice& media);

private:
    PixelFormat setFormat(size_t port) const;

    std::shared_ptr<IMediaDevice> mMedia;
    std::string mMediaNode;
    std::vector<PortDesc> mPorts;
    std::vector<LinkDesc> mLinks;
    SceneDesc mDesc{};
    std::vector<std::vector<client::Frame>> mFrames;  ///< per slot, per port
};

/** Ends the program when a call of the set-up fails. */
void require(bool success, const char* what);

}  // namespace NSVista::NSCorvane::bench
