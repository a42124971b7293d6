// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the engine makes of the buffers of one job.
 */
#pragma once

#include "Request.h"

namespace NSVista::NSCorvane::sim {

/**
 * Reads the job's output buffers and writes its captures. Needs no lock: the engine has the
 * buffers, and a node that streams changes neither format nor mappings of them.
 * @return false when the tuning is refused; the captures are untouched then.
 */
bool render(const Job& job);

}  // namespace NSVista::NSCorvane::sim
