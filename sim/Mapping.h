// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A dma-buf as a device holds it.
 */
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstddef>
#include <cstdint>

namespace NSVista::NSCorvane::sim {

/** Which buffer a descriptor stands for: the same for all its duplicates. */
struct BufferId {
    dev_t device = 0;
    ino_t inode = 0;
    size_t size = 0;

    auto operator<=>(const BufferId&) const = default;
};

/** @return 0, or -EINVAL when @p fd is closed or nothing that could be mapped. */
int identifyBuffer(int fd, BufferId& id);

/** One dma-buf mapped whole. It keeps the memory alive when all its descriptors are closed. */
class Mapping {
public:
    Mapping() = default;
    ~Mapping() { reset(); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    /** Maps the buffer @p id that @p fd stands for. @return 0 or the negated errno. */
    int map(int fd, const BufferId& id, bool writable);
    void reset();

    explicit operator bool() const { return mBase != nullptr; }
    const BufferId& id() const { return mId; }
    uint8_t* data() const { return mBase; }

private:
    BufferId mId;
    uint8_t* mBase = nullptr;
};

}  // namespace NSVista::NSCorvane::sim
