// SPDX-License-Identifier: Apache-2.0
#include "PortChoice.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <sstream>
#include <string_view>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

/** A whole text as a number. */
std::optional<size_t> numberOf(std::string_view text) {
    size_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

const NodePort* findPort(const Device& device, const std::string& word) {
    const std::optional<size_t> number = numberOf(word);
    const auto found =
        std::find_if(device.ports.begin(), device.ports.end(), [&](const NodePort& port) {
            return number ? static_cast<size_t>(port.index) == *number : port.entity == word;
        });
    return found != device.ports.end() ? &*found : nullptr;
}

}  // namespace

std::vector<NodePort> choosePorts(const Device& device, const std::string& wish) {
    const std::vector<NodePort>& ports = device.ports;
    if (ports.empty()) {
        complain(kBadUse, "%s has no port that takes requests", device.path.c_str());
        return {};
    }
    if (wish == "all")
        return ports;
    if (const std::optional<size_t> count = numberOf(wish)) {
        if (*count >= 1 && *count <= ports.size())
            return {ports.begin(), ports.begin() + static_cast<std::ptrdiff_t>(*count)};
        complain(kBadUse, "%s has 1 to %zu ports, not %zu", device.path.c_str(), ports.size(),
                 *count);
        return {};
    }
    std::vector<NodePort> chosen;
    std::istringstream words(wish);
    for (std::string word; std::getline(words, word, ',');) {
        const NodePort* const port = findPort(device, word);
        const bool twice =
            port != nullptr && std::any_of(chosen.begin(), chosen.end(), [port](const auto& other) {
                return other.index == port->index;
            });
        if (port == nullptr || twice) {
            complain(kBadUse, "%s port \"%s\" (--list shows the ports)", twice ? "twice the" : "no",
                     word.c_str());
            return {};
        }
        chosen.push_back(*port);
    }
    if (chosen.empty())
        complain(kBadUse, "no ports in \"%s\"", wish.c_str());
    return chosen;
}

}  // namespace NSVista::NSCorvane::tools
