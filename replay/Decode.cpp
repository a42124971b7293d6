// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/Decode.h>

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "Layout.h"

namespace NSVista::NSCorvane::replay {

namespace {

using Bytes = std::span<const uint8_t>;

/** A machine's sizes, and the time's, which a machine of 32 bits can have in two. */
struct Layout {
    const Machine& machine;
    size_t timeSize;

    struct Extent {
        size_t size, align;
    };

    Extent extentOf(const StructInfo& info) const {
        Extent whole{0, 1};
        for (const Field& field : info.fields) {
            const Extent part = extentOf(field);
            const size_t align = info.packed ? 1 : part.align;
            whole.size = (whole.size + align - 1) / align * align + part.size;
            whole.align = std::max(whole.align, align);
        }
        whole.size = (whole.size + whole.align - 1) / whole.align * whole.align;
        return whole;
    }

    /** Of all its items. */
    Extent extentOf(const Field& field) const {
        const Extent item = itemOf(field);
        return {item.size * (field.type == Type::Text ? 1 : field.count), item.align};
    }

    Extent itemOf(const Field& field) const {
        const size_t longSize = machine.longSize;
        const size_t wideAlign = machine.alignOf64;
        switch (field.type) {
            case Type::U8:
                return {1, 1};
            case Type::U16:
                return {2, 2};
            case Type::U64:
            case Type::S64:
                return {8, wideAlign};
            case Type::Long:
                return {longSize, longSize};
            case Type::Pointer:
                return field.least != 0 ? Extent{8, wideAlign} : Extent{longSize, longSize};
            case Type::Time:
                return {2 * timeSize, timeSize == 8 ? wideAlign : 4};
            case Type::Text:
                return {field.count, 1};
            case Type::Group:
                return extentOf(*field.sub);
            case Type::Choice: {
                Extent widest{field.least, 1};
                for (const Alternative& alternative : field.alternatives) {
                    const Extent extent = extentOf(*alternative.field);
                    widest.size = std::max(widest.size, extent.size);
                    widest.align = std::max(widest.align, extent.align);
                }
                widest.size = (widest.size + widest.align - 1) / widest.align * widest.align;
                return widest;
            }
            default:
                return {4, 4};
        }
    }
};

size_t codeSize(uint32_t code) {
    // Thirteen bits on some machines; no argument needs the fourteenth of the others.
    return code >> 16 & 0x1fff;
}

size_t timeSizeOf(const StructInfo& info, size_t size, const Machine& machine) {
    const size_t own = machine.longSize;
    return own == 4 && sizeOf(info, machine, 4) != size && sizeOf(info, machine, 8) == size ? 8
                                                                                            : own;
}

bool isPrintable(char c) {
    return c >= ' ' && c < 0x7f;
}

std::string hexText(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "%#llx", static_cast<unsigned long long>(value));
    return text;
}

std::string fourccText(uint32_t value) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const char c = static_cast<char>(value >> shift & 0xff);
        if (!isPrintable(c) || c == '\'')
            return hexText(value);
        text += c;
    }
    return "'" + text + "'";
}

std::string namesText(uint32_t value, std::span<const Name> names) {
    for (const Name& name : names)
        if (name.value == value)
            return name.name;
    return std::to_string(value);
}

std::string flagsText(uint32_t value, std::span<const Name> names) {
    std::string text;
    for (const Name& name : names)
        if ((value & name.value) == name.value) {
            text += (text.empty() ? "" : "|") + std::string(name.name);
            value &= ~name.value;
        }
    if (value != 0 || text.empty())
        text += (text.empty() ? "" : "|") + (value != 0 ? hexText(value) : "0");
    return text;
}

std::string quoted(Bytes bytes) {
    std::string text = "\"";
    for (const uint8_t byte : bytes) {
        if (byte == 0)
            break;
        const char c = static_cast<char>(byte);
        if (c == '"' || c == '\\')
            text += '\\';
        text += isPrintable(c) ? c : '?';
    }
    return text + '"';
}

/** Turns bytes into values; numbers that were read select what comes behind them. */
class Decoder {
public:
    Decoder(const Layout& layout, std::span<const Piece> pieces)
        : mLayout(layout), mPieces(pieces) {}

    Value group(const StructInfo& info, Bytes bytes, std::string name = {}) {
        Value value{std::move(name), Value::Kind::Group, {}, 0, {}};
        size_t at = 0;
        for (const Field& field : info.fields) {
            const Layout::Extent extent = mLayout.extentOf(field);
            const size_t align = info.packed ? 1 : extent.align;
            at = (at + align - 1) / align * align;
            if (at >= bytes.size())
                break;
            add(value, field, bytes.subspan(at, std::min(extent.size, bytes.size() - at)),
                mBase + at);
            at += extent.size;
        }
        return value;
    }

