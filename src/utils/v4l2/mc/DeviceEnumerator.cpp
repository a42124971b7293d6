// SPDX-License-Identifier: Apache-2.0
#include <corvane/mc/DeviceEnumerator.h>

#include <corvane/V4L2.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/mc/MediaTopology.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "DriverCall.h"
#include "RefusedOpen.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-DeviceEnumerator")

namespace NSVista::NSCorvane {

namespace {

const int32_t sDumpStateDetail = Utils::Properties::property_get_int32(
    "persist.vendor.camera.corvane.DeviceEnumerator.dumpstatedetail", 'I');

/** A media device node that is open while it is looked at. */
class FileDescriptor {
public:
    FileDescriptor(const char* path, int flags) : mFd(System::Open(path, flags, ownerToken(this))) {
        CORVANE_LOGD("+ mFd=%d %s", mFd, path);
    }
    ~FileDescriptor() {
        if (mFd == -1)
            return;
        CORVANE_LOGD("- mFd=%d", mFd);
        System::Close(mFd, ownerToken(this));
        mFd = -1;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    operator int32_t() const { return mFd; }  // NOLINT(google-explicit-constructor)

private:
    int32_t mFd;
};

struct DirCloser {
    void operator()(DIR* dir) const { System::CloseDir(dir); }
};

/** "media" and up to three more characters. */
bool isMediaNode(const char* name) {
    constexpr char kPrefix[] = "media";
    constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
    return strncmp(name, kPrefix, kPrefixLength) == 0 && strlen(name) <= kPrefixLength + 3;
}

}  // namespace

std::string toString(const DefaultMediaConfigs& configs) try {
    return " .mediadevice_model_name=" + configs.mediadevice_model_name +
           " .subdevice_entity_name=" + configs.subdevice_entity_name;
}
CORVANE_NO_THROW

IDeviceEnumerator& IDeviceEnumerator::instance() {
    return mc::DeviceEnumerator::instance();
}

}  // namespace NSVista::NSCorvane

namespace NSVista::NSCorvane::mc {

using v4l2::fixedText;

std::string toString(const media_device_info& info) try {
    char versions[96];
    snprintf(versions, sizeof(versions), " .media_version=%#x .hw_revision=%#x .driver_version=%#x",
             info.media_version, info.hw_revision, info.driver_version);
    return " .driver=" + fixedText(info.driver) + " .model=" + fixedText(info.model) +
           " .serial=" + fixedText(info.serial) + " .bus_info=" + fixedText(info.bus_info) +
           versions;
}
CORVANE_NO_THROW

namespace {

/** Logs the likely cause of a refused open beside the refusal itself. */
void logOpenCause(const char* operation, const std::string& path, int r) {
    if (const std::string cause = refusedOpenCause(path, r); !cause.empty())
        CORVANE_LOGE_AS(operation, "%s", cause.c_str());
}

/** Shows one node to @p onDevice while it is open; one that cannot be read is skipped (logged). */
bool showMediaNode(
    const std::string& path,
    const std::function<bool(const media_device_info&, const std::string& path)>& onDevice) {
    constexpr const char* kOperation = "enumerateMediaDevices";
    struct stat status = {};
    if (System::Stat(path.c_str(), &status) < 0) {
        CORVANE_LOGE_AS(kOperation, "Failed to find path: %s", path.c_str());
        return false;
    }
    const FileDescriptor fd(path.c_str(), O_RDWR);
    if (fd < 0) {
        CORVANE_LOGE_AS(kOperation, "Failed to open %s: %d", path.c_str(), static_cast<int>(fd));
        logOpenCause(kOperation, path, fd);
        return false;
    }
    media_device_info info = {};
    if (const int ret = driverCall(fd, MEDIA_IOC_DEVICE_INFO, &info); ret < 0) {
        CORVANE_LOGE_AS(kOperation, "Failed on MEDIA_IOC_DEVICE_INFO: %s", strerror(-ret));
        return false;
    }
    const bool stop = onDevice(info, path);
    CORVANE_LOGI_AS(kOperation, "[%s] '%s': %s", stop ? "STOP TO ENUMERATE" : "STILL ENUMERATING",
                    path.c_str(), toString(info).c_str());
    return stop;
}

}  // namespace

void enumerateMediaDevices(
    std::function<bool(const media_device_info&, const std::string& path)> onDevice) try {
    const TraceSection section(area::kLifecycle, "enumerateMediaDevices");
    if (!onDevice)
        CORVANE_FATAL("Bad function");
    const std::unique_ptr<DIR, DirCloser> dir(System::OpenDir("/dev"));
    if (dir == nullptr) {
        CORVANE_LOGE("Failed to open media device directory");
        return;
    }
    errno = 0;
    while (const struct dirent* entry = System::ReadDir(dir.get())) {
        if (isMediaNode(entry->d_name) &&
            showMediaNode(std::string("/dev/") + entry->d_name, onDevice))
            return;
        errno = 0;
    }
    if (errno != 0)
        CORVANE_LOGE("Failed to read media device directory, there may be more devices: %s",
                     strerror(errno));
}
CORVANE_NO_THROW

size_t enumerateMediaEntity(int fd, std::function<void(const media_entity_desc&)> onEntity) try {
    const TraceSection section(area::kLifecycle, "enumerateMediaEntity");
    if (!onEntity)
        CORVANE_FATAL("Bad function");
    media_entity_desc desc = {};
    desc.id = MEDIA_ENT_ID_FLAG_NEXT;
    size_t count = 0;
    // The kernel leaves the found entity's id; the flag asks for the next one. An error ends the
    // walk, which is its normal end.
    int ret = 0;
    while ((ret = walkStep(fd, MEDIA_IOC_ENUM_ENTITIES, &desc)) >= 0) {
        onEntity(desc);
        ++count;
        desc.id |= MEDIA_ENT_ID_FLAG_NEXT;
    }
    CORVANE_LOGD("MEDIA_IOC_ENUM_ENTITIES ends: no entity id %#x", desc.id);
    CORVANE_LOGD("%zu entities found", count);
    if (ret != -EINVAL)
        CORVANE_LOGW("MEDIA_IOC_ENUM_ENTITIES fails after %zu entities, there may be more: %d(%s)",
                     count, ret, strerror(-ret));
    return count;
}
CORVANE_NO_THROW

namespace {

using LinksCallback =
    std::function<void(const media_entity_desc&, const media_link_desc*, const media_pad_desc*)>;

/**
 * Where the kernel writes an entity's links. It writes as many as there are by then, whatever it
 * told before and without asking for the room, and drivers make links at any time. So there is room
 * for all that it can count: struct media_entity has 16 bits for them. What nothing is written to
 * takes no memory.
 */
class LinkRoom {
public:
    LinkRoom()
        : mLinks(static_cast<media_link_desc*>(calloc(kMostLinks + 1, sizeof(media_link_desc)))) {
        if (mLinks == nullptr)
            throw std::bad_alloc();
    }

