// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Open video nodes and open media devices.
 */
#pragma once

#include <string>
#include <utility>

#include "BufferQueue.h"
#include "DeviceCore.h"
#include "File.h"

namespace NSVista::NSCorvane::sim {

/** An open video node. */
class VideoFile : public File {
public:
    VideoFile(DeviceCore& device, BufferQueue& queue, std::string path, bool nonBlocking)
        : mDevice(device), mQueue(queue), mPath(std::move(path)), mNonBlocking(nonBlocking) {}

    int ioctl(uint32_t code, void* arg) override;
    Mutex* serialiser(uint32_t code) const override;
    std::string_view name() const override { return mQueue.name(); }
    std::string_view path() const override { return mPath; }
    void released() override;

private:
    int queueBuffer(DeviceLock& lock, v4l2_buffer& buffer) CORVANE_REQUIRES(deviceState);
    int listedControls(uint32_t code, v4l2_ext_controls& list) CORVANE_REQUIRES(deviceState);
    /** @return null for a descriptor that is no request. */
    std::shared_ptr<Request> findRequest(int fd) const;
    void queryCapabilities(v4l2_capability& capability) const;

    DeviceCore& mDevice;
    BufferQueue& mQueue;
    const std::string mPath;
    const bool mNonBlocking;
};

/** An open media device. */
class MediaFile : public File {
public:
    explicit MediaFile(DeviceCore& device) : mDevice(device) {}

    int ioctl(uint32_t code, void* arg) override;
    Mutex* serialiser(uint32_t) const override { return nullptr; }
    std::string_view name() const override { return {}; }
    std::string_view path() const override { return mDevice.mediaPath; }
    void released() override { --mDevice.filesOpen; }

private:
    DeviceCore& mDevice;
};

}  // namespace NSVista::NSCorvane::sim