    /** Collects the places of handles, addresses and times as well. */
    void collect(std::vector<FieldPlace>* places) { mPlaces = places; }

private:
    struct Known {
        const char* name;
        int64_t value;
    };

    std::optional<int64_t> known(const char* name) const {
        for (size_t i = mKnown.size(); name != nullptr && i-- > 0;)
            if (strcmp(mKnown[i].name, name) == 0)
                return mKnown[i].value;
        return std::nullopt;
    }

    void add(Value& parent, const Field& field, Bytes bytes, size_t place) {
        if (field.type == Type::Choice) {
            if (const Field* const chosen = choose(field)) {
                const size_t size = mLayout.extentOf(*chosen).size;
                add(parent, *chosen, bytes.first(std::min(size, bytes.size())), place);
            }
            return;
        }
        if (field.count == 1 || field.type == Type::Text) {
            parent.parts.push_back(item(field, bytes, field.name, place));
            return;
        }
        Value list{field.name, Value::Kind::Group, {}, 0, {}};
        const size_t size = mLayout.itemOf(field).size;
        for (size_t at = 0; at + size <= bytes.size(); at += size)
            list.parts.push_back(item(field, bytes.subspan(at, size), {}, place + at));
        parent.parts.push_back(std::move(list));
    }

    const Field* choose(const Field& field) const {
        for (const Alternative& alternative : field.alternatives) {
            const auto selector =
                known(alternative.selector != nullptr ? alternative.selector : field.other);
            const bool isAlways = alternative.values == ~uint64_t{0};
            if (isAlways || (selector && *selector >= 0 && *selector < 64 &&
                             (alternative.values >> *selector & 1) != 0))
                return alternative.field;
        }
        return nullptr;
    }

    Value item(const Field& field, Bytes bytes, std::string name, size_t place) {
        if (field.type == Type::Group) {
            const size_t base = std::exchange(mBase, place);
            const size_t known = mKnown.size();
            Value value = group(*field.sub, bytes, std::move(name));
            mKnown.resize(known);
            mBase = base;
            return value;
        }
        if (field.type == Type::Pointer)
            return array(field, bytes, std::move(name), place);
        Value value{std::move(name), Value::Kind::Number, {}, 0, {}};
        const uint64_t raw = mLayout.machine.read(bytes, 0, std::min<size_t>(bytes.size(), 8));
        const auto word = static_cast<uint32_t>(raw);
        value.number = static_cast<int64_t>(raw);
        switch (field.type) {
            case Type::S32:
                value.number = static_cast<int32_t>(word);
                value.text = std::to_string(value.number);
                break;
            case Type::S64:
                value.text = std::to_string(value.number);
                break;
            case Type::Handle:
                value.number = static_cast<int32_t>(word);
                value.text = std::to_string(value.number);
                value.kind = Value::Kind::Handle;
                notePlace(place, bytes.size(), value.kind);
                break;
            case Type::Hex:
                value.text = hexText(raw);
                break;
            case Type::Fourcc:
                value.text = fourccText(word);
                break;
            case Type::Names:
                value.text = namesText(word, field.names);
                break;
            case Type::Flags:
                value.text = flagsText(word, field.names);
                break;
            case Type::Long:
                value.kind = Value::Kind::Place;
                value.text = hexText(raw);
                notePlace(place, bytes.size(), value.kind);
                break;
            case Type::Time:
                return time(bytes, std::move(value), place);
            case Type::Text:
                value.kind = Value::Kind::Text;
                value.text = quoted(bytes);
                value.number = value.text.size() > 2 ? 1 : 0;
                break;
            default:
                value.text = std::to_string(raw);
                break;
        }
        mKnown.push_back({field.name, value.number});
        return value;
    }

    Value time(Bytes bytes, Value value, size_t place) {
        const size_t half = mLayout.timeSize;
        const uint64_t seconds = mLayout.machine.read(bytes, 0, half);
        const uint64_t fraction = mLayout.machine.read(bytes, half, half);
        value.kind = Value::Kind::Place;
        value.number = seconds != 0 || fraction != 0 ? 1 : 0;
        value.text = "{" + std::to_string(seconds) + ", " + std::to_string(fraction) + "}";
        notePlace(place, bytes.size(), value.kind);
        return value;
    }

