// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Open files of the engine and the table of their descriptors.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane::sim {

/** An open file: what a descriptor of the engine stands for. */
class File {
public:
    virtual ~File() = default;

    /** Carries an ioctl out. @return >= 0 or the negated errno. */
    virtual int ioctl(uint32_t code, void* arg) = 0;
    /**
     * The lock that the kernel holds through the whole of such a call, null for none: the one which
     * starts, stops and reconfigures queues and queues requests, one at a time for a device.
     */
    virtual Mutex* serialiser(uint32_t code) const = 0;
    /** Whom faults and counts know the file by: entity or "request", and path of the node. */
    virtual std::string_view name() const = 0;
    virtual std::string_view path() const = 0;
    /** Called before anything else is done for an ioctl, for the record. */
    virtual void record(uint32_t, const void*) {}
    /** Called once, when the descriptor is closed; other threads may still be inside ioctl(). */
    virtual void released() = 0;
};

/** Descriptors and their files. Any thread; a file found stays alive while it is held. */
class FileTable {
public:
    void insert(int fd, std::shared_ptr<File> file);
    std::shared_ptr<File> find(int fd) const;
    /** Removes and returns an entry; null when @p fd is none of the engine's. */
    std::shared_ptr<File> take(int fd);
    std::vector<int> descriptors() const;

private:
    mutable Mutex mMutex;
    std::vector<std::shared_ptr<File>> mFiles CORVANE_GUARDED_BY(mMutex);  ///< by descriptor
};

}  // namespace NSVista::NSCorvane::sim