    media_link_desc* data() const { return mLinks.get(); }
    /** @return how many links the kernel wrote, but no fewer than the @p told ones. */
    size_t count(size_t told) const {
        while (told < kMostLinks && mLinks[told].source.entity != 0)
            ++told;
        return told;
    }
    void clear(size_t count) { std::fill_n(mLinks.get(), count, media_link_desc{}); }

private:
    static constexpr size_t kMostLinks = std::numeric_limits<uint16_t>::max();
    struct Free {
        void operator()(media_link_desc* links) const { free(links); }
    };

    std::unique_ptr<media_link_desc[], Free> mLinks;
};

/** Shows one entity's links and pads. @return a negated errno when the device refuses. */
int showLinks(int fd, const media_entity_desc& entity, LinkRoom& room,
              const LinksCallback& onLinks) {
    std::vector<media_pad_desc> pads(entity.pads);
    media_links_enum request = {};
    request.entity = entity.id;
    request.pads = pads.empty() ? nullptr : pads.data();
    request.links = entity.links != 0 ? room.data() : nullptr;
    if (const int ret = driverCall(fd, MEDIA_IOC_ENUM_LINKS, &request); ret < 0)
        return ret;
    const size_t count = entity.links != 0 ? room.count(entity.links) : 0;
    media_entity_desc current = entity;
    current.links = static_cast<uint16_t>(count);
    onLinks(current, request.links, request.pads);
    room.clear(count);
    return 0;
}

}  // namespace

bool enumAllMediaLinks(int fd, const std::vector<media_entity_desc>& entities,
                       std::function<void(const media_entity_desc&, const media_link_desc* links,
                                          const media_pad_desc* pads)>
                           onLinks) try {
    const TraceSection section(area::kLifecycle, "enumAllMediaLinks");
    if (!onLinks)
        CORVANE_FATAL("Bad function");
    LinkRoom room;
    for (const auto& entity : entities)
        if (const int ret = showLinks(fd, entity, room, onLinks); ret < 0) {
            CORVANE_LOGE("Failed on MEDIA_IOC_ENUM_LINKS: %s", strerror(-ret));
            return false;
        }
    return true;
}
CORVANE_NO_THROW

std::shared_ptr<MediaTopology> enumMediaTopology(const std::string& path) try {
    const FileDescriptor fd(path.c_str(), O_RDWR);
    if (fd < 0) {
        CORVANE_LOGE("Failed to open %s: %d", path.c_str(), static_cast<int>(fd));
        logOpenCause("enumMediaTopology", path, fd);
        return nullptr;
    }
    auto topology = std::make_shared<MediaTopology>(path);
    enumerateMediaEntity(
        fd, [&](const media_entity_desc& entity) { topology->insertEntityDesc(entity); });
    const bool complete =
        enumAllMediaLinks(fd, topology->entityDescs(),
                          [&](const media_entity_desc& desc, const media_link_desc* links,
                              const media_pad_desc* pads) {
                              const auto entity = std::make_shared<MediaEntity>(desc, links, pads);
                              topology->insertEntity(entity);
                              for (const auto& link : entity->links())
                                  topology->insertLinkDesc(link);
                          });
    if (!complete)
        CORVANE_FATAL("enumAllMediaLinks");
    CORVANE_LOGI("media_entity_desc[%zu] media_link_desc[%zu]", topology->entityDescs().size(),
                 topology->linkDescs().size());
    return topology;
}
CORVANE_NO_THROW

DeviceEnumerator& DeviceEnumerator::instance() {
    static DeviceEnumerator enumerator;
    return enumerator;
}

void DeviceEnumerator::registerDefaultMediaConfigs(const DefaultMediaConfigs* configs) try {
    const MutexLock lock(mConfigLock);
    mDefaultMediaConfigs = *configs;
}
CORVANE_NO_THROW

DefaultMediaConfigs DeviceEnumerator::defaultConfigs() const {
    const MutexLock lock(mConfigLock);
    return mDefaultMediaConfigs;
}

std::string DeviceEnumerator::getDefaultSubDevEntityName() const try {
    const MutexLock lock(mConfigLock);
    return mDefaultMediaConfigs.subdevice_entity_name;
}
CORVANE_NO_THROW

std::vector<FoundMediaDevice> DeviceEnumerator::find(const std::string& modelName) const try {
    const TraceSection section(area::kLifecycle, "DeviceEnumerator::find");
    std::vector<FoundMediaDevice> devices;
    enumerateMediaDevices([&](const media_device_info& info, const std::string& path) {
        if (modelName.empty() || fixedText(info.model) == modelName)
            devices.push_back({path, info});
        return false;
    });
    return devices;
}
CORVANE_NO_THROW

DeviceEnumerator::DeviceInfo DeviceEnumerator::findMediaDeviceInfoByModelNameFromCache(
    const std::string& modelName) const {
    const MutexLock lock(mCacheLock);
    const auto found = std::find_if(
        mMediaDeviceInfoList.begin(), mMediaDeviceInfoList.end(),
        [&](const DeviceInfo& entry) { return fixedText(entry.second->model) == modelName; });
    return found != mMediaDeviceInfoList.end() ? *found : DeviceInfo{};
}

std::shared_ptr<MediaTopology> DeviceEnumerator::findMediaTopologyFromCache(
    const std::string& path) const {
    const TraceSection section(
        area::kLifecycle,
        CORVANE_TRACE_NAME("DeviceEnumerator::findMediaTopologyFromCache %s", path.c_str()));
    const MutexLock lock(mCacheLock);
    for (const auto& [cachedPath, topology] : mMediaTopologyList)
        if (cachedPath == path)
            return topology;
    return nullptr;
}

std::shared_ptr<MediaTopology> DeviceEnumerator::cacheMediaTopology(
    const std::string& path, const std::shared_ptr<MediaTopology>& topology) {
    const MutexLock lock(mCacheLock);
    // Another search may have met the same device meanwhile; all must share one snapshot.
    for (const auto& [cachedPath, cached] : mMediaTopologyList)
        if (cachedPath == path && cached != nullptr)
            return cached;
    mMediaTopologyList.emplace_back(path, topology);
    return topology;
}

bool DeviceEnumerator::determineMediaDeviceInfoAndTopologyByModelName(
    const std::string& modelName,
    const std::function<void(const DeviceInfo&, const std::shared_ptr<MediaTopology>&)>& onFound) {
    const TraceSection section(area::kLifecycle,
                               "DeviceEnumerator::determineMediaDeviceInfoAndTopologyByModelName");
    CORVANE_LOGI("Searching: %s", modelName.c_str());
    DeviceInfo found = findMediaDeviceInfoByModelNameFromCache(modelName);
    if (found.first.empty() || found.second == nullptr) {
        enumerateMediaDevices([&](const media_device_info& info, const std::string& path) {
            DeviceInfo met(path, std::make_shared<media_device_info>(info));
            {
                const MutexLock lock(mCacheLock);
                mMediaDeviceInfoList.push_back(met);
            }
            if (fixedText(info.model) != modelName)
                return false;
            found = std::move(met);
            return true;
        });
    }
    if (found.first.empty() || found.second == nullptr) {
        CORVANE_LOGE("Enumerate nothing for model name%s", modelName.c_str());
        return false;
    }
    auto topology = findMediaTopologyFromCache(found.first);
    if (topology == nullptr)
        topology = cacheMediaTopology(found.first, enumMediaTopology(found.first));
    onFound(found, topology);
    return true;
}

std::shared_ptr<IMediaDevice> DeviceEnumerator::search(const std::string& modelName) try {
    const TraceSection section(
        area::kLifecycle, CORVANE_TRACE_NAME("DeviceEnumerator::search %s", modelName.c_str()));
    std::shared_ptr<IMediaDevice> device;
    const bool ret = determineMediaDeviceInfoAndTopologyByModelName(
        modelName, [&](const DeviceInfo& info, const std::shared_ptr<MediaTopology>& topology) {
            device = std::make_shared<MediaDevice>(info.first, info.second, topology);
        });
    if (device == nullptr)
        CORVANE_FATAL("Bad MediaDevice. ret=%d", ret);
    return device;
}
CORVANE_NO_THROW

std::string DeviceEnumerator::findMediaEntityDevnodePath(const char* entityName) const try {
    std::shared_ptr<MediaEntity> entity;
    size_t count = 0;
    {
        const MutexLock lock(mCacheLock);
        count = mMediaTopologyList.size();
        if (count == 1 && mMediaTopologyList.front().second != nullptr)
            entity = mMediaTopologyList.front().second->findEntity(entityName);
    }
    if (count != 1)
        CORVANE_FATAL("mMediaTopologyList.size=%zu != 1", count);
    return entity != nullptr ? entity->determineDevnodePath() : std::string();
}
CORVANE_NO_THROW

std::string DeviceEnumerator::determineDefaultSubDevnodePath() try {
    const MutexLock lock(mConfigLock);
    const bool ret = determineMediaDeviceInfoAndTopologyByModelName(
        mDefaultMediaConfigs.mediadevice_model_name,
        [](const DeviceInfo&, const std::shared_ptr<MediaTopology>&) {});
    std::string path =
        findMediaEntityDevnodePath(mDefaultMediaConfigs.subdevice_entity_name.c_str());
    if (path.empty())
        CORVANE_FATAL("No subdev path for %s. ret=%d", toString(mDefaultMediaConfigs).c_str(), ret);
    return path;
}
CORVANE_NO_THROW

std::shared_ptr<IMediaDevice> DeviceEnumerator::makeDefaultMediaDevice() try {
    const MutexLock lock(mConfigLock);
    if (mDefaultMediaConfigs.mediadevice_model_name.empty())
        CORVANE_FATAL("No default model name: %s", toString(mDefaultMediaConfigs).c_str());
    return search(mDefaultMediaConfigs.mediadevice_model_name);
}
CORVANE_NO_THROW

void DeviceEnumerator::dumpState(IPrinter* printer) const try {
    const DefaultMediaConfigs configs = defaultConfigs();
    std::vector<DeviceInfo> infos;
    std::vector<Topology> topologies;
    {
        const MutexLock lock(mCacheLock);
        infos = mMediaDeviceInfoList;
        topologies = mMediaTopologyList;
    }
    printer->printFormatLine("<<DeviceEnumerator>> default=%s media_device_info[%zu] topology[%zu]",
                             toString(configs).c_str(), infos.size(), topologies.size());
    for (const auto& [path, info] : infos)
        printer->printFormatLine(" '%s': media_device_info=%s", path.c_str(),
                                 toString(*info).c_str());
    for (const auto& [path, topology] : topologies)
        if (topology != nullptr)
            topology->dumpState(printer, sDumpStateDetail);
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane::mc
