// SPDX-License-Identifier: Apache-2.0
#include "Watch.h"

#include <corvane/V4L2.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/UniqueFd.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace NSVista::NSCorvane::tools {

namespace {

using Devices = std::map<std::string, std::string>;  ///< model by path

volatile sig_atomic_t sIsOver = 0;

Devices findAll() {
    Devices devices;
    mc::enumerateMediaDevices([&devices](const media_device_info& info, const std::string& path) {
        devices.emplace(path, v4l2::fixedText(info.model));
        return false;
    });
    return devices;
}

void tell(const Devices& devices, const Devices& others, const char* what) {
    for (const auto& [path, model] : devices) {
        const auto other = others.find(path);
        if (other == others.end() || other->second != model)
            printf("%s %s %s\n", what, path.c_str(), model.c_str());
    }
}

}  // namespace

ExitCode watchDevices() {
    struct sigaction action {};
    action.sa_handler = [](int) { sIsOver = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    const UniqueFd changes(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    // A node may be opened only once its rights are set, hence IN_ATTRIB.
    if (!changes || inotify_add_watch(changes.get(), "/dev", IN_CREATE | IN_DELETE | IN_ATTRIB) < 0)
        return complain(kRunFailed, "/dev cannot be watched: %s", strerror(errno));
    Devices known;
    while (sIsOver == 0) {
        const Devices now = findAll();
        tell(known, now, "gone ");
        tell(now, known, "there");
        if (finishOutput(kSuccess) != kSuccess)
            return kRunFailed;
        known = now;
        pollfd watched{changes.get(), POLLIN, 0};
        poll(&watched, 1, -1);
        char ignored[4096];
        while (read(changes.get(), ignored, sizeof(ignored)) > 0) {
        }
    }
    return kSuccess;
}

}  // namespace NSVista::NSCorvane::tools
