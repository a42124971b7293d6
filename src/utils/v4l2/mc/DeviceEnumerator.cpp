#include <corvane/mc/DeviceEnumerator.h>

#include <corvane/mc/MediaDevice.h>
#include <corvane/mc/MediaTopology.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-DeviceEnumerator")

namespace NSVista::NSCorvane {

namespace {

const int32_t sDumpStateDetail = Utils::Properties::property_get_int32(
    "persist.vendor.camera.corvane.DeviceEnumerator.dumpstatedetail", 'I');

/** A media device node that is open while it is looked at. */
class FileDescriptor {
public:
    FileDescriptor(const char* path, int flags)
        : mFd(System::Open(path, flags, reinterpret_cast<unsigned long>(this))) {
        CORVANE_LOGD("+ mFd=%d %s", mFd, path);
    }
    ~FileDescriptor() {
        if (mFd == -1)
            return;
        CORVANE_LOGD("- mFd=%d", mFd);
        System::Close(mFd, reinterpret_cast<unsigned long>(this));
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

std::string toString(const DefaultMediaConfigs& configs) {
    return " .mediadevice_model_name=" + configs.mediadevice_model_name +
           " .subdevice_entity_name=" + configs.subdevice_entity_name;
}

IDeviceEnumerator& IDeviceEnumerator::instance() {
    return mc::DeviceEnumerator::instance();
}

}  // namespace NSVista::NSCorvane

namespace NSVista::NSCorvane::mc {

std::string toString(const media_device_info& info) {
    std::ostringstream text;
    text << " .driver=" << fixedText(info.driver) << " .model=" << fixedText(info.model)
         << " .serial=" << fixedText(info.serial) << " .bus_info=" << fixedText(info.bus_info)
         << std::hex << std::showbase << " .media_version=" << info.media_version
         << " .hw_revision=" << info.hw_revision << " .driver_version=" << info.driver_version;
    return text.str();
}

namespace {

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
        return false;
    }
    media_device_info info = {};
    const int ret = System::Ioctl(fd, static_cast<int>(MEDIA_IOC_DEVICE_INFO), &info, 3);
    if (ret < 0) {
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
    std::function<bool(const media_device_info&, const std::string& path)> onDevice) {
    const TraceSection section(area::kLifecycle, "enumerateMediaDevices");
    if (!onDevice)
        CORVANE_FATAL("Bad function");
    const std::unique_ptr<DIR, DirCloser> dir(System::OpenDir("/dev"));
    if (dir == nullptr) {
        CORVANE_LOGE("Failed to open media device directory");
        return;
    }
    while (const struct dirent* entry = System::ReadDir(dir.get()))
        if (isMediaNode(entry->d_name) &&
            showMediaNode(std::string("/dev/") + entry->d_name, onDevice))
            return;
}

size_t enumerateMediaEntity(int fd, std::function<void(const media_entity_desc&)> onEntity) {
    const TraceSection section(area::kLifecycle, "enumerateMediaEntity");
    if (!onEntity)
        CORVANE_FATAL("Bad function");
    media_entity_desc desc = {};
    desc.id = MEDIA_ENT_ID_FLAG_NEXT;
    size_t count = 0;
    // The kernel leaves the found entity's id; the flag asks for the next one. An error ends the
    // walk, which is its normal end.
    while (System::Ioctl(fd, static_cast<int>(MEDIA_IOC_ENUM_ENTITIES), &desc, 0) >= 0) {
        onEntity(desc);
        ++count;
        desc.id |= MEDIA_ENT_ID_FLAG_NEXT;
    }
    CORVANE_LOGD("MEDIA_IOC_ENUM_ENTITIES ends: no entity id %#x", desc.id);
    CORVANE_LOGD("%zu entities found", count);
    return count;
}

bool enumAllMediaLinks(int fd, const std::vector<media_entity_desc>& entities,
                       std::function<void(const media_entity_desc&, const media_link_desc* links,
                                          const media_pad_desc* pads)>
                           onLinks) {
    const TraceSection section(area::kLifecycle, "enumAllMediaLinks");
    if (!onLinks)
        CORVANE_FATAL("Bad function");
    for (const auto& entity : entities) {
        std::vector<media_pad_desc> pads(entity.pads);
        std::vector<media_link_desc> links(entity.links);
        media_links_enum request = {};
        request.entity = entity.id;
        request.pads = pads.empty() ? nullptr : pads.data();
        request.links = links.empty() ? nullptr : links.data();
        const int ret = System::Ioctl(fd, static_cast<int>(MEDIA_IOC_ENUM_LINKS), &request, 3);
        if (ret < 0) {
            CORVANE_LOGE("Failed on MEDIA_IOC_ENUM_LINKS: %s", strerror(-ret));
            return false;
        }
        onLinks(entity, request.links, request.pads);
    }
    return true;
}

std::shared_ptr<MediaTopology> enumMediaTopology(const std::string& path) {
    const FileDescriptor fd(path.c_str(), O_RDWR);
    if (fd < 0) {
        CORVANE_LOGE("Failed to open %s: %d", path.c_str(), static_cast<int>(fd));
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

DeviceEnumerator& DeviceEnumerator::instance() {
    static DeviceEnumerator enumerator;
    return enumerator;
}

void DeviceEnumerator::registerDefaultMediaConfigs(const DefaultMediaConfigs* configs) {
    const MutexLock lock(mConfigLock);
    mDefaultMediaConfigs = *configs;
}

DefaultMediaConfigs DeviceEnumerator::defaultConfigs() const {
    const MutexLock lock(mConfigLock);
    return mDefaultMediaConfigs;
}

std::string DeviceEnumerator::getDefaultSubDevEntityName() const {
    const MutexLock lock(mConfigLock);
    return mDefaultMediaConfigs.subdevice_entity_name;
}

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
    const TraceSection section(area::kLifecycle, static_cast<const char*>(__func__));
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

std::shared_ptr<IMediaDevice> DeviceEnumerator::search(const std::string& modelName) {
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

std::string DeviceEnumerator::findMediaEntityDevnodePath(const char* entityName) const {
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

std::string DeviceEnumerator::determineDefaultSubDevnodePath() {
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

std::shared_ptr<IMediaDevice> DeviceEnumerator::makeDefaultMediaDevice() {
    const MutexLock lock(mConfigLock);
    if (mDefaultMediaConfigs.mediadevice_model_name.empty())
        CORVANE_FATAL("No default model name: %s", toString(mDefaultMediaConfigs).c_str());
    return search(mDefaultMediaConfigs.mediadevice_model_name);
}

void DeviceEnumerator::dumpState(IPrinter* printer) const {
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

}  // namespace NSVista::NSCorvane::mc
