// SPDX-License-Identifier: Apache-2.0
#include "ControlPlan.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

template <class Number>
bool readNumber(const std::string& text, Number& value) {
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

}  // namespace

std::optional<ControlWish> ControlWish::parse(const std::string& text) {
    ControlWish wish{};
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        return std::nullopt;
    const std::string name = text.substr(0, equals);
    const size_t colon = name.rfind(':');
    wish.control = colon == std::string::npos ? name : name.substr(colon + 1);
    if (colon != std::string::npos)
        wish.entity = name.substr(0, colon);
    const std::string value = text.substr(equals + 1);
    const size_t at = value.find('@');
    if (at != std::string::npos && !readNumber(value.substr(at + 1), wish.frame.emplace()))
        return std::nullopt;
    if (!readNumber(value.substr(0, at), wish.value))
        return std::nullopt;
    return wish;
}

void ControlPlan::learn(uint32_t id, const std::vector<NodePort>& ports) {
    for (const NodePort& port : ports) {
        auto node = std::make_unique<client::ControlNode>(port.nodePath);
        for (const client::Control& control : node->list())
            if (int64_t value = 0; control.id == id && node->get(control, value) == 0)
                mSettings.push_back({port.entity, node.get(), control, value, std::nullopt});
        mNodes.push_back(std::move(node));
    }
}

bool ControlPlan::prepare(const std::vector<ControlWish>& wishes,
                          const std::vector<NodePort>& ports) {
    for (const ControlWish& wish : wishes) {
        const size_t before = mSettings.size();
        for (const NodePort& port : ports)
            if ((wish.entity.empty() || wish.entity == port.entity) && !add(wish, port))
                return false;
        if (mSettings.size() == before) {
            say("no port%s%s has a control \"%s\" (corvane-info shows them)",
                wish.entity.empty() ? "" : " ", wish.entity.c_str(), wish.control.c_str());
            return false;
        }
    }
    return true;
}

bool ControlPlan::add(const ControlWish& wish, const NodePort& port) {
    auto node = std::make_unique<client::ControlNode>(port.nodePath);
    const std::vector<client::Control> controls = node->list();
    const auto found = std::find_if(controls.begin(), controls.end(), [&](const auto& control) {
        return control.isCalled(wish.control);
    });
    if (found == controls.end() || !found->hasValue())
        return true;
    if (wish.value < found->minimum || wish.value > found->maximum) {
        say("%s: %s is %s, not %lld", port.entity.c_str(), found->name.c_str(),
            found->rangeText().c_str(), static_cast<long long>(wish.value));
        return false;
    }
    const int result = wish.frame ? 0 : node->set(*found, wish.value);
    if (result != 0)
        say("%s: %s cannot be set: %s", port.entity.c_str(), found->name.c_str(),
            strerror(-result));
    mSettings.push_back({port.entity, node.get(), *found, wish.value, wish.frame});
    mNodes.push_back(std::move(node));
    return result == 0;
}

int ControlPlan::apply(const client::SessionRequest& request) {
    for (const Setting& setting : mSettings)
        if (setting.frame == request.number())
            if (const int result =
                    setting.node->set(setting.control, setting.value, request.descriptor());
                result != 0) {
                say("%s: %s cannot go with request %llu: %s", setting.entity.c_str(),
                    setting.control.name.c_str(), static_cast<unsigned long long>(request.number()),
                    strerror(-result));
                return result;
            }
    return 0;
}

std::optional<int64_t> ControlPlan::valueOf(const std::string& entity, uint32_t id,
                                            uint64_t number) const {
    const Setting* latest = nullptr;
    for (const Setting& setting : mSettings) {
        const bool isInForce = setting.entity == entity && setting.control.id == id &&
                               setting.frame.value_or(0) <= number;
        if (isInForce &&
            (latest == nullptr || setting.frame.value_or(0) >= latest->frame.value_or(0)))
            latest = &setting;
    }
    return latest != nullptr ? std::optional(latest->value) : std::nullopt;
}

}  // namespace NSVista::NSCorvane::tools
