// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Where trace events go.
 */
#pragma once

#include <cstdint>

#include <corvane/platform/UniqueFd.h>

namespace NSVista::NSCorvane::trace {

/** Kinds of events; the values are the letters of the kernel marker's text protocol. */
enum class Kind : char {
    Begin = 'B',
    End = 'E',
    AsyncBegin = 'S',
    AsyncEnd = 'F',
    Counter = 'C',
};

/** A way to trace. Never destroyed: a thread may be inside event() while tracing stops. Any thread.
 */
class Backend {
public:
    /**
     * Takes one event of the calling thread.
     * @param name empty for Kind::End.
     * @param value the cookie or the counter's value; 0 for sections.
     */
    virtual void event(Kind kind, const char* name, int32_t value) = 0;
    /** The calling thread has a new name. */
    virtual void nameThread(const char* name) = 0;
    /** What was taken so far survives the process. */
    virtual void flush() = 0;
    /** The trace is complete; later events are dropped. */
    virtual void finish() = 0;

protected:
    ~Backend() = default;
};

/**
 * Begins a trace file. One at a time.
 * @param[out] error 0 or the negated errno.
 * @return null on failure.
 */
Backend* startFileBackend(const char* path, int& error);
Backend* openMarkerBackend(int& error);
/** Where to trace when nothing is configured. */
extern const char* const kDefaultTarget;
/** @param fd a marker. */
Backend* makeMarkerBackend(UniqueFd fd);

/** The calling thread has a new name. */
void nameThread(const char* name);
/** Makes what was traced so far survive the process. */
void flush();
/** A trace ended by itself: sections are off until the next start. */
void disable();

}  // namespace NSVista::NSCorvane::trace
