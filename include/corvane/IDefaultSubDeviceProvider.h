// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The process's shared driver sub-device.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

class IV4L2SubDevice;

/** Names one user of the sub-device: eight bytes, shorter codes padded with zeros. */
struct EIGHTCC {
    uint64_t value = 0;  ///< the eight bytes, in memory order

    constexpr EIGHTCC() = default;
    constexpr explicit EIGHTCC(uint64_t bytes) : value(bytes) {}
    /** @param code at most eight characters count. */
    EIGHTCC(std::string_view code) {  // NOLINT(google-explicit-constructor): a code is a text
        code.copy(reinterpret_cast<char*>(&value), sizeof(value));
    }
    /** @param code may be null: the empty code. Not read beyond eight characters or its zero. */
    EIGHTCC(const char* code)  // NOLINT
    : EIGHTCC(std::string_view(code, code != nullptr ? strnlen(code, sizeof(value)) : 0)) {}

    /** The characters up to the first zero. */
    std::string toString() const {
        char text[sizeof(value) + 1] = {};
        memcpy(text, &value, sizeof(value));
        return text;
    }
    friend constexpr bool operator==(EIGHTCC a, EIGHTCC b) { return a.value == b.value; }
};

/**
 * Owns the default sub-device: the first user opens it and subscribes it to frame-sync events, the
 * last one to leave unsubscribes and closes it.
 *
 * Any thread; the transitions exclude each other, ioctls included. A refused ioctl of a transition
 * is reported while they do: an exception or a terminate handler must not call the provider, not
 * even its dumpState(), which would wait for itself.
 */
class CORVANE_EXPORT IDefaultSubDeviceProvider {
public:
    /** The process's one; created on first use, destroyed at exit. */
    static IDefaultSubDeviceProvider* instance();

    virtual ~IDefaultSubDeviceProvider();
    /** Prints the users and, while there is one, the sub-device: one line each. */
    virtual void dumpState(IPrinter* printer) const = 0;
    /**
     * Joins the users.
     * @param user fatal when it is a user already.
     * @return the sub-device, or empty when the first user's open or subscription was refused: the
     *         driver is lost. The user counts as one all the same and must release; that release
     *         unsubscribes what may never have opened, which the driver refuses: it is reported
     *         and ends the service. Later users get the sub-device as it is, with no new attempt.
     */
    virtual std::shared_ptr<IV4L2SubDevice> acquire(const EIGHTCC& user) = 0;
    /**
     * Leaves the users; an unknown user is ignored.
     * @param[in,out] subDevice emptied. Other copies keep the object alive, but closed.
     */
    virtual void release(const EIGHTCC& user, std::shared_ptr<IV4L2SubDevice>& subDevice) = 0;
};

}  // namespace NSVista::NSCorvane

/** The code itself is the hash. */
template <>
struct std::hash<NSVista::NSCorvane::EIGHTCC> {
    size_t operator()(NSVista::NSCorvane::EIGHTCC code) const noexcept { return code.value; }
};
