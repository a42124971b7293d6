// SPDX-License-Identifier: Apache-2.0
#include "Graph.h"

#include "NodeFormats.h"

namespace NSVista::NSCorvane::tools {

namespace {

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

std::string smallLine(const std::string& text) {
    return "<br/><font point-size=\"9\" color=\"#555555\">" + escaped(text) + "</font>";
}

/** The entity's name with its node and current formats below. */
std::string title(const Entity& entity) {
    std::string text = "<b>" + escaped(entity.name) + "</b>";
    if (entity.devnode.empty())
        return text;
    text += smallLine(entity.devnode);
    if (!entity.isVideoNode())
        return text;
    for (const QueueFormat& queue : readFormats(entity.devnode).queues) {
        std::string line = v4l2::formatName(queue.format.format);
        if (queue.format.width != 0)
            line += " " + sizeText(queue.format);
        text += smallLine(line);
    }
    return text;
}

std::vector<unsigned> padsOf(const Entity& entity, uint32_t direction) {
    std::vector<unsigned> pads;
    for (const auto& pad : entity.pads) {
        if ((pad.flags & direction) != 0)
            pads.push_back(pad.index);
    }
    return pads;
}

/** A column of pads; graphviz draws an empty table as an error, so there is none without pads. */
std::string padColumn(const std::vector<unsigned>& pads) {
    if (pads.empty())
        return {};
    std::string text =
        "<td><table border=\"0\" cellborder=\"0\" cellspacing=\"0\" cellpadding=\"3\">";
    for (const unsigned pad : pads) {
        const std::string number = std::to_string(pad);
        text += "<tr><td port=\"p";
        text += number + "\"><font point-size=\"9\" color=\"#555555\">";
        text += number + "</font></td></tr>";
    }
    return text + "</table></td>";
}

const char* colour(const Entity& entity) {
    if (!entity.isVideoNode())
        return "#dbe9d8";
    return padsOf(entity, MEDIA_PAD_FL_SOURCE).empty() ? "#dce6f2" : "#f7e8c8";
}

std::string nodeName(size_t device, unsigned entity) {
    return "d" + std::to_string(device) + "e" + std::to_string(entity);
}

void addNode(std::string& graph, size_t device, const Entity& entity) {
    graph += "    " + nodeName(device, entity.desc.id) +
             " [label=<<table border=\"1\" cellborder=\"0\" cellspacing=\"0\" cellpadding=\"4\""
             " style=\"rounded\" color=\"#888888\" bgcolor=\"" +
             std::string(colour(entity)) + "\"><tr>" +
             padColumn(padsOf(entity, MEDIA_PAD_FL_SINK)) + "<td>" + title(entity) + "</td>" +
             padColumn(padsOf(entity, MEDIA_PAD_FL_SOURCE)) + "</tr></table>>];\n";
}

void addLink(std::string& graph, size_t device, const media_link_desc& link) {
    const char* look = "style=dashed, color=\"#aaaaaa\"";
    if ((link.flags & MEDIA_LNK_FL_IMMUTABLE) != 0)
        look = "penwidth=2";
    else if ((link.flags & MEDIA_LNK_FL_ENABLED) != 0)
        look = "penwidth=1";
    graph += "    " + nodeName(device, link.source.entity) + ":p" +
             std::to_string(link.source.index) + ":e -> " + nodeName(device, link.sink.entity) +
             ":p" + std::to_string(link.sink.index) + ":w [" + look + "];\n";
}

}  // namespace

std::string makeGraph(const std::vector<Device>& devices) {
    std::string graph =
        "digraph media {\n"
        "    graph [rankdir=LR, nodesep=0.25, ranksep=1.4, fontname=\"Helvetica\", fontsize=13,"
        " labelloc=t];\n"
        "    node [shape=plain, fontname=\"Helvetica\", fontsize=11];\n"
        "    edge [color=\"#444444\", arrowsize=0.6];\n";
    for (size_t i = 0; i < devices.size(); i++) {
        const Device& device = devices[i];
        graph += "  subgraph cluster" + std::to_string(i) + " {\n    label=<" +
                 escaped(device.model + "  " + device.path) +
                 "<br/><font point-size=\"9\" color=\"#555555\">bold: immutable, dashed: "
                 "disabled</font>>;\n    color=\"#ffffff\";\n";
        for (const Entity& entity : device.entities)
            addNode(graph, i, entity);
        for (const auto& link : device.links)
            addLink(graph, i, link);
        graph += "  }\n";
    }
    return graph + "}\n";
}

}  // namespace NSVista::NSCorvane::tools
