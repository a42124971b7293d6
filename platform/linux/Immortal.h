// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What is there until the very end of the process.
 */
#pragma once

#include <new>
#include <utility>

namespace NSVista::NSCorvane {

/**
 * An object that is never destroyed, as threads and destructors of other libraries use it to the
 * very end, and whose making takes no memory, as it may first be needed when there is none.
 */
template <class T>
class Immortal {
public:
    template <class... Args>
    explicit Immortal(Args&&... args) : mObject(new (mStorage) T(std::forward<Args>(args)...)) {}
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T& operator*() { return *mObject; }

private:
    alignas(T) unsigned char mStorage[sizeof(T)];
    T* const mObject;
};

}  // namespace NSVista::NSCorvane
