// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Threads of the platform's own.
 */
#pragma once

#include <functional>
#include <thread>

namespace NSVista::NSCorvane {

/**
 * Starts a thread that takes no signals: the host's handlers run on the host's threads, and a write
 * that the system refuses fails instead of ending the process.
 * @param name at most 15 characters.
 * @return a thread that is not joinable when the system has none to give.
 */
std::thread startQuietThread(const char* name, std::function<void()> body) noexcept;

}  // namespace NSVista::NSCorvane
