// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Descriptions of devices as text: what `corvane-info --capture` writes and `--sim=FILE` reads.
 *
 * The text is JSON; docs/capture.md tells its fields, docs/capture.schema.json their rules.
 */
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <corvane/platform/Export.h>
#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/** Version of the text that is written; those above are refused. */
inline constexpr int kDescriptionVersion = 2;

/**
 * Reads a description. Whatever the text holds, either a device that Engine::addDevice() takes
 * comes of it (names and numbers of nodes that another device has apart) or an error. Any thread.
 *
 * The nodes of the virtual engine's own description get their parts in its pictures; every other
 * node is a plain one, with kPlainRole.
 * @param[out] error names the place, such as `entities[3].pads[1].links[0].pad: ...`; on failure.
 */
CORVANE_EXPORT std::optional<DeviceDesc> readDescription(std::string_view text, std::string& error);

/**
 * Writes a description. What it leaves to the engine, such as formats that are not given, is
 * written as the engine fills it in. Any thread.
 */
CORVANE_EXPORT std::string writeDescription(const DeviceDesc& device);

}  // namespace NSVista::NSCorvane::sim
