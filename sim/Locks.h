// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the locks of a device and of its sub-device guard, as the thread-safety analysis reads it.
 *
 * Queues, requests and the pipeline of a device share its one mutex. The analysis cannot know that
 * the mutexes it sees from each of them are the same, so state is guarded by a role that who holds
 * the mutex plays. Roles do not tell two devices apart; no operation touches two.
 */
#pragma once

#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane::sim {

struct CORVANE_CAPABILITY("role") Role {};
/** Held with DeviceCore::mutex(). */
inline Role deviceState;
/** Held with the sub-device's mutex. */
inline Role subDeviceState;

/** Holds a device's mutex while it lives, but for the stretches between unlock() and lock(). */
class CORVANE_SCOPED_CAPABILITY DeviceLock {
public:
    explicit DeviceLock(Mutex& mutex) CORVANE_ACQUIRE(deviceState) : mLock(mutex) {}
    ~DeviceLock() CORVANE_RELEASE() = default;
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

    // Not analysed inside: what changes hands there is the mutex, which stands for the role.
    void unlock() CORVANE_RELEASE(deviceState) CORVANE_NO_THREAD_SAFETY_ANALYSIS {
        mLock.native().unlock();
    }
    void lock() CORVANE_ACQUIRE(deviceState) CORVANE_NO_THREAD_SAFETY_ANALYSIS {
        mLock.native().lock();
    }
    /** For std::condition_variable only. */
    std::unique_lock<std::mutex>& native() { return mLock.native(); }

private:
    MutexLock mLock;
};

/** Holds a sub-device's mutex while it lives. */
class CORVANE_SCOPED_CAPABILITY SubDeviceLock {
public:
    explicit SubDeviceLock(Mutex& mutex) CORVANE_ACQUIRE(subDeviceState) : mLock(mutex) {}
    ~SubDeviceLock() CORVANE_RELEASE() = default;
    SubDeviceLock(const SubDeviceLock&) = delete;
    SubDeviceLock& operator=(const SubDeviceLock&) = delete;

    /** For std::condition_variable only. */
    std::unique_lock<std::mutex>& native() { return mLock.native(); }

private:
    MutexLock mLock;
};

}  // namespace NSVista::NSCorvane::sim
