// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Time guards around calls that can hang.
 */
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::timeguard {

/**
 * A guard that is armed while it lives. When it outlives its limit, its message is logged at error
 * level with its age, again at every period after the limit until it is released, and the expiry
 * handler is called. Reports that the guard thread was too late for are left out.
 *
 * One thread of the platform, started with the first guard, watches all of them.
 */
class CORVANE_EXPORT TimeBomb {
public:
    /** Called on the guard thread at every expiry. @param age since the guard was armed. */
    using ExpiryHandler = std::function<void(const TimeBomb& bomb, std::chrono::nanoseconds age)>;

    /** @param limit, period in nanoseconds; a period of 0 reports once. */
    TimeBomb(const char* name, unsigned long limit, unsigned long period);

    /**
     * Arms a guard.
     * @param name who is guarded; copied.
     * @param limit, period in nanoseconds.
     * @param format, args the message, at most 255 characters; empty when formatting fails.
     * @return the guard; releasing it disarms it: no report begins after that. One that is under
     * way then runs to its end, and the guard thread deletes the guard.
     */
    template <class... Args>
    static std::shared_ptr<TimeBomb> make(const char* name, unsigned long limit,
                                          unsigned long period, const char* format, Args... args) {
        auto shared = makeUnarmed(name, limit, period);
        shared->setMessage(format, args...);
        registerTimeBomb(shared);
        return shared;
    }

    /** Tells of something that is overdue by then. @param age since it began. */
    using Tell = std::function<void(std::chrono::nanoseconds age, const char* message)>;
    /** Looks for what is overdue, and tells. @return the time until the next look. */
    using Look = std::function<std::chrono::nanoseconds(const Tell& tell)>;

    /**
     * A guard of work that comes and goes too often for a guard each time: the worker leaves a
     * mark, and the guard looks for marks that stay. Each tell is reported as an expired guard is,
     * with the guard's name.
     * @param first nanoseconds until the first look.
     * @param look called on the guard thread, which waits for it: it must not block or throw. It is
     *        not called once the guard is released, but a call under way then goes on: what it uses
     *        must be its own.
     */
    static std::shared_ptr<TimeBomb> watch(const char* name, unsigned long first, Look look);

    /** The deleter of a shared guard: disarms, then deletes. */
    static void deleteThis(TimeBomb* bomb);
    /** Hands a guard to the guard thread, which holds it weakly. */
    static void registerTimeBomb(const std::shared_ptr<TimeBomb>& bomb);
    /**
     * Replaces the expiry handler; an empty function takes it away. Any thread. A call under way
     * finishes with the handler it began with. A handler must not throw, and is taken away before
     * what it uses is gone: guards expire until the process ends.
     *
     * The guarded call is still under way, under the locks that its caller holds: a handler must
     * not call back into the object that is guarded (a scene that starts or stops, the sub-device
     * provider) and must not wait for a thread that does. It may log, read properties, dump what is
     * documented as safe beside anything, and end the process.
     */
    static void setExpiryHandler(ExpiryHandler handler);

    const char* name() const { return mName.c_str(); }
    const char* message() const { return mMessage; }
    unsigned long limit() const { return mLimit; }
    unsigned long period() const { return mPeriod; }

    /** @private The guard thread's: makes a watching guard look. @return see Look. */
    std::chrono::nanoseconds look(const Tell& tell) { return mLook(tell); }
    /** @private */
    bool looks() const { return static_cast<bool>(mLook); }
    /** @private */
    void setText(const char* text) { setMessage("%s", text); }

private:
    static std::shared_ptr<TimeBomb> makeUnarmed(const char* name, unsigned long limit,
                                                 unsigned long period);
    /** Not marked as printf's: make() hands on formats that the compiler does not see. */
    void setMessage(const char* format, ...);

    std::string mName;
    unsigned long mLimit;
    unsigned long mPeriod;
    Look mLook;  ///< empty: what is guarded is overdue as soon as the limit is over
    char mMessage[256] = {};
};

}  // namespace NSVista::NSCorvane::timeguard
