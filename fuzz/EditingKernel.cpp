// SPDX-License-Identifier: Apache-2.0
#include "EditingKernel.h"

#include <corvane/V4L2.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>

namespace NSVista::NSCorvane::fuzz {

namespace {

constexpr size_t kMostLinks = 1024;
/** So many links may come up between a count and their enumeration. */
constexpr size_t kMoreLinks = 64;

/** The array that a record points to and the kernel writes. */
struct Array {
    uint8_t* data;
    size_t size;
};

Array arrayOf(unsigned long request, void* arg) {
    if (request == VIDIOC_DQBUF || request == VIDIOC_QBUF) {
        auto& buffer = *static_cast<v4l2_buffer*>(arg);
        if (v4l2::isMultiPlanar(buffer.type) && buffer.m.planes != nullptr)
            return {reinterpret_cast<uint8_t*>(buffer.m.planes),
                    std::min<size_t>(buffer.length, VIDEO_MAX_PLANES) * sizeof(v4l2_plane)};
    }
    return {};
}

/** Where a record holds a pointer; beyond its end where it holds none. */
size_t pointerIn(unsigned long request, const void* arg) {
    switch (request) {
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF:
            return v4l2::isMultiPlanar(static_cast<const v4l2_buffer*>(arg)->type)
                       ? offsetof(v4l2_buffer, m)
                       : SIZE_MAX;
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
            return offsetof(v4l2_ext_controls, controls);
        default:
            return SIZE_MAX;
    }
}

template <class T>
void put(uint8_t* data, size_t size, size_t offset, uint32_t value) {
    const T cut = static_cast<T>(value);
    if (size >= sizeof(T))
        memcpy(data + offset % (size - sizeof(T) + 1), &cut, sizeof(T));
}

}  // namespace

void EditingKernel::next() {
    if (mBytes.isEmpty()) {
        mEdit.skip = ~0U;
        return;
    }
    mEdit.skip = mBytes.take<uint16_t>() % 512;
    mEdit.action = static_cast<Action>(mBytes.take() % 8);
    mEdit.offset = mBytes.take<uint16_t>();
    constexpr uint32_t kTelling[] = {0, 1, 8, 64, 255, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const auto value = mBytes.take<uint16_t>();
    mEdit.value = value < 0x8000 ? value : kTelling[value % std::size(kTelling)];
}

bool EditingKernel::isDue(Edit& edit) {
    if (mEdit.skip != 0) {
        mEdit.skip -= mEdit.skip != ~0U ? 1 : 0;
        return false;
    }
    edit = mEdit;
    next();
    return true;
}

int EditingKernel::open(const char* path, int flags) {
    if (Edit edit{}; isDue(edit) && edit.action == Action::Fail)
        return -static_cast<int>(1 + edit.value % 133);
    const int fd = mKernel.open(path, flags);
    if (fd >= 0)
        mFds.insert(fd);
    return fd;
}

int EditingKernel::close(int fd) {
    if (mFds.erase(fd) == 0)
        return -EBADF;
    const int result = mKernel.close(fd);
    Edit edit{};
    return isDue(edit) && edit.action == Action::Fail ? -EIO : result;
}

int EditingKernel::enumLinks(int fd, media_links_enum& asked) {
    std::vector<media_pad_desc> pads(kMostLinks);
    std::vector<media_link_desc> links(kMostLinks);
    media_links_enum own = asked;
    own.pads = pads.data();
    own.links = links.data();
    const int result = mKernel.ioctl(fd, MEDIA_IOC_ENUM_LINKS, &own);
    size_t count = std::min(mLinks[asked.entity], kMostLinks - kMoreLinks);
    Edit edit{};
    if (isDue(edit)) {
        if (edit.action == Action::Fail)
            return -static_cast<int>(1 + edit.value % 133);
        auto* const data = reinterpret_cast<uint8_t*>(links.data());
        const size_t size = std::max<size_t>(count, 1) * sizeof(media_link_desc);
        if (edit.action == Action::More) {
            const size_t more = edit.value % (kMoreLinks + 1);
            std::fill_n(links.begin() + static_cast<ptrdiff_t>(count), more,
                        media_link_desc{{asked.entity, 0, 0, {}}, {1, edit.offset, 0, {}}, 0, {}});
            count += more;
        } else if (edit.action == Action::Array) {
            put<uint16_t>(reinterpret_cast<uint8_t*>(pads.data()),
                          std::max<size_t>(mPads[asked.entity], 1) % kMostLinks, edit.offset,
                          edit.value);
        } else {
            put<uint32_t>(data, size, edit.offset, edit.value);
        }
    }
    if (result >= 0 && asked.links != nullptr)
        std::copy_n(links.begin(), count, asked.links);
    if (result >= 0 && asked.pads != nullptr)
        std::copy_n(pads.begin(), std::min(mPads[asked.entity], kMostLinks), asked.pads);
    return result;
}

int EditingKernel::ioctl(int fd, unsigned long request, void* arg) {
    if (mFds.count(fd) == 0)
        return -EBADF;
    if (request == MEDIA_IOC_ENUM_LINKS)
        return enumLinks(fd, *static_cast<media_links_enum*>(arg));
    int result = mKernel.ioctl(fd, request, arg);
    if (request == MEDIA_IOC_REQUEST_ALLOC && result >= 0)
        mFds.insert(*static_cast<int*>(arg));
    Edit edit{};
    if (isDue(edit)) {
        if (edit.action == Action::Fail)
            return -static_cast<int>(1 + edit.value % 133);
        if (edit.action == Action::Text)
            result = static_cast<int>(edit.value & 0x7FFFFFFF);
        if (arg != nullptr && _IOC_SIZE(request) != 0) {
            auto* data = static_cast<uint8_t*>(arg);
            size_t size = _IOC_SIZE(request);
            void* pointer = nullptr;
            const size_t at = pointerIn(request, arg);
            if (at < size)
                memcpy(&pointer, data + at, sizeof(pointer));
            if (const Array array = arrayOf(request, arg);
                edit.action == Action::Array && array.data != nullptr)
                put<uint32_t>(array.data, array.size, edit.offset, edit.value);
            else if (edit.action == Action::Byte)
                put<uint8_t>(data, size, edit.offset, edit.value);
            else if (edit.action == Action::Word)
                put<uint16_t>(data, size, edit.offset, edit.value);
            else if (edit.action == Action::Fill && at >= size)
                memset(data + edit.offset % size, static_cast<int>(edit.value),
                       size - edit.offset % size);
            else
                put<uint32_t>(data, size, edit.offset, edit.value);
            if (at < size)
                memcpy(data + at, &pointer, sizeof(pointer));
        }
    }
    if (request == MEDIA_IOC_ENUM_ENTITIES && result >= 0) {
        // A walk has to come to an end.
        auto& entity = *static_cast<media_entity_desc*>(arg);
        const auto tell = [&entity](auto& counts, size_t count) {
            const auto [told, isNew] = counts.emplace(entity.id, count);
            told->second = std::min(told->second, count);
        };
        tell(mPads, entity.pads);
        tell(mLinks, entity.links);
    }
    return result;
}

int EditingKernel::openDir(const char* path, DIR** dir) {
    Edit edit{};
    return isDue(edit) && edit.action == Action::Fail ? -EMFILE : mKernel.openDir(path, dir);
}

int EditingKernel::readDir(DIR* dir, struct dirent** entry) {
    const int result = mKernel.readDir(dir, entry);
    Edit edit{};
    if (!isDue(edit) || result < 0 || *entry == nullptr)
        return result;
    if (edit.action == Action::Fail)
        return -EIO;
    (*entry)->d_name[edit.offset % 16] = static_cast<char>(edit.value);
    return result;
}

int EditingKernel::stat(const char* path, struct stat* info) {
    Edit edit{};
    return isDue(edit) && edit.action == Action::Fail ? -EACCES : mKernel.stat(path, info);
}

int EditingKernel::editText(int result, char* buffer, size_t size) {
    Edit edit{};
    if (!isDue(edit))
        return result;
    switch (edit.action) {
        case Action::Fail:
            return -ENOENT;
        case Action::Fill:
            memset(buffer, static_cast<int>(edit.value), size);
            return static_cast<int>(size);
        case Action::Byte:
            buffer[edit.offset % size] = static_cast<char>(edit.value);
            return result;
        default:
            return static_cast<int>(edit.value % (size + 1));
    }
}

int EditingKernel::readLink(const char* path, char* buffer, size_t size) {
    memset(buffer, 'x', size);
    return editText(mKernel.readLink(path, buffer, size), buffer, size);
}

}  // namespace NSVista::NSCorvane::fuzz
