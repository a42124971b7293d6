// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The option --version.
 */
#pragma once

#include <CLI/CLI.hpp>

namespace NSVista::NSCorvane::tools {

/** Ends the parsing with CLI::CallForVersion, a CLI::Success. */
inline void addVersion(CLI::App& app) {
    app.set_version_flag("--version", app.get_name() + " " CORVANE_VERSION);
}

}  // namespace NSVista::NSCorvane::tools
