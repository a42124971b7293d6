// SPDX-License-Identifier: Apache-2.0
#include "Holdings.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <cerrno>
#include <cstring>

#include <algorithm>
#include <iterator>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::sim {

namespace {

bool open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

/** Records are packed: their arrays may only be copied. */
std::vector<int32_t> copyArray(const void* source, size_t count) {
    std::vector<int32_t> copy(count);
    if (count > 0)
        memcpy(copy.data(), source, count * sizeof(int32_t));
    return copy;
}

int identify(int fd, BufferId& id) {
    return open(fd) ? identifyBuffer(fd, id) : -EBADF;
}

/** Adds every buffer to @p table, or none. */
template <typename Table>
int mapAll(Table& table, const std::vector<int32_t>& fds, uint8_t coherence, uint64_t user,
           size_t limit) {
    if (table.size() + fds.size() > limit)
        return -ENOSPC;
    Table added;
    for (int fd : fds) {
        BufferId id;
        if (int result = identify(fd, id); result < 0)
            return result;
        UniqueFd reference(fcntl(fd, F_DUPFD_CLOEXEC, 0));
        if (!reference)
            return -errno;
        added.push_back({id, coherence, user, std::move(reference)});
    }
    std::move(added.begin(), added.end(), std::back_inserter(table));
    return 0;
}

/** Takes one mapping of every buffer out of @p table, or none. */
template <typename Table>
int unmapAll(Table& table, const std::vector<int32_t>& fds, uint8_t coherence) {
    std::vector<size_t> found;
    for (int fd : fds) {
        BufferId id;
        if (int result = identify(fd, id); result < 0)
            return result;
        size_t at = 0;
        while (at < table.size() && (table[at].id != id || table[at].coherence != coherence ||
                                     std::find(found.begin(), found.end(), at) != found.end()))
            ++at;
        if (at == table.size())
            return -ENOENT;
        found.push_back(at);
    }
    std::sort(found.rbegin(), found.rend());
    for (size_t at : found)
        table.erase(table.begin() + static_cast<ptrdiff_t>(at));
    return 0;
}

int checkKva(const kvxdip_kva& list) {
    return list.count == 0 || list.count > KVXDIP_KVA_MAX ? -EINVAL : 0;
}

int checkIova(const kvxdip_iova& request) {
    return request.count != 1 || request.coherence > 1 ? -EINVAL : 0;
}

}  // namespace

int Holdings::addKva(const kvxdip_kva& list) {
    int result = checkKva(list);
    return result < 0 ? result
                      : mapAll(mKva, copyArray(&list.fd, list.count), 0, mUser, VENGINE_MAX_KVA);
}

int Holdings::deleteKva(const kvxdip_kva& list) {
    int result = checkKva(list);
    return result < 0 ? result : unmapAll(mKva, copyArray(&list.fd, list.count), 0);
}

int Holdings::acquireIova(const kvxdip_iova& request) {
    int result = checkIova(request);
    return result < 0 ? result
                      : mapAll(mIova, {request.fd}, request.coherence, mUser, VENGINE_MAX_IOVA);
}

int Holdings::releaseIova(const kvxdip_iova& request) {
    int result = checkIova(request);
    return result < 0 ? result : unmapAll(mIova, {request.fd}, request.coherence);
}

int Holdings::addFences(const kvxdip_fence& list) {
    if (mFences.size() + list.count > VENGINE_MAX_FENCES)
        return -ENOSPC;
    void* user = reinterpret_cast<void*>(static_cast<uintptr_t>(list.fds));
    if (list.count > 0 && user == nullptr)
        return -EFAULT;
    std::vector<UniqueFd> handedOut;
    std::vector<Fence> added;
    for (unsigned i = 0; i < list.count; ++i) {
        UniqueFd fence(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        UniqueFd own(fence ? fcntl(fence.get(), F_DUPFD_CLOEXEC, 0) : -1);
        if (!own)
            return -errno;
        added.push_back({fence.get(), mUser, std::move(own), false});
        handedOut.push_back(std::move(fence));
    }
    for (unsigned i = 0; i < list.count; ++i) {
        int32_t fd = handedOut[i].release();
        memcpy(static_cast<char*>(user) + i * sizeof(fd), &fd, sizeof(fd));
        mFences.push_back(std::move(added[i]));
    }
    return 0;
}

int Holdings::deleteFences(const kvxdip_fence& list) {
    const void* user = reinterpret_cast<const void*>(static_cast<uintptr_t>(list.fds));
    if (list.count > 0 && user == nullptr)
        return -EFAULT;
    std::vector<ptrdiff_t> found;
    for (int32_t fd : copyArray(user, list.count)) {
        if (!open(fd))
            return -EINVAL;
        // A number can stand for two fences only when the older one's descriptor was closed.
        auto at = std::find_if(mFences.rbegin(), mFences.rend(),
                               [&](const Fence& fence) { return fence.handedOut == fd; });
        ptrdiff_t index = at.base() - mFences.begin() - 1;
        if (index < 0 || std::find(found.begin(), found.end(), index) != found.end())
            return -EINVAL;
        found.push_back(index);
    }
    std::sort(found.rbegin(), found.rend());
    for (ptrdiff_t index : found) {
        mFences[static_cast<size_t>(index)].signal();
        mFences.erase(mFences.begin() + index);
    }
    return 0;
}

int Holdings::allocateMemory(const kvxdip_memory& request) {
    if (mMemory.size() == VENGINE_MAX_MEMORY)
        return -ENOMEM;
    mMemory.push_back({{request.is_smvr, request.is_capture}, mUser});
    return 0;
}

int Holdings::freeMemory(const kvxdip_memory& request) {
    std::pair<uint8_t, uint8_t> mode(request.is_smvr, request.is_capture);
    auto at = std::find_if(mMemory.begin(), mMemory.end(),
                           [&](const Memory& memory) { return memory.mode == mode; });
    if (at == mMemory.end())
        return -ENOENT;
    mMemory.erase(at);
    return 0;
}

void Holdings::clear(uint64_t user) {
    auto belongs = [user](const auto& held) { return held.user == user; };
    for (Fence& fence : mFences)
        if (belongs(fence))
            fence.signal();
    std::erase_if(mFences, belongs);
    std::erase_if(mKva, belongs);
    std::erase_if(mIova, belongs);
    std::erase_if(mMemory, belongs);
}

void Holdings::clear() {
    signalFences();
    mKva.clear();
    mIova.clear();
    mFences.clear();
    mMemory.clear();
}

void Holdings::signalFences() {
    for (Fence& fence : mFences)
        fence.signal();
}

void Holdings::Fence::signal() {
    if (!signalled)
        signalled = eventfd_write(own.get(), 1) == 0;
}

void Holdings::addTo(SubDeviceCounts& counts) const {
    counts.kva += mKva.size();
    counts.iova += mIova.size();
    counts.fences += mFences.size();
    counts.memory += mMemory.size();
}

}  // namespace NSVista::NSCorvane::sim
