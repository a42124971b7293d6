// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * JSON for machines.
 */
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace NSVista::NSCorvane::tools {

/** Fields stay in the order in which they are set. */
using Json = nlohmann::ordered_json;

/** In one line. What is no UTF-8, as a driver's texts may be, is replaced. */
inline std::string jsonText(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace NSVista::NSCorvane::tools
