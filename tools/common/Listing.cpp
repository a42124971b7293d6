#include "Listing.h"

#include <langinfo.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "Console.h"
#include "NodeFormats.h"

namespace NSVista::NSCorvane::tools {

namespace {

struct Glyphs {
    const char *branch, *last, *bar, *out, *in;
};
constexpr Glyphs kUnicode = {"├─ ", "└─ ", "│  ", "──▶", "◀──"};
constexpr Glyphs kAscii = {"|- ", "`- ", "|  ", "-->", "<--"};
const Glyphs* sGlyphs = &kAscii;

/** On narrower terminals the topology's columns are not aligned. */
constexpr size_t kAlignedFrom = 80;

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
                {text, sGlyphs->out, device.endText(link.sink), flagsText(link.flags)});
        if (!source && isPad(link.sink, pad))
            branches.push_back(
                {text, sGlyphs->in, device.endText(link.source), flagsText(link.flags)});
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
        printf("  %s%spad %-8s ", last ? "   " : sGlyphs->bar,
               i + 1 == branches.size() ? sGlyphs->last : sGlyphs->branch, branch.pad.c_str());
        if (branch.arrow == nullptr)
            printf("not linked\n");
        else
            printf("%s %-*s %s\n", branch.arrow, nameWidth == 0 ? 0 : nameWidth + 4,
                   branch.end.c_str(), branch.flags.c_str());
    }
}

void printTopology(const Device& device) {
    printf("\nTopology: %zu entities, %zu links\n", device.entities.size(), device.links.size());
    size_t nameWidth = 0;
    const bool isNarrow = outputWidth() != 0 && outputWidth() < kAlignedFrom;
    for (const Entity& entity : device.entities)
        nameWidth = std::max(nameWidth, isNarrow ? 0 : entity.name.size());
    for (const Entity& entity : device.entities)
        printEntity(device, entity, static_cast<int>(nameWidth),
                    &entity == &device.entities.back());
}

/** One number of each plane, in order. */
template <class Number>
std::string planesText(const PixelFormat& format, Number number) {
    std::string text;
    for (uint32_t i = 0; i < std::min(format.planeCount, PixelFormat::kMaxPlanes); ++i)
        text += (text.empty() ? "" : " + ") + number(format.planes[i]);
    return text;
}

std::string strideText(const PixelFormat::Plane& plane) {
    return std::to_string(plane.stride);
}

std::string planeSizeText(const PixelFormat::Plane& plane) {
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
        printf("%s ", v4l2::formatName(queue.supported[i]).c_str());
    }
    if (!queue.supported.empty())
        printf("\n");
}

std::string portText(const Device& device, const Entity& entity) {
    for (const NodePort& port : device.ports)
        if (port.entity == entity.name)
            return std::to_string(port.index);
    return {};
}

void addFormatRows(const Device& device, const Entity& entity, const NodeFormats& formats,
                   std::vector<Row>& rows) {
    const std::string port = portText(device, entity);
    for (const QueueFormat& queue : formats.queues)
        rows.push_back({entity.name, port, entity.devnode, queue.type->inWords,
                        v4l2::formatName(queue.format.format), sizeText(queue.format),
                        queue.format.width == 0 ? "-" : planesText(queue.format, strideText),
                        planesText(queue.format, planeSizeText)});
    if (formats.error < 0)
        rows.push_back({entity.name, port, entity.devnode, strerror(-formats.error)});
    else if (formats.queues.empty())
        rows.push_back({entity.name, port, entity.devnode, "neither video nor metadata"});
}

void printFormats(const Device& device) {
    std::vector<std::pair<const Entity*, NodeFormats>> nodes;
    std::vector<Row> rows = {
        {"entity", "port", "node", "queue", "format", "size", "stride, B", "planes, B"}};
    bool offers = false;
    for (const Entity& entity : device.entities) {
        if (!entity.isVideoNode() || entity.devnode.empty())
            continue;
        const auto& formats = nodes.emplace_back(&entity, readFormats(entity.devnode)).second;
        addFormatRows(device, entity, formats, rows);
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
    printFact("driver", v4l2::fixedText(info.driver) + " " + versionText(info.driver_version));
    printFact("bus", v4l2::fixedText(info.bus_info));
    printFact("serial", v4l2::fixedText(info.serial));
    printFact("hardware", "revision " + std::to_string(info.hw_revision));
    printFact("interface", "media " + versionText(info.media_version));
    printTopology(device);
    printFormats(device);
}

void printDevices(const std::vector<Device>& devices) {
    for (const Device& device : devices) {
        if (&device != &devices.front())
            printf("\n\n");
        printDevice(device);
    }
    if (devices.empty())
        puts("no media device");
}

}  // namespace NSVista::NSCorvane::tools
