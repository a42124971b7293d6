#include "Report.h"

#include <langinfo.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "Formats.h"

namespace corvane::info {

namespace {

struct Glyphs {
    const char *branch, *last, *bar, *out, *in;
};
constexpr Glyphs kUnicode = {"├─ ", "└─ ", "│  ", "──▶", "◀──"};
constexpr Glyphs kAscii = {"|- ", "`- ", "|  ", "-->", "<--"};
const Glyphs* sGlyphs = &kAscii;

using Row = std::vector<std::string>;

/**
 * Prints rows in columns as wide as needed.
 * @param rows the first one is the head; a column that is empty below it is left out.
 * @param right the columns to align on the right.
 */
void printTable(const std::vector<Row>& rows, const std::vector<size_t>& right = {}) {
    const Row& head = rows.front();
    std::vector<size_t> widths(head.size());
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size() && &row != &head; i++)
            widths[i] = std::max(widths[i], row[i].size());
    }
    for (size_t i = 0; i < head.size(); i++)
        widths[i] = widths[i] == 0 ? 0 : std::max(widths[i], head[i].size());
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            if (widths[i] == 0)
                continue;
            const std::string gap(widths[i] - row[i].size(), ' ');
            const bool toRight = std::find(right.begin(), right.end(), i) != right.end();
            line += "  " + (toRight ? gap + row[i] : row[i] + gap);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        printf("%s\n", line.c_str());
    }
}