    Value array(const Field& field, Bytes pointer, std::string name, size_t place) {
        const uint64_t address = mLayout.machine.read(pointer, 0, pointer.size());
        notePlace(place, pointer.size(), Value::Kind::Place);
        const auto found = std::find_if(mPieces.begin(), mPieces.end(), [&](const Piece& piece) {
            return piece.what == field.array;
        });
        if (found == mPieces.end() || field.sub == nullptr)
            return {std::move(name),
                    Value::Kind::Place,
                    address != 0 ? hexText(address) : "NULL",
                    address != 0 ? 1 : 0,
                    {}};
        Value list{std::move(name), Value::Kind::Group, {}, 0, {}};
        const size_t size = mLayout.extentOf(*field.sub).size;
        const size_t known = mKnown.size();
        std::vector<FieldPlace>* const places = std::exchange(mPlaces, nullptr);
        // Items that are no structs have no name.
        const Field& first = field.sub->fields.front();
        const bool isBare = first.name[0] == 0;
        for (size_t at = 0; at + size <= found->bytes.size(); at += size) {
            const Bytes bytes = found->bytes.subspan(at, size);
            list.parts.push_back(isBare ? item(first, bytes, {}, at) : group(*field.sub, bytes));
            mKnown.resize(known);
        }
        mPlaces = places;
        return list;
    }

    void notePlace(size_t at, size_t size, Value::Kind kind) {
        if (mPlaces != nullptr)
            mPlaces->push_back({at, size, kind});
    }

    const Layout& mLayout;
    std::span<const Piece> mPieces;
    std::vector<Known> mKnown;
    size_t mBase = 0;  ///< where the struct at hand begins in the argument
    std::vector<FieldPlace>* mPlaces = nullptr;
};

/** Bytes of an argument that is not known. */
Value rawValue(Bytes bytes) {
    std::string text;
    char digits[4];
    for (const uint8_t byte : bytes.first(std::min<size_t>(bytes.size(), 64))) {
        snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return {"", Value::Kind::Text, text + (bytes.size() > 64 ? "..." : ""), 1, {}};
}

}  // namespace

const Value* Value::find(std::string_view field) const {
    const auto found = std::find_if(parts.begin(), parts.end(),
                                    [&](const Value& part) { return part.name == field; });
    return found != parts.end() ? &*found : nullptr;
}

bool Value::isZero() const {
    if (kind == Kind::Group)
        return std::all_of(parts.begin(), parts.end(),
                           [](const Value& part) { return part.isZero(); });
    return number == 0;
}

std::string Value::toString() const {
    if (kind != Kind::Group)
        return text;
    const bool isList = !parts.empty() && parts.front().name.empty();
    size_t count = parts.size();
    while (isList && count > 1 && parts[count - 1].isZero())
        --count;
    std::string result;
    for (size_t i = 0; i < count; ++i) {
        const Value& part = parts[i];
        if (!isList && i != 0 && part.isZero())
            continue;
        result += (result.empty() ? "" : ", ") + (part.name.empty() ? "" : part.name + "=") +
                  part.toString();
    }
    return isList ? "[" + result + "]" : "{" + result + "}";
}

std::span<const IoctlInfo> knownIoctls() {
    return ioctlTable();
}

size_t sizeOf(const StructInfo& argument, const Machine& machine, size_t timeSize) {
    return Layout{machine, timeSize}.extentOf(argument).size;
}

const IoctlInfo* findIoctl(uint32_t code, const Machine& machine) {
    const IoctlInfo* nearest = nullptr;
    for (const IoctlInfo& info : ioctlTable()) {
        // Type and number stand where they do on every machine; direction and size do not.
        if ((info.code & 0xffff) != (code & 0xffff))
            continue;
        const size_t size = codeSize(code);
        if (info.argument == nullptr ? size == 0
                                     : size == sizeOf(*info.argument, machine,
                                                      timeSizeOf(*info.argument, size, machine)))
            return &info;
        if (nearest == nullptr)
            nearest = &info;
    }
    return nearest;
}

Value decodeArgument(uint32_t code, std::span<const Piece> pieces, const Machine& machine) {
    const IoctlInfo* const info = findIoctl(code, machine);
    for (const Piece& piece : pieces) {
        if (piece.what != record::kArgument)
            continue;
        if (info == nullptr || info->argument == nullptr)
            return rawValue(piece.bytes);
        const Layout layout{machine, timeSizeOf(*info->argument, codeSize(code), machine)};
        return Decoder(layout, pieces).group(*info->argument, piece.bytes);
    }
    return {"", Value::Kind::Group, {}, 0, {}};
}

