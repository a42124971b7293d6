// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Where the streaming suite runs: on the virtual engine, or on a driver of the running kernel.
 */
#pragma once

#include <corvane/IMediaDevice.h>
#include <corvane/client/DmaBuf.h>
#include <corvane/client/SceneSession.h>
#include <corvane/sim/Engine.h>

namespace NSVista::NSCorvane::test {

/** A media entity with a video node that the suite streams. */
struct PortEntity {
    std::string name;
    std::vector<client::SessionLink> links;
};

/**
 * The device under test, chosen by the environment: CORVANE_TEST_MODEL names a model of the running
 * kernel; without it a virtual engine is made, which poses as the device that the file
 * CORVANE_TEST_POSE describes. One a process.
 */
class Platform {
public:
    static Platform& instance();

    const std::string& model() const { return mModel; }
    /** Entities in the order in which the suite takes them. */
    const std::vector<PortEntity>& ports() const { return mPorts; }
    /** The virtual engine's device; null on a real kernel. */
    sim::Device* virtualDevice() const { return mDevice; }
    /** The device can be made to fail. */
    bool fails() const { return drawsTestPicture(); }
    /** Gives a line to the device's test side: "qbuf -5 2", "buffer -5", "reqbufs 1", "clear". */
    void order(const std::string& line) const;
    /** Keeps what is queued from completing until the stream-off, where fails() says so. */
    void hold(bool on) const;
    /** Frames are numbered and drawn as the virtual engine's. */
    bool drawsTestPicture() const { return mModel == "vengine"; }
    /** Of the first @p ports ports and their links, in the formats they have. */
    client::SessionDesc describe(const std::string& name, size_t ports) const;
    std::shared_ptr<IMediaDevice> search() const;
    /** A link's flags as the kernel has them now. */
    uint32_t linkFlags(const client::SessionLink& link) const;
    client::IDmaBufSource& source() const { return *mSource; }
    /** Descriptors that the device under test still counts as open. */
    size_t openFiles() const { return mEngine != nullptr ? mEngine->openFiles() : 0; }

private:
    Platform();
    void findPorts();

    std::string mModel;
    std::unique_ptr<sim::VirtualEngine> mEngine;
    sim::Device* mDevice = nullptr;
    std::vector<PortEntity> mPorts;
    std::unique_ptr<client::IDmaBufSource> mSource;
};

}  // namespace NSVista::NSCorvane::test
