#include "File.h"

#include <utility>

namespace NSVista::NSCorvane::sim {

void FdTable::insert(int fd, std::shared_ptr<File> file) {
    std::lock_guard lock(mMutex);
    size_t slot = static_cast<size_t>(fd);
    if (mFiles.size() <= slot)
        mFiles.resize(slot + 1);
    mFiles[slot] = std::move(file);
}

std::shared_ptr<File> FdTable::find(int fd) const {
    std::shared_lock lock(mMutex);
    return static_cast<size_t>(fd) < mFiles.size() ? mFiles[static_cast<size_t>(fd)] : nullptr;
}

std::shared_ptr<File> FdTable::take(int fd) {
    std::lock_guard lock(mMutex);
    if (static_cast<size_t>(fd) >= mFiles.size())
        return nullptr;
    return std::exchange(mFiles[static_cast<size_t>(fd)], nullptr);
}

std::vector<int> FdTable::descriptors() const {
    std::shared_lock lock(mMutex);
    std::vector<int> open;
    for (size_t fd = 0; fd < mFiles.size(); ++fd) {
        if (mFiles[fd])
            open.push_back(static_cast<int>(fd));
    }
    return open;
}

}  // namespace NSVista::NSCorvane::sim
