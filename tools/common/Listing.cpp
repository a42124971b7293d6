// SPDX-License-Identifier: Apache-2.0
#include "Listing.h"

#include <corvane/client/Controls.h>
#include <fcntl.h>
#include <langinfo.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "Console.h"
#include "NodeFormats.h"
#include "Signals.h"

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
    const auto counted = [](size_t count, const char* one, const char* many) {
        return std::to_string(count) + " " + (count == 1 ? one : many);
    };
    printf("\nTopology: %s, %s\n", counted(device.entities.size(), "entity", "entities").c_str(),
           counted(device.links.size(), "link", "links").c_str());
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

/** Formats that offer the same sizes share a row. */
void addOfferRows(const Entity& entity, const QueueFormat& queue, std::vector<Row>& rows) {
    const size_t first = rows.size();
    for (const OfferedFormat& offer : queue.offered) {
        const std::string name = v4l2::formatName(offer.fourcc);
        if (rows.size() > first && rows.back()[2] == offer.sizes)
            rows.back()[1] += " " + name;
        else
            rows.push_back({entity.name, name, offer.sizes, {}});
    }
    if (!queue.rates.empty()) {
        if (rows.size() == first)
            rows.push_back({entity.name, {}, {}, {}});
        rows.back()[3] = queue.rates;
    }
}

void printFormats(const Device& device) {
    std::vector<Row> rows = {
        {"entity", "port", "node", "queue", "format", "size", "stride, B", "planes, B"}};
    std::vector<Row> offers = {{"entity", "formats", "sizes", "frames a second"}};
    for (const Entity& entity : device.entities) {
        if (!entity.isVideoNode() || entity.devnode.empty())
            continue;
        const NodeFormats formats = readFormats(entity.devnode);
        addFormatRows(device, entity, formats, rows);
        for (const QueueFormat& queue : formats.queues)
            addOfferRows(entity, queue, offers);
    }
    if (rows.size() > 1) {
        printf("\nFormats\n");
        printTable(rows);
    }
    if (offers.size() > 1) {
        printf("\nFormats offered\n");
        printTable(offers);
    }
}

void addConnectorRows(const Entity& entity, const char* kind,
                      const std::optional<sim::ConnectorsDesc>& connectors,
                      const std::string& signal, std::vector<Row>& rows) {
    // Where links decide what a node is fed with, the kernel tells one input of the node's name.
    if (connectors && connectors->list.size() == 1 && connectors->list[0].name == entity.name)
        return;
    for (uint32_t i = 0; connectors && i < connectors->list.size(); ++i) {
        const bool isCurrent = i == connectors->current;
        rows.push_back({entity.name, kind, std::to_string(i), connectors->list[i].name,
                        isCurrent ? "*" : "", isCurrent ? signal : std::string()});
    }
}

void printConnectors(const Device& device) {
    std::vector<Row> rows = {{"entity", "kind", "no.", "name", "chosen", "signal"}};
    for (const Entity& entity : device.entities) {
        if (!entity.isVideoNode() || entity.devnode.empty())
            continue;
        client::NodeFd node(entity.devnode.c_str(), O_RDWR | O_NONBLOCK);
        const sim::SignalDesc signal = node ? readSignal(node) : sim::SignalDesc();
        addConnectorRows(entity, "input", signal.inputs, signalText(signal), rows);
        addConnectorRows(entity, "output", signal.outputs, signalText(signal), rows);
    }
    if (rows.size() == 1)
        return;
    printf("\nInputs and outputs\n");
    printTable(rows);
}

/** Codes that offer the same sizes share a row. */
void addPadRows(const Entity& entity, const sim::PadDesc& pad, std::vector<Row>& rows) {
    const auto codeText = [](uint32_t code) {
        char number[16];
        snprintf(number, sizeof(number), "0x%04x", code);
        return std::string(number);
    };
    rows.push_back({entity.name,
                    std::to_string(pad.pad),
                    codeText(pad.format.code),
                    pairText(pad.format.width, pad.format.height),
                    {},
                    {}});
    const size_t first = rows.size();
    for (const sim::PadCodeDesc& code : pad.codes) {
        std::string sizes;
        for (const sim::PadCodeDesc::Range& range : code.sizes)
            sizes += (sizes.empty() ? "" : " ") + rangeText(range);
        if (rows.size() > first && rows.back()[5] == sizes)
            rows.back()[4] += " " + codeText(code.code);
        else
            rows.push_back(
                {entity.name, std::to_string(pad.pad), {}, {}, codeText(code.code), sizes});
    }
}

void printPads(const Device& device) {
    std::vector<Row> rows = {{"entity", "pad", "bus format", "size", "offered", "sizes"}};
    for (const Entity& entity : device.entities) {
        if (entity.isVideoNode() || entity.devnode.empty())
            continue;
        client::NodeFd node(entity.devnode.c_str(), O_RDWR | O_NONBLOCK);
        if (!node)
            continue;
        for (const sim::PadDesc& pad : readPadFormats(node, entity.pads.size()))
            addPadRows(entity, pad, rows);
    }
    if (rows.size() == 1)
        return;
    printf("\nPads\n");
    printTable(rows);
}

std::string valueText(const client::Control& control, int64_t value) {
    for (const auto& [number, name] : control.menu)
        if (number == value)
            return std::to_string(value) + " (" + name + ")";
    return std::to_string(value);
}

std::string menuText(const client::Control& control) {
    std::string text;
    for (const auto& [number, name] : control.menu)
        text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + name;
    return text.empty() && control.hasValue() ? control.rangeText() : text;
}

void printControls(const Device& device) {
    std::vector<Row> rows = {{"entity", "control", "id", "value", "default", "range"}};
    for (const Entity& entity : device.entities) {
        if (entity.devnode.empty())
            continue;
        client::ControlNode node(entity.devnode);
        for (const client::Control& control : node ? node.list() : std::vector<client::Control>()) {
            int64_t value = 0;
            const bool isRead = node.get(control, value) == 0;
            char id[16];
            snprintf(id, sizeof(id), "0x%x", control.id);
            rows.push_back({entity.name, control.name, id,
                            isRead ? valueText(control, value) : std::string("-"),
                            control.hasValue() ? std::to_string(control.defaultValue) : "-",
                            menuText(control)});
        }
    }
    if (rows.size() == 1)
        return;
    printf("\nControls\n");
    printTable(rows, {4});
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
    printConnectors(device);
    printPads(device);
    printControls(device);
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
