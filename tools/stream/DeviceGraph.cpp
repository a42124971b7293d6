#include "DeviceGraph.h"

#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/mc/MediaTopology.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string_view>

namespace NSVista::NSCorvane::stream {

namespace {

/** A whole text as a number. */
std::optional<size_t> numberOf(std::string_view text) {
    size_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::string nodePathOf(const mc::MediaTopology& topology, const media_entity_desc& entity) {
    const auto found = entity.dev.major != 0 ? topology.findEntity(entity.name) : nullptr;
    return found ? found->determineDevnodePath() : std::string();
}

std::string entityName(const mc::MediaTopology& topology, uint32_t id) {
    for (const media_entity_desc& entity : topology.entityDescs())
        if (entity.id == id)
            return entity.name;
    return "?";
}

/** @return nothing for an entity without a node that streams with requests. */
std::optional<NodePort> portOf(const mc::MediaTopology& topology, const media_entity_desc& entity) {
    if (entity.type != MEDIA_ENT_F_IO_V4L)
        return std::nullopt;
    NodePort port{0, entity.name, nodePathOf(topology, entity), {}};
    if (port.nodePath.empty() || client::queryVideoNode(port.nodePath, port.node) != 0 ||
        port.node.bufferType == 0 || !port.node.takesRequests)
        return std::nullopt;
    return port;
}

std::vector<NodePort> portsOf(const mc::MediaTopology& topology) {
    std::vector<NodePort> ports;
    for (const media_entity_desc& entity : topology.entityDescs())
        if (auto port = portOf(topology, entity)) {
            port->index = static_cast<int>(ports.size());
            ports.push_back(*port);
        }
    return ports;
}

const char* describe(const client::VideoNode& node) {
    switch (node.bufferType) {
        case V4L2_BUF_TYPE_VIDEO_CAPTURE:
            return "capture";
        case V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE:
            return "capture, multi-planar";
        case V4L2_BUF_TYPE_VIDEO_OUTPUT:
            return "output";
        case V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE:
            return "output, multi-planar";
        case V4L2_BUF_TYPE_META_CAPTURE:
            return "metadata capture";
        case V4L2_BUF_TYPE_META_OUTPUT:
            return "metadata output";
        default:
            return "";
    }
}

void listEntities(const mc::MediaTopology& topology) {
    const std::vector<NodePort> ports = portsOf(topology);
    for (const media_entity_desc& entity : topology.entityDescs()) {
        const auto port = std::find_if(ports.begin(), ports.end(), [&entity](const auto& each) {
            return each.entity == entity.name;
        });
        printf("    %-32s %-20s", entity.name, nodePathOf(topology, entity).c_str());
        if (port != ports.end())
            printf(" port %d, %s", port->index, describe(port->node));
        putchar('\n');
    }
}

void listLinks(const mc::MediaTopology& topology) {
    for (const media_link_desc& link : topology.linkDescs())
        printf("    %s:%u -> %s:%u [%s%s]\n", entityName(topology, link.source.entity).c_str(),
               link.source.index, entityName(topology, link.sink.entity).c_str(), link.sink.index,
               (link.flags & MEDIA_LNK_FL_ENABLED) != 0 ? "enabled" : "disabled",
               (link.flags & MEDIA_LNK_FL_IMMUTABLE) != 0 ? ", immutable" : "");
}

}  // namespace

DeviceGraph::DeviceGraph(std::string path, const media_device_info& info)
    : mPath(std::move(path)), mInfo(info), mTopology(mc::enumMediaTopology(mPath)) {
    if (mTopology)
        mPorts = portsOf(*mTopology);
}

std::unique_ptr<DeviceGraph> DeviceGraph::find(const std::string& model) {
    std::unique_ptr<DeviceGraph> graph;
    std::string others;
    mc::enumerateMediaDevices([&](const media_device_info& info, const std::string& path) {
        if (info.model == model)
            graph.reset(new DeviceGraph(path, info));
        others += (others.empty() ? "" : ", ") + std::string(info.model);
        return graph != nullptr;
    });
    if (!graph)
        fprintf(stderr, "corvane-stream: no media device of model \"%s\" (there is %s)\n",
                model.c_str(), others.empty() ? "none at all" : others.c_str());
    return graph;
}

const NodePort* DeviceGraph::findPort(const std::string& word) const {
    const std::optional<size_t> number = numberOf(word);
    const auto found = std::find_if(mPorts.begin(), mPorts.end(), [&](const NodePort& port) {
        return number ? static_cast<size_t>(port.index) == *number : port.entity == word;
    });
    return found != mPorts.end() ? &*found : nullptr;
}

std::vector<NodePort> DeviceGraph::choose(const std::string& wish) const {
    if (mPorts.empty()) {
        fprintf(stderr, "corvane-stream: %s has no port that takes requests\n", mPath.c_str());
        return {};
    }
    if (wish == "all")
        return mPorts;
    if (const std::optional<size_t> count = numberOf(wish)) {
        if (*count >= 1 && *count <= mPorts.size())
            return {mPorts.begin(), mPorts.begin() + static_cast<std::ptrdiff_t>(*count)};
        fprintf(stderr, "corvane-stream: %s has 1 to %zu ports, not %zu\n", mPath.c_str(),
                mPorts.size(), *count);
        return {};
    }
    std::vector<NodePort> chosen;
    std::istringstream words(wish);
    for (std::string word; std::getline(words, word, ',');) {
        const NodePort* const port = findPort(word);
        const bool twice =
            port != nullptr && std::any_of(chosen.begin(), chosen.end(), [port](const auto& other) {
                return other.index == port->index;
            });
        if (port == nullptr || twice) {
            fprintf(stderr, "corvane-stream: %s port \"%s\" (--list shows the ports)\n",
                    twice ? "twice the" : "no", word.c_str());
            return {};
        }
        chosen.push_back(*port);
    }
    if (chosen.empty())
        fprintf(stderr, "corvane-stream: no ports in \"%s\"\n", wish.c_str());
    return chosen;
}

std::vector<client::SessionLink> DeviceGraph::linksOf(const std::vector<NodePort>& ports) const {
    std::vector<client::SessionLink> links;
    for (const media_link_desc& link : mTopology->linkDescs()) {
        const std::string source = entityName(*mTopology, link.source.entity);
        const std::string sink = entityName(*mTopology, link.sink.entity);
        const bool touches = std::any_of(ports.begin(), ports.end(), [&](const NodePort& port) {
            return port.entity == source || port.entity == sink;
        });
        if (touches && (link.flags & MEDIA_LNK_FL_IMMUTABLE) == 0)
            links.push_back({source, link.source.index, sink, link.sink.index});
    }
    return links;
}

std::string DeviceGraph::subDevice() const {
    for (const media_entity_desc& entity : mTopology->entityDescs())
        if (entity.type != MEDIA_ENT_F_IO_V4L && !nodePathOf(*mTopology, entity).empty())
            return entity.name;
    return {};
}

void listDevices() {
    int count = 0;
    mc::enumerateMediaDevices([&count](const media_device_info& info, const std::string& path) {
        printf("%s%s  model \"%s\", driver %s, bus %s\n", count++ == 0 ? "" : "\n", path.c_str(),
               info.model, info.driver, info.bus_info);
        if (const auto topology = mc::enumMediaTopology(path)) {
            puts("  entities");
            listEntities(*topology);
            puts("  links");
            listLinks(*topology);
        }
        return false;
    });
    if (count == 0)
        puts("no media device");
}

}  // namespace NSVista::NSCorvane::stream
