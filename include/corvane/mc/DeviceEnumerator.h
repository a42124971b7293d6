// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Enumeration of media devices, and the process's enumerator.
 */
#pragma once

#include <linux/media.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <corvane/IDeviceEnumerator.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {
CORVANE_EXPORT std::string toString(const DefaultMediaConfigs& configs);
}

namespace NSVista::NSCorvane::mc {

class MediaTopology;

CORVANE_EXPORT std::string toString(const media_device_info& info);

/**
 * Walks the media devices under /dev in directory order (MEDIA_IOC_DEVICE_INFO).
 * @param onDevice returns true to end the walk. A device that cannot be read is logged and skipped.
 */
CORVANE_EXPORT void enumerateMediaDevices(
    std::function<bool(const media_device_info&, const std::string& path)> onDevice);

/**
 * Walks a device's entities (MEDIA_IOC_ENUM_ENTITIES). A walk that ends with another error than
 * EINVAL, its normal end, is warned of: it may have missed entities.
 * @return the number of entities met.
 */
CORVANE_EXPORT size_t enumerateMediaEntity(int fd,
                                           std::function<void(const media_entity_desc&)> onEntity);

/**
 * Reads the pads and links of entities (MEDIA_IOC_ENUM_LINKS).
 * @param onLinks gets an entity's arrays, null where there are none; valid during the call only.
 * Its record's link count is what was found, which may be more than @p entities tells when links
 *        came up meanwhile.
 * @return false when the device refuses; the walk ends there.
 */
CORVANE_EXPORT bool enumAllMediaLinks(
    int fd, const std::vector<media_entity_desc>& entities,
    std::function<void(const media_entity_desc&, const media_link_desc* links,
                       const media_pad_desc* pads)>
        onLinks);

/**
 * Takes a snapshot of a device's graph.
 * @return null when the device cannot be opened; a refused link enumeration is fatal.
 */
CORVANE_EXPORT std::shared_ptr<MediaTopology> enumMediaTopology(const std::string& path);

/** A media device that is there. */
struct FoundMediaDevice {
    std::string path;  ///< its node
    media_device_info info;
};

/**
 * Finds media devices and caches what it met; caches only grow. Any thread. The configuration's
 * lock may be held when the caches' lock is taken, never the reverse; the caches' lock is not held
 * while devices are looked at, the configuration's is where the default device is wanted.
 */
class CORVANE_EXPORT DeviceEnumerator : public IDeviceEnumerator {
public:
    /** Created on first use, alive until the process ends. */
    static DeviceEnumerator& instance();

    void dumpState(IPrinter* printer) const override;
    std::shared_ptr<IMediaDevice> search(const std::string& modelName) override;
    std::string getDefaultSubDevEntityName() const override;
    std::string determineDefaultSubDevnodePath() override;
    std::shared_ptr<IMediaDevice> makeDefaultMediaDevice() override;

    /**
     * Looks which media devices are there now, in directory order, without the consequences of
     * search(): nothing is fatal, reported or cached. A device that cannot be read is logged and
     * skipped.
     * @param modelName empty for every model.
     */
    std::vector<FoundMediaDevice> find(const std::string& modelName) const;
    /** @param configs must not be null; copied, the last call wins. */
    void registerDefaultMediaConfigs(const DefaultMediaConfigs* configs);
    /**
     * The device node of an entity of the one cached topology; any other number of cached
     * topologies is fatal.
     * @return empty when the entity is absent or has no node.
     */
    std::string findMediaEntityDevnodePath(const char* entityName) const;

private:
    using DeviceInfo = std::pair<std::string, std::shared_ptr<media_device_info>>;
    using Topology = std::pair<std::string, std::shared_ptr<MediaTopology>>;

    DeviceEnumerator() = default;
    DeviceInfo findMediaDeviceInfoByModelNameFromCache(const std::string& modelName) const
        CORVANE_EXCLUDES(mCacheLock);
    std::shared_ptr<MediaTopology> findMediaTopologyFromCache(const std::string& path) const
        CORVANE_EXCLUDES(mCacheLock);
    std::shared_ptr<MediaTopology> cacheMediaTopology(
        const std::string& path, const std::shared_ptr<MediaTopology>& topology)
        CORVANE_EXCLUDES(mCacheLock);
    bool determineMediaDeviceInfoAndTopologyByModelName(
        const std::string& modelName,
        const std::function<void(const DeviceInfo&, const std::shared_ptr<MediaTopology>&)>&
            onFound) CORVANE_EXCLUDES(mCacheLock);
    DefaultMediaConfigs defaultConfigs() const CORVANE_EXCLUDES(mConfigLock);

    mutable Mutex mConfigLock CORVANE_ACQUIRED_BEFORE(mCacheLock);
    DefaultMediaConfigs mDefaultMediaConfigs CORVANE_GUARDED_BY(mConfigLock);
    mutable Mutex mCacheLock;
    std::vector<DeviceInfo> mMediaDeviceInfoList CORVANE_GUARDED_BY(mCacheLock);
    std::vector<Topology> mMediaTopologyList CORVANE_GUARDED_BY(mCacheLock);
};

}  // namespace NSVista::NSCorvane::mc
