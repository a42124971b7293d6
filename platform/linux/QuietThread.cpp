// SPDX-License-Identifier: Apache-2.0
#include "QuietThread.h"

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <utility>

namespace NSVista::NSCorvane {

std::thread startQuietThread(const char* name, std::function<void()> body) noexcept {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread started;
    try {
        started = std::thread([name, body = std::move(body)] {
            pthread_setname_np(pthread_self(), name);
            body();
        });
    } catch (const std::exception&) {
        // No thread, or no memory for one: the caller sees that none runs.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

}  // namespace NSVista::NSCorvane