/** A number of bytes with its thousands apart. */
std::string bytesText(uint32_t bytes) {
    std::string text = std::to_string(bytes);
    for (size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text;
}

std::string versionText(uint32_t version) {
    return std::to_string(version >> 16) + "." + std::to_string(version >> 8 & 0xff) + "." +
           std::to_string(version & 0xff);
}

/** Prints one line of a device's description, nothing for an empty value. */
void printFact(const char* name, const std::string& value) {
    if (!value.empty())
        printf("  %-9s  %s\n", name, value.c_str());
}

std::string flagsText(uint32_t flags) {
    std::string text = (flags & MEDIA_LNK_FL_ENABLED) != 0 ? "enabled" : "disabled";
    if ((flags & MEDIA_LNK_FL_IMMUTABLE) != 0)
        text += ", immutable";
    if ((flags & MEDIA_LNK_FL_DYNAMIC) != 0)
        text += ", dynamic";
    return text;
}

std::string endText(const Device& device, const media_pad_desc& pad) {
    const Entity* entity = device.find(pad.entity);
    return (entity != nullptr ? entity->name : "#" + std::to_string(pad.entity)) + ":" +
           std::to_string(pad.index);
}

bool isPad(const media_pad_desc& a, const media_pad_desc& b) {
    return a.entity == b.entity && a.index == b.index;
}

/** What a line under an entity shows: a pad and one of its links. */
struct Branch {
    std::string pad;    ///< number and direction
    const char* arrow;  ///< null for a pad without links
    std::string end;    ///< the pad at the link's other end
    std::string flags;
};

void addBranches(const Device& device, const media_pad_desc& pad, std::vector<Branch>& branches) {
    const bool source = (pad.flags & MEDIA_PAD_FL_SOURCE) != 0;
    const std::string text = std::to_string(pad.index) + (source ? " source" : " sink");
    const size_t before = branches.size();
    for (const auto& link : device.links) {
        if (source && isPad(link.source, pad))
            branches.push_back(
                {text, sGlyphs->out, endText(device, link.sink), flagsText(link.flags)});
        if (!source && isPad(link.sink, pad))
            branches.push_back(
                {text, sGlyphs->in, endText(device, link.source), flagsText(link.flags)});
    }
    if (branches.size() == before)
        branches.push_back({text, nullptr, {}, {}});
}

void printEntity(const Device& device, const Entity& entity, int nameWidth, bool last) {
    printf("  %s%-*s  %s%s%s\n", last ? sGlyphs->last : sGlyphs->branch, nameWidth,
           entity.name.c_str(), entity.kind(), entity.devnode.empty() ? "" : "  ",
           entity.devnode.c_str());
    std::vector<Branch> branches;
    for (const auto& pad : entity.pads)
        addBranches(device, pad, branches);
    for (size_t i = 0; i < branches.size(); i++) {
        const Branch& branch = branches[i];
        printf("  %s%spad %-10s ", last ? "   " : sGlyphs->bar,
               i + 1 == branches.size() ? sGlyphs->last : sGlyphs->branch, branch.pad.c_str());
        if (branch.arrow == nullptr)
            printf("not linked\n");
        else
            printf("%s %-*s  %s\n", branch.arrow, nameWidth + 3, branch.end.c_str(),
                   branch.flags.c_str());
    }
}

void printTopology(const Device& device) {
    printf("\nTopology: %zu entities, %zu links\n", device.entities.size(), device.links.size());
    size_t nameWidth = 0;
    for (const Entity& entity : device.entities)
        nameWidth = std::max(nameWidth, entity.name.size());
    for (const Entity& entity : device.entities)
        printEntity(device, entity, static_cast<int>(nameWidth),
                    &entity == &device.entities.back());
}

std::string sizeText(const QueueFormat& queue) {
    if (queue.width == 0)
        return "-";
    return std::to_string(queue.width) + "x" + std::to_string(queue.height);
}

/** One number of each plane, in order. */
template <class Number>
std::string planesText(const QueueFormat& queue, Number number) {
    std::string text;
    for (const auto& plane : queue.planes)
        text += (text.empty() ? "" : " + ") + number(plane);
    return text;
}

std::string strideText(const QueueFormat::Plane& plane) {
    return plane.stride == 0 ? "-" : std::to_string(plane.stride);
}

std::string planeSizeText(const QueueFormat::Plane& plane) {
    return bytesText(plane.size);
}

/** Prints the fourccs that a queue offers, in lines of bearable length. */
void printOffers(const Entity& entity, const QueueFormat& queue) {
    constexpr size_t kPerLine = 12;
    for (size_t i = 0; i < queue.supported.size(); i++) {
        if (i == 0)
            printf("  %-15s  ", entity.devnode.c_str());
        else if (i % kPerLine == 0)
            printf("\n  %-15s  ", "");
        printf("%s ", fourccText(queue.supported[i]).c_str());
    }
    if (!queue.supported.empty())
        printf("\n");
}

void addFormatRows(const Entity& entity, const NodeFormats& formats, std::vector<Row>& rows) {
    for (const QueueFormat& queue : formats.queues)
        rows.push_back({entity.devnode, entity.name, queue.type, fourccText(queue.format),
                        sizeText(queue), planesText(queue, strideText),
                        planesText(queue, planeSizeText)});
    if (formats.error < 0)
        rows.push_back({entity.devnode, entity.name, strerror(-formats.error)});
    else if (formats.queues.empty())
        rows.push_back({entity.devnode, entity.name, "neither video nor metadata"});
}

void printFormats(const Device& device) {
    std::vector<std::pair<const Entity*, NodeFormats>> nodes;
    std::vector<Row> rows = {
        {"node", "entity", "queue", "format", "size", "stride, B", "planes, B"}};
    bool offers = false;
    for (const Entity& entity : device.entities) {
        if (!entity.isVideoNode() || entity.devnode.empty())
            continue;
        const auto& formats = nodes.emplace_back(&entity, readFormats(entity.devnode)).second;
        addFormatRows(entity, formats, rows);
        for (const QueueFormat& queue : formats.queues)
            offers = offers || !queue.supported.empty();
    }
    if (nodes.empty())
        return;
    printf("\nFormats\n");
    printTable(rows);
    if (offers)
        printf("\nFormats offered\n");
    for (const auto& [entity, formats] : nodes) {
        for (const QueueFormat& queue : formats.queues)
            printOffers(*entity, queue);
    }
}

}  // namespace

void setUpTerminal() {
    setlocale(LC_CTYPE, "");
    if (strcmp(nl_langinfo(CODESET), "UTF-8") == 0)
        sGlyphs = &kUnicode;
}

void printDevice(const Device& device) {
    const auto& info = device.info;
    printf("%s  %s\n", device.model.c_str(), device.path.c_str());
    printFact("driver", textOf(info.driver) + " " + versionText(info.driver_version));
    printFact("bus", textOf(info.bus_info));
    printFact("serial", textOf(info.serial));
    printFact("hardware", "revision " + std::to_string(info.hw_revision));
    printFact("interface", "media " + versionText(info.media_version));
    printTopology(device);
    printFormats(device);
}

void printControls(const Entity& entity, const std::vector<ControlValue>& values) {
    printf("\nControls of %s  %s\n", entity.name.c_str(), entity.devnode.c_str());
    std::vector<Row> rows = {{"id", "name", "value", "range"}};
    for (const ControlValue& value : values) {
        const bool known = !value.control.name.empty();
        rows.push_back({std::to_string(value.control.id), known ? value.control.name : "-",
                        value.error < 0 ? strerror(-value.error) : std::to_string(value.value),
                        value.control.range});
    }
    printTable(rows, {0, 2});
}

}  // namespace corvane::info
