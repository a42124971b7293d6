// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Connectors of video nodes and formats of pads, in a description's text.
 */
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include <corvane/sim/Description.h>

#include "JsonPlace.h"

namespace NSVista::NSCorvane::sim {

/** Names that a video node's place has of these. */
inline constexpr const char* kInputs = "inputs";
inline constexpr const char* kOutputs = "outputs";
inline constexpr const char* kStandard = "standard";
inline constexpr const char* kTimings = "timings";
inline constexpr const char* kTimingsOffered = "timingsOffered";

/** Reads them from a video node's place. */
SignalDesc readSignal(const JsonPlace& video);
/** Adds what there is to a video node. */
void writeSignal(const SignalDesc& signal, nlohmann::ordered_json& video);

/** @param count of the entity's pads. */
std::vector<PadDesc> readPads(const JsonPlace& list, size_t count);
nlohmann::ordered_json writePads(const std::vector<PadDesc>& pads);

}  // namespace NSVista::NSCorvane::sim
