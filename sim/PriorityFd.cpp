// SPDX-License-Identifier: Apache-2.0
#include "PriorityFd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

namespace NSVista::NSCorvane::sim {

int PriorityFd::open(bool nonBlocking, int firstNumber) {
    int ends[2];
    int type = SOCK_STREAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
    if (socketpair(AF_UNIX, type, 0, ends) < 0)
        return -errno;
    UniqueFd client(ends[0]);
    mSender.reset(ends[1]);
    if (firstNumber != 0)
        mSender.reset(fcntl(ends[1], F_DUPFD_CLOEXEC, firstNumber));
    mReceiver.reset(fcntl(client.get(), F_DUPFD_CLOEXEC, firstNumber));
    return mSender && mReceiver ? client.release() : -errno;
}

void PriorityFd::close() {
    mReceiver.reset();
    mSender.reset();
}

void PriorityFd::raise() {
    if (!mSender || mRaised)
        return;
    mRaised = send(mSender.get(), "!", 1, MSG_OOB | MSG_DONTWAIT | MSG_NOSIGNAL) == 1;
}

void PriorityFd::lower() {
    if (!mSender || !mRaised)
        return;
    char byte;
    recv(mReceiver.get(), &byte, 1, MSG_OOB | MSG_DONTWAIT);
    // Older kernels leave the emptied message in the queue until an ordinary read passes it.
    recv(mReceiver.get(), &byte, 1, MSG_DONTWAIT);
    mRaised = false;
}

void PriorityFd::addData() {
    if (mSender)
        send(mSender.get(), "!", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void PriorityFd::takeData() {
    char byte;
    if (mReceiver)
        recv(mReceiver.get(), &byte, 1, MSG_DONTWAIT);
}

}  // namespace NSVista::NSCorvane::sim
