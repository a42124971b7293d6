// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Mutex.h>

#if defined(CORVANE_CHECK_RELOCK)

#include <corvane/platform/Log.h>

CORVANE_LOG_UNIT("corvane-Mutex")

namespace NSVista::NSCorvane {

void LockOwner::endOnRelock() {
    CORVANE_FATAL(
        "A thread locks again what it holds: a handler calls what its caller has locked?");
}

}  // namespace NSVista::NSCorvane

#endif
