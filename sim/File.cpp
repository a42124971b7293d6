// SPDX-License-Identifier: Apache-2.0
#include "File.h"

#include <utility>

namespace NSVista::NSCorvane::sim {

void FileTable::insert(int fd, std::shared_ptr<File> file) {
    const MutexLock lock(mMutex);
    size_t slot = static_cast<size_t>(fd);
    if (mFiles.size() <= slot)
        mFiles.resize(slot + 1);
    mFiles[slot] = std::move(file);
}

std::shared_ptr<File> FileTable::find(int fd) const {
    const MutexLock lock(mMutex);
    return static_cast<size_t>(fd) < mFiles.size() ? mFiles[static_cast<size_t>(fd)] : nullptr;
}

std::shared_ptr<File> FileTable::take(int fd) {
    const MutexLock lock(mMutex);
    if (static_cast<size_t>(fd) >= mFiles.size())
        return nullptr;
    return std::exchange(mFiles[static_cast<size_t>(fd)], nullptr);
}

std::vector<int> FileTable::descriptors() const {
    const MutexLock lock(mMutex);
    std::vector<int> open;
    for (size_t fd = 0; fd < mFiles.size(); ++fd) {
        if (mFiles[fd] != nullptr)
            open.push_back(static_cast<int>(fd));
    }
    return open;
}

}  // namespace NSVista::NSCorvane::sim
