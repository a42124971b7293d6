// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Structs of the kernel's interface, described so that any machine's can be read.
 */
#pragma once

#include <cstdint>
#include <span>

#include <corvane/replay/Decode.h>

namespace NSVista::NSCorvane::replay {

enum class Type : uint8_t {
    U8,
    U16,
    U32,
    S32,
    U64,
    S64,
    Hex,      ///< u32
    Fourcc,   ///< u32
    Names,    ///< u32 of a list of names
    Flags,    ///< u32 of a list of bits
    Long,     ///< as long as an address
    Pointer,  ///< to an array that is recorded behind, where Field::sub tells its items
    Handle,   ///< s32, a descriptor
    Time,     ///< seconds and their fractions
    Text,     ///< bytes up to a zero
    Group,    ///< Field::sub
    Choice,   ///< Field::alternatives, by an earlier number
};

struct Name {
    uint32_t value;
    const char* name;
};

struct Field;

struct StructInfo {
    std::span<const Field> fields;
    bool packed = false;
};

/** What a union holds while its selector has a value. */
struct Alternative {
    uint64_t
        values;  ///< bit n: while the selector is n; all bits: always; none: for its size alone
    const Field* field;
    const char* selector = nullptr;  ///< null: the union's
};

struct Field {
    const char* name;
    Type type;
    size_t count = 1;  ///< of items; of bytes for Text
    std::span<const Name> names = {};
    const StructInfo* sub = nullptr;
    std::span<const Alternative> alternatives = {};
    const char* other = nullptr;  ///< the selector of a Choice; what counts a Pointer's items
    uint32_t array = 0;           ///< which recorded array a Pointer points to
    size_t least = 0;  ///< size that a Choice has at least; of a Pointer that has its own
};

/** All known ioctls. */
std::span<const IoctlInfo> ioctlTable();

}  // namespace NSVista::NSCorvane::replay
