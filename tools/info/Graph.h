/**
 * @file
 * The topology as a graph.
 */
#pragma once

#include <string>
#include <vector>

#include "Devices.h"

namespace corvane::info {

/** The devices' graphs in graphviz's language. */
std::string makeGraph(const std::vector<Device>& devices);

/**
 * Draws a graph through graphviz's `dot`.
 * @param format "svg" or "png".
 * @param[out] picture the file's content.
 * @return 0; -ENOEXEC where graphviz is not installed, else the negated errno.
 */
int drawGraph(const std::string& graph, const char* format, std::string& picture);

}  // namespace corvane::info
