// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Traces through libcutils, which knows when the system traces. Our own header of traces has
 * functions of the same names and stays out of here.
 */
#define ATRACE_TAG ATRACE_TAG_CAMERA
#include <cutils/trace.h>

#include "TraceBackend.h"

namespace NSVista::NSCorvane::trace {

namespace {

class SystemBackend final : public Backend {
public:
    void event(Kind kind, const char* name, int32_t value) override {
        switch (kind) {
            case Kind::Begin:
                return atrace_begin(ATRACE_TAG, name);
            case Kind::End:
                return atrace_end(ATRACE_TAG);
            case Kind::AsyncBegin:
                return atrace_async_begin(ATRACE_TAG, name, value);
            case Kind::AsyncEnd:
                return atrace_async_end(ATRACE_TAG, name, value);
            case Kind::Counter:
                return atrace_int(ATRACE_TAG, name, value);
        }
    }
    /** The kernel knows its threads' names. */
    void nameThread(const char* /*name*/) override {}
    void flush() override {}
    void finish() override {}
};

}  // namespace

/** The system's traces begin and end without us: each event asks whether one runs. */
constinit const char* const kDefaultTarget = "marker";

Backend* openMarkerBackend(int& error) {
    static SystemBackend backend;
    error = 0;
    return &backend;
}

}  // namespace NSVista::NSCorvane::trace
