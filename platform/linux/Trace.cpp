#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/Trace.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Format.h"
#include "TraceBackend.h"

CORVANE_LOG_UNIT("corvane-Trace")

namespace NSVista::NSCorvane::trace {

constinit std::atomic<uint64_t> gEnabledTags{0};
constinit std::atomic<uint64_t> gTraceBits{~uint64_t{0}};

namespace {

/** Holds the running backend. Never destroyed: threads trace until the very end of the process. */
struct Running {
    Mutex lock;
    std::shared_ptr<Backend> backend CORVANE_GUARDED_BY(lock);

    static Running& instance() {
        static auto* const running = new Running;
        return *running;
    }
};

std::shared_ptr<Backend> backend() {
    if (gEnabledTags.load(std::memory_order_relaxed) == 0)
        return nullptr;
    MutexLock lock(Running::instance().lock);
    return Running::instance().backend;
}

/** Puts a backend (or none) in place of the one before, which is then completed. */
void replaceBackend(std::shared_ptr<Backend> next) {
    {
        MutexLock lock(Running::instance().lock);
        gEnabledTags.store(next ? ATRACE_TAG_CAMERA : 0, std::memory_order_relaxed);
        Running::instance().backend.swap(next);
    }
    Gates::update();
    if (next)
        next->finish();
}

void emit(Kind kind, const char* name, int32_t value) {
    const auto running = backend();
    if (!running)
        return;
    const ErrnoKeeper keeper;
    running->event(kind, name != nullptr ? name : "", value);
}

std::shared_ptr<Backend> makeBackend(const char* target, int& error) {
    return strcmp(target, "marker") == 0 ? openMarkerBackend(error)
                                         : makeFileBackend(target, error);
}

/** Takes the configured trace bits and backend. */
bool loadState() {
    // An int32 of -1 stands for all 64 bits.
    gTraceBits = static_cast<uint64_t>(int64_t{
        Utils::Properties::property_get_int32("persist.vendor.camera.corvane.tracebits", -1)});
    char target[Utils::Properties::kValueMax] = {};
    Utils::Properties::property_get("persist.vendor.camera.corvane.trace", target, "none");
    if (const int result = start(target); result != 0)
        CORVANE_LOGE("Failed to trace into %s: %d", target, result);
    return true;
}

[[maybe_unused]] const bool gStateLoaded = loadState();

}  // namespace

int start(const char* target) {
    stop();
    if (target == nullptr || *target == '\0' || strcmp(target, "none") == 0)
        return 0;
    int error = 0;
    auto next = makeBackend(target, error);
    if (!next)
        return error;
    [[maybe_unused]] static const int registered = std::atexit([] { stop(); });
    replaceBackend(std::move(next));
    return 0;
}

void stop() {
    replaceBackend(nullptr);
}

void nameThread(const char* name) {
    if (const auto running = backend())
        running->nameThread(name);
}

void flush() {
    if (const auto running = backend())
        running->flush();
}

}  // namespace NSVista::NSCorvane::trace

namespace trace = NSVista::NSCorvane::trace;

void atrace_begin_body(const char* name) {
    trace::emit(trace::Kind::Begin, name, 0);
}

void atrace_end_body() {
    trace::emit(trace::Kind::End, "", 0);
}

void atrace_async_begin_body(const char* name, int32_t cookie) {
    trace::emit(trace::Kind::AsyncBegin, name, cookie);
}

void atrace_async_end_body(const char* name, int32_t cookie) {
    trace::emit(trace::Kind::AsyncEnd, name, cookie);
}

void atrace_int_body(const char* name, int32_t value) {
    trace::emit(trace::Kind::Counter, name, value);
}

namespace NSVista::NSCorvane {

void set_corvane_enabled_tracebits(uint64_t bits) {
    trace::gTraceBits.store(bits, std::memory_order_relaxed);
    Gates::update();
}

}  // namespace NSVista::NSCorvane
