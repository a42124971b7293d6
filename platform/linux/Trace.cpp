// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Log.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Trace.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "FilePattern.h"
#include "Format.h"
#include "PropertyText.h"
#include "TraceBackend.h"

CORVANE_LOG_UNIT("corvane-Trace")

namespace NSVista::NSCorvane::trace {

constinit std::atomic<uint64_t> gEnabledTags{0};
constinit std::atomic<uint64_t> gTraceBits{~uint64_t{0}};

namespace {

constinit Mutex gLock;  ///< one start or stop at a time
constinit std::atomic<Backend*> gBackend{nullptr};
std::atomic<int> gOwner{0};  ///< the process that started it; a forked child leaves it alone

Backend* running() {
    return gBackend.load(std::memory_order_acquire);
}

void enable(bool on) {
    gEnabledTags.store(on ? ATRACE_TAG_CAMERA : 0, std::memory_order_relaxed);
    Gates::update();
}

void emit(Kind kind, const char* name, int32_t value) {
    if (Backend* const backend = running())
        backend->event(kind, name != nullptr ? name : "", value);
}

void stopLocked() CORVANE_REQUIRES(gLock) {
    enable(false);
    if (Backend* const backend = gBackend.exchange(nullptr, std::memory_order_acq_rel))
        backend->finish();
}

/** Takes the configured trace bits and backend. */
bool loadState() {
    set_corvane_enabled_tracebits(Utils::Properties::property_get_uint64(
        "persist.vendor.camera.corvane.tracebits", ~uint64_t{0}));
    const std::string target =
        Utils::Properties::propertyText("persist.vendor.camera.corvane.trace", kDefaultTarget);
    if (const int result = start(target.c_str()); result != 0)
        CORVANE_LOGE("Failed to trace into %s: %d(%s)", target.c_str(), result, strerror(-result));
    return true;
}

[[maybe_unused]] const bool gStateLoaded = loadState();

}  // namespace

int start(const char* target) try {
    const MutexLock lock(gLock);
    stopLocked();
    if (target == nullptr || *target == '\0' || strcmp(target, "none") == 0)
        return 0;
    int error = 0;
    Backend* const next = strcmp(target, "marker") == 0
                              ? openMarkerBackend(error)
                              : startFileBackend(filePath(target).c_str(), error);
    if (next == nullptr)
        return error;
    [[maybe_unused]] static const int registered = std::atexit([] { stop(); });
    gOwner = getpid();
    gBackend.store(next, std::memory_order_release);
    enable(true);
    return 0;
}
CORVANE_NO_THROW

void stop() {
    // A forked child may have been made while another thread held the lock.
    if (gOwner != getpid())
        return;
    const MutexLock lock(gLock);
    stopLocked();
}

void disable() {
    enable(false);
}

void nameThread(const char* name) {
    if (Backend* const backend = running())
        backend->nameThread(name);
}

void flush() {
    if (Backend* const backend = running())
        backend->flush();
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

TraceName::TraceName(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = formatPlain(mText, sizeof(mText), format, args);
    va_end(args);
    if (length < 0 || length >= static_cast<int>(sizeof(mText)))
        mText[0] = '\0';
}

NumberedTraceName::NumberedTraceName(std::string_view text, char separator, int number) {
    // Room for the separator, ten digits, a sign and the zero.
    constexpr size_t kTail = 13;
    mText[0] = '\0';
    if (text.size() > sizeof(mText) - kTail)
        return;
    memcpy(mText, text.data(), text.size());
    mText[text.size()] = separator;
    *std::to_chars(mText + text.size() + 1, std::end(mText) - 1, number).ptr = '\0';
}

void set_corvane_enabled_tracebits(uint64_t bits) {
    trace::gTraceBits.store(bits, std::memory_order_relaxed);
    Gates::update();
}

}  // namespace NSVista::NSCorvane