std::vector<FieldPlace> placesOf(uint32_t code, std::span<const uint8_t> argument) {
    const Machine native;
    std::vector<FieldPlace> places;
    const IoctlInfo* const info = findIoctl(code, native);
    if (info == nullptr || info->argument == nullptr)
        return places;
    const Layout layout{native, sizeof(long)};
    Decoder decoder(layout, {});
    decoder.collect(&places);
    decoder.group(*info->argument, argument);
    return places;
}

std::string errorName(int result) {
    const char* const name = strerrorname_np(-result);
    return name != nullptr ? name : std::to_string(result);
}

std::string callName(const Call& call, const Machine& machine) {
    switch (call.operation) {
        case record::Operation::Open:
            return "open";
        case record::Operation::Close:
            return "close";
        case record::Operation::OpenDir:
            return "opendir";
        case record::Operation::ReadDir:
            return "readdir";
        case record::Operation::CloseDir:
            return "closedir";
        case record::Operation::Stat:
            return "stat";
        case record::Operation::ReadLink:
            return "readlink";
        case record::Operation::Ioctl:
            if (const IoctlInfo* const info = findIoctl(call.code, machine))
                return info->name;
            return "ioctl " + hexText(call.code);
    }
    return "operation " + std::to_string(static_cast<int>(call.operation));
}

namespace {

std::string flagsOfOpen(uint32_t flags) {
    static constexpr Name kNames[] = {{O_NONBLOCK, "O_NONBLOCK"}, {O_CLOEXEC, "O_CLOEXEC"}};
    static constexpr const char* kAccess[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "3"};
    const uint32_t rest = flags & ~3U;
    return kAccess[flags & 3] + (rest != 0 ? "|" + flagsText(rest, kNames) : "");
}

std::string quotedText(const std::string& text) {
    return quoted({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

std::string askedText(const Call& call, const Machine& machine, const std::string& label) {
    switch (call.operation) {
        case record::Operation::Open:
            return quotedText(call.text(false)) + ", " + flagsOfOpen(call.code);
        case record::Operation::OpenDir:
        case record::Operation::Stat:
        case record::Operation::ReadLink:
            return quotedText(call.text(false));
        case record::Operation::ReadDir:
        case record::Operation::CloseDir:
            return label.empty() ? hexText(static_cast<uint64_t>(call.handle)) : label;
        default:
            break;
    }
    std::string text = std::to_string(call.handle) + (label.empty() ? "" : "<" + label + ">");
    if (!call.before.empty())
        text += ", " + decodeArgument(call.code, call.before, machine).toString();
    return text;
}

/** What came back; where that is an array alone, with the argument that points to it. */
std::vector<Piece> toldOf(const Call& call) {
    std::vector<Piece> told = call.after;
    if (!told.empty() && call.piece(record::kArgument, true).empty())
        for (const Piece& piece : call.before)
            if (piece.what == record::kArgument)
                told.push_back(piece);
    return told;
}

std::string answerText(const Call& call, const Machine& machine) {
    switch (call.operation) {
        case record::Operation::ReadDir:
        case record::Operation::ReadLink:
            return call.after.empty() ? "" : " " + quotedText(call.text(true));
        case record::Operation::Stat: {
            const Bytes told = call.piece(record::kStat, true);
            const auto number = [&](size_t at) {
                return static_cast<uint32_t>(machine.read(told, at, 4));
            };
            return told.empty() ? ""
                                : " {device " + std::to_string(number(4)) + ":" +
                                      std::to_string(number(8)) + "}";
        }
        case record::Operation::Ioctl:
            return call.after.empty() || call.result < 0
                       ? ""
                       : " " + decodeArgument(call.code, toldOf(call), machine).toString();
        default:
            return {};
    }
}

}  // namespace

std::string askText(const Call& call, const Machine& machine, const std::string& label) {
    return callName(call, machine) + "(" + askedText(call, machine, label) + ")";
}

std::string callText(const Call& call, const Machine& machine, const std::string& label) {
    std::string text = askText(call, machine, label);
    if (!call.returned)
        return text + " <unfinished ...>";
    text += " = " + std::to_string(call.result);
    if (call.result < 0)
        text += " " + errorName(call.result) + " (" + strerror(-call.result) + ")";
    return text + answerText(call, machine);
}

}  // namespace NSVista::NSCorvane::replay
