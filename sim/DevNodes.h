// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The engine's part of "/dev" and "/sys/dev/char".
 */
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <corvane/sim/Engine.h>

#include "DeviceCore.h"

namespace NSVista::NSCorvane::sim {

/** One device node. Exactly one of `queue` and `subDevice` is set, or none for a media device. */
struct DevNode {
    std::string name;      ///< under /dev
    std::string sysfsDir;  ///< what its sysfs link leads to, before the name
    unsigned major, minor;
    DeviceCore* device;
    BufferQueue* queue = nullptr;
    SubDevice* subDevice = nullptr;

    std::string path() const { return "/dev/" + name; }
    /** How faults know the node beside its path. */
    std::string_view subject() const;
};

/** The device nodes and the directory streams over them. Any thread. */
class DevNodes {
public:
    /** Adds the nodes of @p device. @return false when a name or number that it asks for is taken.
     */
    bool add(const DeviceDesc& description, DeviceCore& device);
    void setOrder(DirectoryOrder order);

    std::optional<DevNode> findPath(std::string_view path) const;
    /** A path of the kind that only the engine answers for, whether or not it exists. */
    static bool reserved(std::string_view path);

    int stat(std::string_view path, struct stat* info) const;
    /** @return the length of the link's target, cut to @p size, or a negated errno. */
    int readLink(std::string_view path, char* buffer, size_t size) const;

    static bool isDirectory(std::string_view path);
    DIR* openDir();
    /** @return false when @p dir is not one of openDir(). */
    bool readDir(DIR* dir, dirent** entry);
    bool closeDir(DIR* dir);

private:
    struct Directory {
        std::vector<dirent> entries;
        size_t next = 0;
    };
    std::vector<std::unique_ptr<Directory>>::iterator findDirectory(DIR* dir)
        CORVANE_REQUIRES(mMutex);
    void share(DeviceCore& device, const std::string& owner, size_t entity) const
        CORVANE_REQUIRES(mMutex);
    std::string freeName(std::string_view prefix) const CORVANE_REQUIRES(mMutex);
    bool isFree(const std::pair<unsigned, unsigned>& number) const CORVANE_REQUIRES(mMutex);
    unsigned freeMinor() const CORVANE_REQUIRES(mMutex);
    bool areFree(const DeviceDesc& description) const CORVANE_REQUIRES(mMutex);
    const DevNode* find(std::string_view path) const CORVANE_REQUIRES(mMutex);

    mutable Mutex mMutex;
    DirectoryOrder mOrder CORVANE_GUARDED_BY(mMutex) = DirectoryOrder::NEWEST_FIRST;
    std::vector<DevNode> mNodes CORVANE_GUARDED_BY(mMutex);  ///< oldest first
    std::vector<std::unique_ptr<Directory>> mDirectories CORVANE_GUARDED_BY(mMutex);
    unsigned mMediaMinor CORVANE_GUARDED_BY(mMutex) = 0;
};

}  // namespace NSVista::NSCorvane::sim
