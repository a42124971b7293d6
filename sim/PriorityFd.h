// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A descriptor that polls as priority data.
 */
#pragma once

#include <corvane/platform/UniqueFd.h>

namespace NSVista::NSCorvane::sim {

/**
 * A descriptor for a client that shows EPOLLPRI while it is raised: one end of a local socket pair
 * on which a byte of out-of-band data waits. Not thread-safe; its owner's lock guards it.
 */
class PriorityFd {
public:
    /**
     * Makes the pair.
     * @param firstNumber the least number that descriptors other than the client's may have.
     * @return the client's descriptor, which the caller owns, or -errno.
     */
    int open(bool nonBlocking, int firstNumber = 0);
    /** Lets go of the pair, after which raise() and lower() do nothing. */
    void close();
    void raise();
    void lower();
    /** Shows EPOLLIN until as many takeData() have come. Not together with raise(). */
    void addData();
    void takeData();

private:
    UniqueFd mSender;
    /** A duplicate of the client's end: data can only be taken back where it arrives. */
    UniqueFd mReceiver;
    bool mRaised = false;
};

}  // namespace NSVista::NSCorvane::sim
