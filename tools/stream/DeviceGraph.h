/**
 * @file
 * Media devices as a user sees them: ports, links, listing.
 */
#pragma once

#include <linux/media.h>

#include <memory>
#include <string>
#include <vector>

#include <corvane/client/SceneSession.h>
#include <corvane/client/VideoNode.h>

namespace NSVista::NSCorvane::mc {
class MediaTopology;
}

namespace NSVista::NSCorvane::stream {

/** A node that streams with media requests. */
struct NodePort {
    int index;  ///< among the device's ports
    std::string entity;
    std::string nodePath;
    client::VideoNode node;
};

/** One media device with its graph. */
class DeviceGraph {
public:
    /** Finds a model. @return null, with a line on stderr, when there is none. */
    static std::unique_ptr<DeviceGraph> find(const std::string& model);

    const std::string& path() const { return mPath; }
    std::string driver() const { return mInfo.driver; }
    /** All that can be streamed, in the order of the entities. */
    const std::vector<NodePort>& ports() const { return mPorts; }
    /**
     * Chooses ports.
     * @param wish "all", how many of the first, or a list of entity names and indexes.
     * @return empty, with a line on stderr, when the wish names what there is not.
     */
    std::vector<NodePort> choose(const std::string& wish) const;
    /** The links that touch the ports and can be changed. */
    std::vector<client::SessionLink> linksOf(const std::vector<NodePort>& ports) const;
    /** Name of the first sub-device with a node; empty when there is none. */
    std::string subDevice() const;

private:
    DeviceGraph(std::string path, const media_device_info& info);
    const NodePort* findPort(const std::string& word) const;

    std::string mPath;
    media_device_info mInfo;
    std::shared_ptr<mc::MediaTopology> mTopology;
    std::vector<NodePort> mPorts;
};

/** Prints all media devices with their entities and links to stdout. */
void listDevices();

}  // namespace NSVista::NSCorvane::stream
