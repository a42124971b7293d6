// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Names of files that processes inherit from each other.
 */
#pragma once

#include <unistd.h>

#include <string>

namespace NSVista::NSCorvane {

/** "%p" is the process id: a child that inherits the name writes a file of its own. */
inline std::string filePath(const char* pattern) {
    std::string path(pattern);
    for (size_t at = 0; (at = path.find("%p", at)) != std::string::npos;)
        path.replace(at, 2, std::to_string(getpid()));
    return path;
}

}  // namespace NSVista::NSCorvane
