// SPDX-License-Identifier: Apache-2.0
#include "DevNodes.h"

#include <sys/sysmacros.h>
#include <cerrno>

#include <algorithm>
#include <cstring>

namespace NSVista::NSCorvane::sim {

namespace {

constexpr unsigned kMediaMajor = 508;
constexpr unsigned kVideoMajor = 81;
constexpr std::string_view kDev = "/dev/";
constexpr std::string_view kSysfs = "/sys/dev/char/";

dirent makeEntry(const std::string& name, unsigned char type) {
    dirent entry = {};
    entry.d_ino = 1;
    entry.d_reclen = sizeof(entry);
    entry.d_type = type;
    name.copy(entry.d_name, sizeof(entry.d_name) - 1);
    return entry;
}

}  // namespace

std::string_view DevNode::subject() const {
    return queue ? queue->name() : subDevice ? subDevice->name() : std::string_view();
}

bool DevNodes::add(const DeviceDesc& description, DeviceCore& device) {
    const MutexLock lock(mMutex);
    DevNode media{description.mediaNode.empty() ? freeName("media") : description.mediaNode,
                  "../../devices/platform/" + std::string(device.info().driver) + ".0/",
                  kMediaMajor, mMediaMinor, &device};
    if (find(media.path()) || !areFree(description))
        return false;
    ++mMediaMinor;
    device.mediaPath = media.path();
    device.entityPaths.resize(description.entities.size());
    auto queue = device.queues().begin();
    auto subDevice = device.subDevices().begin();
    for (size_t i = 0; i < description.entities.size(); ++i) {
        const EntityDesc& entity = description.entities[i];
        if (!entity.nodeOf.empty())
            share(device, entity.nodeOf, i);
        if (!entity.video && !entity.subDevice)
            continue;
        const std::pair<unsigned, unsigned> number =
            entity.node.number.value_or(std::pair(kVideoMajor, freeMinor()));
        DevNode node{entity.node.name.empty() ? freeName(entity.video ? "video" : "v4l-subdev")
                                              : entity.node.name,
                     media.sysfsDir + "video4linux/", number.first, number.second, &device};
        if (entity.video)
            node.queue = (queue++)->get();
        else
            node.subDevice = (subDevice++)->get();
        device.entityPaths[i] = node.path();
        const DeviceLock deviceLock(device.mutex());
        device.graph().setDevnode(i, node.major, node.minor);
        mNodes.push_back(std::move(node));
    }
    // A driver registers its media device when all of its nodes are there.
    mNodes.push_back(std::move(media));
    return true;
}

/** Gives an entity the node of an earlier one, where that has one. */
void DevNodes::share(DeviceCore& device, const std::string& owner, size_t entity) const {
    const DeviceLock deviceLock(device.mutex());
    const auto from = device.graph().find(owner);
    const DevNode* const node = from ? find(device.entityPaths[*from]) : nullptr;
    if (node == nullptr)
        return;
    device.entityPaths[entity] = node->path();
    device.graph().setDevnode(entity, node->major, node->minor);
}

void DevNodes::setOrder(DirectoryOrder order) {
    const MutexLock lock(mMutex);
    mOrder = order;
}

bool DevNodes::isFree(const std::pair<unsigned, unsigned>& number) const {
    return std::none_of(mNodes.begin(), mNodes.end(), [&](const DevNode& node) {
        return node.major == number.first && node.minor == number.second;
    });
}

unsigned DevNodes::freeMinor() const {
    unsigned minor = 0;
    while (!isFree({kVideoMajor, minor}))
        ++minor;
    return minor;
}

/** Whether the names and numbers that a description asks for can be had. */
bool DevNodes::areFree(const DeviceDesc& description) const {
    return std::none_of(
        description.entities.begin(), description.entities.end(),
        [this](const EntityDesc& entity) CORVANE_REQUIRES(mMutex) {
            return (!entity.node.name.empty() && find("/dev/" + entity.node.name) != nullptr) ||
                   (entity.node.number && !isFree(*entity.node.number));
        });
}

std::string DevNodes::freeName(std::string_view prefix) const {
    for (unsigned n = 0;; ++n) {
        std::string name = std::string(prefix) + std::to_string(n);
        if (!find("/dev/" + name))
            return name;
    }
}

const DevNode* DevNodes::find(std::string_view path) const {
    if (!path.starts_with(kDev))
        return nullptr;
    auto at = std::find_if(mNodes.begin(), mNodes.end(), [&](const DevNode& node) {
        return node.name == path.substr(kDev.size());
    });
    return at == mNodes.end() ? nullptr : &*at;
}

std::optional<DevNode> DevNodes::findPath(std::string_view path) const {
    const MutexLock lock(mMutex);
    const DevNode* node = find(path);
    return node ? std::optional(*node) : std::nullopt;
}

bool DevNodes::reserved(std::string_view path) {
    return path.starts_with("/dev/media") || path.starts_with("/dev/video") ||
           path.starts_with("/dev/v4l-subdev") || path.starts_with(kSysfs);
}

int DevNodes::stat(std::string_view path, struct stat* info) const {
    const MutexLock lock(mMutex);
    const DevNode* node = find(path);
    if (node == nullptr)
        return -ENOENT;
    *info = {};
    info->st_mode = S_IFCHR | 0660;
    info->st_nlink = 1;
    info->st_rdev = makedev(node->major, node->minor);
    return 0;
}

int DevNodes::readLink(std::string_view path, char* buffer, size_t size) const {
    if (size == 0)
        return -EINVAL;
    const MutexLock lock(mMutex);
    for (const DevNode& node : mNodes) {
        std::string number = std::to_string(node.major) + ":" + std::to_string(node.minor);
        if (path.starts_with(kSysfs) && path.substr(kSysfs.size()) == number)
            return static_cast<int>((node.sysfsDir + node.name).copy(buffer, size));
    }
    return -ENOENT;
}

bool DevNodes::isDirectory(std::string_view path) {
    return path == "/dev" || path == "/dev/";
}

DIR* DevNodes::openDir() {
    const MutexLock lock(mMutex);
    auto directory = std::make_unique<Directory>();
    directory->entries = {makeEntry(".", DT_DIR), makeEntry("..", DT_DIR)};
    for (const DevNode& node : mNodes)
        directory->entries.push_back(makeEntry(node.name, DT_CHR));
    if (mOrder == DirectoryOrder::NEWEST_FIRST)
        std::reverse(directory->entries.begin() + 2, directory->entries.end());
    mDirectories.push_back(std::move(directory));
    return reinterpret_cast<DIR*>(mDirectories.back().get());
}

std::vector<std::unique_ptr<DevNodes::Directory>>::iterator DevNodes::findDirectory(DIR* dir) {
    return std::find_if(mDirectories.begin(), mDirectories.end(), [dir](const auto& directory) {
        return reinterpret_cast<DIR*>(directory.get()) == dir;
    });
}

bool DevNodes::readDir(DIR* dir, dirent** entry) {
    const MutexLock lock(mMutex);
    auto at = findDirectory(dir);
    if (at == mDirectories.end())
        return false;
    Directory& directory = **at;
    *entry =
        directory.next < directory.entries.size() ? &directory.entries[directory.next++] : nullptr;
    return true;
}

bool DevNodes::closeDir(DIR* dir) {
    const MutexLock lock(mMutex);
    auto at = findDirectory(dir);
    if (at == mDirectories.end())
        return false;
    mDirectories.erase(at);
    return true;
}

}  // namespace NSVista::NSCorvane::sim
