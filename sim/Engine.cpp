// SPDX-License-Identifier: Apache-2.0
#include <corvane/sim/Engine.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <cerrno>

#include <algorithm>
#include <utility>

#include "DevNodes.h"
#include "DeviceCore.h"
#include "NodeFiles.h"

namespace NSVista::NSCorvane::sim {

namespace {

/** Leaves errno as every kernel does. */
int answer(int result) {
    if (result < 0)
        errno = -result;
    return result;
}

/** Opens a media device or a video node, neither of which is polled. */
int openNode(const DevNode& node, int flags, FileTable& files) {
    bool nonBlocking = flags & O_NONBLOCK;
    int fd = eventfd(0, EFD_CLOEXEC | (nonBlocking ? EFD_NONBLOCK : 0));
    if (fd < 0)
        return -errno;
    ++node.device->filesOpen;
    if (node.queue)
        files.insert(
            fd, std::make_shared<VideoFile>(*node.device, *node.queue, node.path(), nonBlocking));
    else
        files.insert(fd, std::make_shared<MediaFile>(*node.device));
    return fd;
}

}  // namespace

struct Engine::State {
    Faults faults;
    FileTable files;
    DevNodes nodes;
    Mutex mutex;
    std::vector<std::unique_ptr<Device>> devices CORVANE_GUARDED_BY(mutex);

    int perform(File& file, uint32_t code, void* arg) {
        int fault = faults.pass(Operation::IOCTL, code, file.name(), file.path());
        if (fault < 0)
            return fault;
        if (fault > 0 && code == VIDIOC_REQBUFS && arg != nullptr) {
            uint32_t& count = static_cast<v4l2_requestbuffers*>(arg)->count;
            count = std::min(count, static_cast<uint32_t>(fault));
        }
        return file.ioctl(code, arg);
    }
    void release(int fd, File& file) {
        // The number is free before the driver is done with the file, as everywhere on Linux.
        ::close(fd);
        file.released();
    }
};

Engine::Engine() : mState(std::make_unique<State>()) {
}

Engine::~Engine() {
    mState->faults.clear();
    for (int fd : mState->files.descriptors()) {
        if (auto file = mState->files.take(fd))
            mState->release(fd, *file);
    }
}

Device* Engine::addDevice(const DeviceDesc& description) {
    std::optional<Graph> graph = Graph::make(description);
    if (!graph)
        return nullptr;
    auto core =
        std::make_unique<DeviceCore>(description, std::move(*graph), mState->files, mState->faults);
    if (!mState->nodes.add(description, *core))
        return nullptr;
    const MutexLock lock(mState->mutex);
    mState->devices.push_back(std::make_unique<Device>(std::move(core)));
    return mState->devices.back().get();
}

void Engine::setDirectoryOrder(DirectoryOrder order) {
    mState->nodes.setOrder(order);
}

Faults& Engine::faults() {
    return mState->faults;
}

size_t Engine::openFiles() const {
    return mState->files.descriptors().size();
}

int Engine::open(const char* path, int flags) {
    std::optional<DevNode> node = mState->nodes.findPath(path);
    int fault = mState->faults.pass(Operation::OPEN, 0, node ? node->subject() : "", path);
    if (fault < 0)
        return answer(fault);
    if (!node)
        return DevNodes::reserved(path) ? answer(-ENOENT) : System::linuxKernel().open(path, flags);
    if (node->subDevice)
        return answer(node->subDevice->open(flags, node->path(), mState->files));
    return answer(openNode(*node, flags, mState->files));
}

int Engine::close(int fd) {
    std::shared_ptr<File> file = mState->files.find(fd);
    int fault = mState->faults.pass(Operation::CLOSE, 0, file ? file->name() : "",
                                    file ? file->path() : "");
    int result = 0;
    if (std::shared_ptr<File> taken = mState->files.take(fd))
        mState->release(fd, *taken);
    else
        result = System::linuxKernel().close(fd);
    return answer(fault < 0 ? fault : result);
}

int Engine::ioctl(int fd, unsigned long request, void* arg) {
    uint32_t code = static_cast<uint32_t>(request);
    std::shared_ptr<File> file = mState->files.find(fd);
    if (file == nullptr) {
        int fault = mState->faults.pass(Operation::IOCTL, code, "", "");
        return fault < 0 ? answer(fault) : System::linuxKernel().ioctl(fd, request, arg);
    }
    file->record(code, arg);
    Mutex* serialiser = file->serialiser(code);
    if (serialiser == nullptr)
        return answer(mState->perform(*file, code, arg));
    const MutexLock lock(*serialiser);
    return answer(mState->perform(*file, code, arg));
}

int Engine::openDir(const char* path, DIR** dir) {
    int fault = mState->faults.pass(Operation::OPEN_DIR, 0, "", path);
    if (fault < 0)
        return answer(fault);
    if (!DevNodes::isDirectory(path))
        return System::linuxKernel().openDir(path, dir);
    *dir = mState->nodes.openDir();
    return 0;
}

int Engine::readDir(DIR* dir, struct dirent** entry) {
    int fault = mState->faults.pass(Operation::READ_DIR, 0, "", "");
    if (fault < 0)
        return answer(fault);
    return mState->nodes.readDir(dir, entry) ? 0 : System::linuxKernel().readDir(dir, entry);
}

int Engine::closeDir(DIR* dir) {
    int fault = mState->faults.pass(Operation::CLOSE_DIR, 0, "", "");
    int result = mState->nodes.closeDir(dir) ? 0 : System::linuxKernel().closeDir(dir);
    return answer(fault < 0 ? fault : result);
}

int Engine::stat(const char* path, struct stat* info) {
    std::optional<DevNode> node = mState->nodes.findPath(path);
    int fault = mState->faults.pass(Operation::STAT, 0, node ? node->subject() : "", path);
    if (fault < 0)
        return answer(fault);
    if (node || DevNodes::reserved(path))
        return answer(mState->nodes.stat(path, info));
    return System::linuxKernel().stat(path, info);
}

int Engine::readLink(const char* path, char* buffer, size_t size) {
    int fault = mState->faults.pass(Operation::READ_LINK, 0, "", path);
    if (fault < 0)
        return answer(fault);
    if (DevNodes::reserved(path))
        return answer(mState->nodes.readLink(path, buffer, size));
    return System::linuxKernel().readLink(path, buffer, size);
}

VirtualEngine::VirtualEngine(const char* model) : VirtualEngine(describeVirtualEngine(model)) {
}

VirtualEngine::VirtualEngine(const DeviceDesc& description) : mDevice(addDevice(description)) {
}

}  // namespace NSVista::NSCorvane::sim
