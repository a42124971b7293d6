// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/NoThrow.h>

#include <exception>

namespace NSVista::NSCorvane {

namespace {

[[noreturn]] void fatalException(const log::Site& site, const char* what) {
    log::fatal(site, "[%s] exception: %s", "[%s] exception: %s (%s){#%d:%s}", what);
}

}  // namespace

void endOnException(const log::Site& site) noexcept {
    try {
        throw;
    } catch (const std::exception& exception) {
        fatalException(site, exception.what());
    } catch (...) {
        fatalException(site, "of unknown type");
    }
}

}  // namespace NSVista::NSCorvane
