// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The controls that a run sets, at once or with its requests.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <corvane/client/Controls.h>
#include <corvane/client/SessionRequest.h>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

/** "[ENTITY:]CONTROL=VALUE[@FRAME]". */
struct ControlWish {
    std::string entity;  ///< empty: every port that has the control
    std::string control;
    int64_t value;
    std::optional<uint64_t> frame;  ///< number of the request that carries it; none: at once

    /** @return nothing for a text that is no wish. */
    static std::optional<ControlWish> parse(const std::string& text);
};

class ControlPlan {
public:
    /** Learns what a control stands at on each port that has it: a driver keeps it over runs. */
    void learn(uint32_t id, const std::vector<NodePort>& ports);
    /**
     * Finds the controls and sets those that are for at once.
     * @return false, with a line on stderr, for a wish that no port can fulfil.
     */
    bool prepare(const std::vector<ControlWish>& wishes, const std::vector<NodePort>& ports);
    /** Gives an idle request its controls. @return 0 or the negated errno of the first refusal. */
    int apply(const client::SessionRequest& request);
    /** What a port's control @p id is for a request, if learnt or set by the plan. */
    std::optional<int64_t> valueOf(const std::string& entity, uint32_t id, uint64_t number) const;

private:
    struct Setting {
        std::string entity;
        client::ControlNode* node;
        client::Control control;
        int64_t value;
        std::optional<uint64_t> frame;
    };
    bool add(const ControlWish& wish, const NodePort& port);

    std::vector<std::unique_ptr<client::ControlNode>> mNodes;
    std::vector<Setting> mSettings;
};

}  // namespace NSVista::NSCorvane::tools
