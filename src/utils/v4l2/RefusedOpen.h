// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Why a device node could not be opened.
 */
#pragma once

#include <string>

namespace NSVista::NSCorvane {

/**
 * The likely cause of a refused open, in words for who has to mend it.
 * @param r the negated errno of the open.
 * @return empty where the error says it all.
 */
std::string refusedOpenCause(const std::string& path, int r);

}  // namespace NSVista::NSCorvane
