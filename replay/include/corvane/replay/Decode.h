// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The arguments of calls by name and field.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>
#include <corvane/replay/RecordReader.h>

namespace NSVista::NSCorvane::replay {

/** A field of an argument, or the whole of it. */
struct CORVANE_EXPORT Value {
    enum class Kind {
        Number,
        Text,
        Group,   ///< a struct or an array: #parts
        Handle,  ///< a descriptor
        Place,   ///< an address or a time: of no meaning outside of its process
    };

    std::string name;  ///< empty for an array's items
    Kind kind = Kind::Number;
    std::string text;    ///< as people read it
    int64_t number = 0;  ///< of a number or a handle
    std::vector<Value> parts;

    /** @return null when absent. */
    const Value* find(std::string_view field) const;
    /** As strace writes it; what is zero is left out but for a struct's first field. */
    std::string toString() const;
    bool isZero() const;
};

/** An ioctl that is known by name. */
struct StructInfo;
struct CORVANE_EXPORT IoctlInfo {
    uint32_t code;  ///< this machine's
    const char* name;
    const StructInfo* argument;  ///< null: none, or one that is not known
};

/** @return null for an unknown one. @param code as the machine encodes it. */
CORVANE_EXPORT const IoctlInfo* findIoctl(uint32_t code, const Machine& machine);
/** All that are known. */
CORVANE_EXPORT std::span<const IoctlInfo> knownIoctls();
/** The size that a machine gives an argument. */
CORVANE_EXPORT size_t sizeOf(const StructInfo& argument, const Machine& machine, size_t timeSize);

/** The argument of an ioctl as far as it was recorded, with the arrays that it points to. */
CORVANE_EXPORT Value decodeArgument(uint32_t code, std::span<const Piece> pieces,
                                    const Machine& machine);

/** "VIDIOC_QBUF", "open"; "ioctl 0x40085612" for what is not known. */
CORVANE_EXPORT std::string callName(const Call& call, const Machine& machine);
/** "ENOENT" of a negated errno. */
CORVANE_EXPORT std::string errorName(int result);
/** @return what a call was asked alone. */
CORVANE_EXPORT std::string askText(const Call& call, const Machine& machine,
                                   const std::string& label = {});
/**
 * @return what a call was asked, and what it answered, as strace writes it.
 * @param label of what it is made on, shown behind its descriptor; may be empty.
 */
CORVANE_EXPORT std::string callText(const Call& call, const Machine& machine,
                                    const std::string& label = {});

/** @private A field whose bytes have a meaning in one process alone. */
struct FieldPlace {
    size_t offset, size;
    Value::Kind kind;
};
/** @private Those of an argument of this machine's, arrays not included. */
std::vector<FieldPlace> placesOf(uint32_t code, std::span<const uint8_t> argument);

}  // namespace NSVista::NSCorvane::replay
