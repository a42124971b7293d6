// SPDX-License-Identifier: Apache-2.0
#include "RefusedOpen.h"

#include <corvane/platform/System.h>

#include <grp.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace NSVista::NSCorvane {

namespace {

std::string groupText(gid_t id) {
    char strings[1024];
    struct group entry = {};
    struct group* found = nullptr;
    if (getgrgid_r(id, &entry, strings, sizeof(strings), &found) != 0 || found == nullptr)
        return std::to_string(id);
    return found->gr_name;
}

}  // namespace

std::string refusedOpenCause(const std::string& path, int r) {
    if (r == -EBUSY)
        return path + " is in use and takes one user at a time";
    if (r != -EACCES && r != -EPERM)
        return {};
    struct stat info = {};
    if (System::Stat(path.c_str(), &info) < 0)
        return path + ": permission denied on the way to it";
    char mode[8];
    snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(info.st_mode & 07777));
    return path + ": permission denied: its group is " + groupText(info.st_gid) + ", its mode " +
           mode + "; the process must be in that group";
}

}  // namespace NSVista::NSCorvane
