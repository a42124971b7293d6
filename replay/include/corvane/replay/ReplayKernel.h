// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A kernel that answers as a record tells.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>
#include <corvane/platform/System.h>
#include <corvane/replay/RecordReader.h>

namespace NSVista::NSCorvane::replay {

/**
 * Answers the calls of a record's client without its devices: every call gets the answer of the
 * same call in the record, as late as it came there, and requests complete in the record's order
 * and after its delays. So a failure happens again: a refused buffer, a call that hangs, a
 * completion that never comes, a frame with the error flag.
 *
 * The client need not run in the very same order: calls on different nodes and of different threads
 * find their answers by what they are made on; a request's by the buffers that it is queued with.
 * Descriptors get the numbers that they had where these are free. A call that the record does not
 * have is told as an error line with the nearest one of the record and where the two part, and gets
 * that one's answer, or fails. Descriptors and pointers are not compared, nor indexes of buffers.
 *
 * Descriptors are real ones. A request's shows EPOLLPRI from its completion to its
 * reinitialisation, a sub-device's while an event waits; video nodes cannot be polled, so buffers
 * outside of requests are there at once. Buffers that a driver exported are memory files. Pictures
 * are not in a record: captures stay as they were.
 *
 * Descriptors that are not the record's go on to the Linux kernel. Any thread.
 */
class CORVANE_EXPORT ReplayKernel : public System::Kernel {
public:
    /**
     * @param fast leaves delays of less than a second out; longer ones, which clients take for a
     *        failure, stay.
     * @param[out] problem why the record cannot be replayed.
     * @return null when it cannot.
     */
    static std::unique_ptr<ReplayKernel> make(Record record, bool fast, std::string& problem);
    ~ReplayKernel() override;
    ReplayKernel(const ReplayKernel&) = delete;
    ReplayKernel& operator=(const ReplayKernel&) = delete;

    /** Calls that differed so far, and calls of the record that were given up on. */
    uint64_t differences() const;
    /** Calls of the record that were not made yet, but for those that only asked again. */
    uint64_t callsLeft() const;
    /** The first call that was not made yet, as text; empty when all were. */
    std::string nextCall() const;
    /** Whether the record's client had its buffers from a video node. */
    bool hasExports() const;

    int open(const char* path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int openDir(const char* path, DIR** dir) override;
    int readDir(DIR* dir, struct dirent** entry) override;
    int closeDir(DIR* dir) override;
    int stat(const char* path, struct stat* info) override;
    int readLink(const char* path, char* buffer, size_t size) override;

private:
    class Play;
    explicit ReplayKernel(std::unique_ptr<Play> play);

    std::unique_ptr<Play> mPlay;
};

}  // namespace NSVista::NSCorvane::replay
