// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Trace sections, asynchronous sections and counters.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include <corvane/platform/Export.h>
#include <corvane/platform/Gates.h>

namespace NSVista::NSCorvane::trace {

/** @private The enabled tags and trace bits; sections test what Gates makes of them. */
extern CORVANE_EXPORT std::atomic<uint64_t> gEnabledTags;
/** @private */
extern CORVANE_EXPORT std::atomic<uint64_t> gTraceBits;

}  // namespace NSVista::NSCorvane::trace

/** Tag bit of camera sections in the system's enabled tags. */
#define ATRACE_TAG_CAMERA (uint64_t{1} << 10)

/**
 * @name Trace backend
 * The backend is chosen by trace::start() or, at load, by the property
 * "persist.vendor.camera.corvane.trace" (what start() takes; default "none"). With none, a
 * section costs one integer test at each end. Any thread.
 * @{
 */
inline uint64_t atrace_get_enabled_tags() {
    return NSVista::NSCorvane::trace::gEnabledTags.load(std::memory_order_relaxed);
}
CORVANE_EXPORT void atrace_begin_body(const char* name);
CORVANE_EXPORT void atrace_end_body();
CORVANE_EXPORT void atrace_async_begin_body(const char* name, int32_t cookie);
CORVANE_EXPORT void atrace_async_end_body(const char* name, int32_t cookie);
CORVANE_EXPORT void atrace_int_body(const char* name, int32_t value);
/** @} */

namespace NSVista::NSCorvane {

/** Area bit of single driver calls that are made for their owner's own work. */
inline constexpr unsigned kTraceDriverCalls = 20;

/**
 * The library's trace bits: bit n enables area n. From the property
 * "persist.vendor.camera.corvane.tracebits" (default: all bits) until set.
 */
inline uint64_t get_corvane_enabled_tracebits() {
    return trace::gTraceBits.load(std::memory_order_relaxed);
}
/** Sets the trace bits. */
CORVANE_EXPORT void set_corvane_enabled_tracebits(uint64_t bits);

namespace trace {

/**
 * Starts tracing into a backend, ending the one before.
 *
 * Events for a file are put into buffers, one a thread and all made beforehand, and written by a
 * thread of the platform: an event takes no lock, no allocation and, but for a thread's first one
 * in a trace, no system call. What does not fit is counted, and told in the trace and in one
 * warning line at its end. The file is made with mode 0600 (no link is followed to it), complete
 * and valid after every piece that is written (256 kB), also on a full disk, and ends with a mark
 * at the property "persist.vendor.camera.corvane.tracelimit" (bytes; default 1 GiB).
 * @param target "none", "marker" (the kernel's trace marker, written by each thread itself) or the
 *        path of a file, written in the Chrome trace event format, which Perfetto's viewer opens;
 *        "%p" in it stands for the process id.
 * @return 0 or the negated errno, -EBUSY for a file that a living process traces into; on failure
 *         nothing is traced.
 */
CORVANE_EXPORT int start(const char* target);
/**
 * Ends tracing; a file is complete when this returns. A forked child does not trace into its
 * parent's file and cannot end its trace. The end of the process and a fatal error stop
 * as well. A section that is open then is closed in the file.
 */
CORVANE_EXPORT void stop();

}  // namespace trace

/**
 * Whether an area is traced now: the trace bits have its bit and the enabled tags the camera's.
 * @param bit the area's bit number.
 */
inline bool traceEnabled(unsigned bit) {
    return __builtin_expect(gGates.traced(bit), false);
}

/**
 * A section name that is formatted only when it is used. A name of 128 characters or more is
 * empty.
 */
class CORVANE_EXPORT TraceName {
public:
    explicit TraceName(const char* format, ...) __attribute__((format(printf, 2, 3)));
    const char* text() const { return mText; }

private:
    char mText[128];
};

/** A name that ends in a number, at a fraction of a format's cost; too long a one is empty as well.
 */
class CORVANE_EXPORT NumberedTraceName {
public:
    /** @param separator between the text and the number. */
    NumberedTraceName(std::string_view text, char separator, int number);
    const char* text() const { return mText; }

private:
    char mText[128];
};

/**
 * A section of the calling thread, from construction to destruction or end().
 *
 * Inlined also where the compiler thinks it too cold (unwinding): one call would put the object
 * into memory, and every section's end would read its area from there.
 */
class TraceSection {
public:
    [[gnu::always_inline]] TraceSection(unsigned bit, const char* name) : mBit(bit) {
        if (traceEnabled(bit))
            atrace_begin_body(name);
    }
    /** @param makeName returns a TraceName; called only when the area is traced. */
    template <class MakeName>
    requires requires(MakeName make) { make().text(); }
    [[gnu::always_inline]] TraceSection(unsigned bit, MakeName makeName) : mBit(bit) {
        if (traceEnabled(bit))
            atrace_begin_body(makeName().text());
    }
    [[gnu::always_inline]] ~TraceSection() { end(); }
    TraceSection(const TraceSection&) = delete;
    TraceSection& operator=(const TraceSection&) = delete;

    /** Ends the section early. */
    [[gnu::always_inline]] void end() {
        if (mOpen && traceEnabled(mBit))
            atrace_end_body();
        mOpen = false;
    }

private:
    unsigned mBit;
    bool mOpen = true;
};

}  // namespace NSVista::NSCorvane

/** A TraceSection name in printf form, formatted only when the area is traced. */
#define CORVANE_TRACE_NAME(...) [&] { return ::NSVista::NSCorvane::TraceName(__VA_ARGS__); }
