// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Faults in the virtual engine: calls that fail, calls that hang, and how often calls were made.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::sim {

/** The operations of System::Kernel, and BUFFER: a node's engine completes one, which can fail. */
enum class Operation { OPEN, CLOSE, IOCTL, OPEN_DIR, READ_DIR, CLOSE_DIR, STAT, READ_LINK, BUFFER };

/** Which calls a fault strikes or a count counts. */
struct CORVANE_EXPORT Call {
    Operation operation = Operation::IOCTL;
    uint32_t code = 0;  ///< request code of an ioctl, 0 for every one
    /**
     * Whom the call concerns, empty for everyone: an entity's name, a path as the call names it
     * ("/dev/media0"), or "request" for calls on a media request.
     */
    std::string subject = {};

    /** The ioctl @p code, also where it is kept in an int. */
    static Call ioctl(unsigned long code, std::string subject = {});
};

/** How long a fault lasts. */
enum class Repeat { ONCE, FOR_GOOD };

/**
 * The faults and call counts of one engine. Any thread. A call is counted, then meets the oldest
 * fault that is due for it, then is carried out.
 */
class CORVANE_EXPORT Faults {
public:
    Faults();
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    /**
     * Makes a call fail without any effect; only a close is carried out nevertheless, since a
     * descriptor is gone whatever its close returns.
     * @param error the errno, positive.
     * @param nth which of the matching calls from now on: 1 is the next one.
     * @return the fault's number, for remove().
     */
    int fail(const Call& call, int error, unsigned nth = 1, Repeat repeat = Repeat::ONCE);
    /** Makes the @p nth call from now hang until remove() or clear(), then go its normal way. */
    int hang(const Call& call, unsigned nth = 1);
    /**
     * Sets a fault up as the driver's own test side takes it: "qbuf -5 2 vengine-main", "streamon
     * hang", "reqbufs 1" (grants one buffer at most), "buffer -5" (the error flag); or "clear". The
     * words and the grammar are those of driver/shared/vengine-fault.h. A "request_reinit" strikes
     * one call.
     * @return 0, or -EINVAL for a line that the driver refuses.
     */
    int order(const std::string& line);
    /** The faults set up by order(), as the driver shows them: those armed, then those hung in. */
    std::string ordered() const;
    /** Waits until a call hangs in fault @p id. @return false when none does within @p limit. */
    bool waitUntilHung(int id, std::chrono::milliseconds limit) const;
    /** Takes a fault away; a call that hangs in it goes on. */
    void remove(int id);
    /** Takes all faults away. */
    void clear();

    /** Calls made so far that @p call describes, failed ones included. */
    uint64_t calls(const Call& call) const;

    /**
     * @private Passes one call.
     * @return 0, the negated errno that it fails with, or how many buffers it may grant.
     */
    int pass(Operation operation, uint32_t code, std::string_view name, std::string_view path);

private:
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace NSVista::NSCorvane::sim
