// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>

#include "Format.h"
#include "TraceBackend.h"

namespace NSVista::NSCorvane::trace {

namespace {

/** Writes the text protocol of Android's tracing into the kernel's trace marker. */
class MarkerBackend final : public Backend {
public:
    explicit MarkerBackend(UniqueFd fd) : mFd(std::move(fd)) {}

    void event(Kind kind, const char* name, int32_t value) override;
    /** The kernel knows its threads' names. */
    void nameThread(const char* /*name*/) override {}
    void flush() override {}
    void finish() override {}

private:
    const UniqueFd mFd;
};

void MarkerBackend::event(Kind kind, const char* name, int32_t value) {
    const ErrnoKeeper keeper;
    constexpr int kNameMax = 900;  // leaves room for the number that follows
    char text[1024];
    int length = 0;
    const char letter = static_cast<char>(kind);
    switch (kind) {
        case Kind::Begin:
            length = snprintf(text, sizeof(text), "%c|%d|%.*s", letter, getpid(), kNameMax, name);
            break;
        case Kind::End:
            length = snprintf(text, sizeof(text), "%c|%d", letter, getpid());
            break;
        default:
            length = snprintf(text, sizeof(text), "%c|%d|%.*s|%d", letter, getpid(), kNameMax, name,
                              value);
            break;
    }
    // A line feed would end the event in the trace's text form.
    std::replace(text, text + std::max(length, 0), '\n', ' ');
    // One write is one event; one that the kernel does not take is lost.
    [[maybe_unused]] const ssize_t written =
        ::write(mFd.get(), text, static_cast<size_t>(std::max(length, 0)));
}

}  // namespace

constinit const char* const kDefaultTarget = "none";

Backend* makeMarkerBackend(UniqueFd fd) {
    return new MarkerBackend(std::move(fd));
}

Backend* openMarkerBackend(int& error) {
    static Backend* opened = nullptr;
    error = 0;
    if (opened != nullptr)
        return opened;
    for (const char* path :
         {"/sys/kernel/tracing/trace_marker", "/sys/kernel/debug/tracing/trace_marker"}) {
        UniqueFd fd(::open(path, O_WRONLY | O_CLOEXEC));
        if (fd) {
            error = 0;
            return opened = makeMarkerBackend(std::move(fd));
        }
        error = -errno;
    }
    return nullptr;
}

}  // namespace NSVista::NSCorvane::trace
