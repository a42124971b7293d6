// SPDX-License-Identifier: Apache-2.0
// Faults on purpose: by the line that both engines take, and what only the process's can do.
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "Bench.h"
#include "vengine-fault.h"

namespace NSVista::NSCorvane::test {

namespace {

using namespace std::chrono_literals;
using FaultTest = EngineTest;
using FaultInProcess = ProcessTest;
using sim::Call;
using sim::Operation;

// clang-format off
const char* const kRefused[] = {
    "", "qbuf", "qbuf 1", "qbuf 0", "qbuf -5 0", "qbuf -5 -1", "qbuf -5 1x", "qbuf -0x5", "qbuf - 1",
    "qbuf --5", "qbuf -4096", "qbuf -5 4294967297", "qbuf -5 vengine-main", "qbuf -5 1 vengine-mai",
    "qbuf -5 1 vengine-main-and-far-too-long-to-be-one", "qbuf -5 1 vengine-subdev",
    "qbuf -5 1 vengine-main 2", "qbuf hangs", "nothing -5", "QBUF -5", "buffer hang", "buffer -12",
    "reqbufs 33", "request_alloc -5", "request_reinit hang", "setup_link -5 1 vengine-main",
    "request_queue -5 1 vengine-subdev", "add_kva -5 1 vengine-main", "clear all"};
// clang-format on

TEST_F(FaultTest, LinesAreTakenOrRefusedWhole) {
    for (const char* line : kRefused)
        EXPECT_FALSE(bench.fault(line)) << line;
    EXPECT_EQ(bench.faults(), "");
    EXPECT_TRUE(bench.fault("qbuf -4095 999999999 vengine-mask"));
    EXPECT_TRUE(bench.fault(" reqbufs\t32 "));
    EXPECT_TRUE(bench.fault("dqevent hang 2 vengine-subdev"));
    EXPECT_EQ(bench.faults(),
              "qbuf -4095 999999999 vengine-mask\nreqbufs 32 1 \ndqevent hang 2 vengine-subdev\n");
    EXPECT_TRUE(bench.fault("clear"));
    EXPECT_EQ(bench.faults(), "");
}

TEST_F(FaultTest, EveryWordStrikesItsOperation) {
    const Fd node(vengine_ports[kGrey].name), sub(VENGINE_SUBDEV_ENTITY),
        request = newRequest(media);
    for (const vengine_fault_word& word : vengine_fault_words) {
        if (word.code == 0 || word.code == MEDIA_REQUEST_IOC_REINIT)
            continue;  // not the next call's to show
        const int error = word.code == MEDIA_IOC_REQUEST_ALLOC ? -ENOMEM : -EREMOTEIO;
        ASSERT_TRUE(bench.fault(std::string(word.word) + ' ' + std::to_string(error)));
        const auto op = &word - vengine_fault_words;
        const int fd = op < VENGINE_OP_REQUEST_ALLOC          ? node
                       : word.code == MEDIA_REQUEST_IOC_QUEUE ? request
                       : op < VENGINE_OP_SUBSCRIBE_EVENT      ? media
                                                              : sub;
        // The type of buffer or event stands in one of the first words, whatever the record is.
        const uint32_t type = fd == sub ? V4L2_EVENT_FRAME_SYNC : vengine_ports[kGrey].buf_type;
        uint32_t record[128] = {type, type};
        const int result = word.code == MEDIA_IOC_SETUP_LINK
                               ? setLink(media, kGrey, MEDIA_LNK_FL_ENABLED)
                               : call(fd, word.code, record);
        EXPECT_EQ(result, error) << word.word;
        EXPECT_EQ(bench.faults(), "") << word.word;
    }
}

TEST_F(FaultTest, StrikesTheCallItIsSetFor) {
    Port &main = add(kMain), &grey = add(kGrey);
    ASSERT_TRUE(bench.fault("reqbufs -12 2 vengine-main"));
    EXPECT_EQ(main.requestBuffers(2), 2);
    EXPECT_EQ(grey.requestBuffers(2), 2) << "is not counted";
    EXPECT_EQ(bench.faults(), "reqbufs -12 1 vengine-main\n");
    ASSERT_TRUE(bench.fault("reqbufs 1"));
    ASSERT_TRUE(bench.fault("reqbufs -5"));
    EXPECT_EQ(main.requestBuffers(2), -ENOMEM) << "the oldest of those that are due";
    EXPECT_EQ(main.requestBuffers(2), 1) << "granted short";
    EXPECT_EQ(grey.requestBuffers(2), -EIO);
    EXPECT_EQ(grey.requestBuffers(2), 2);

    ASSERT_TRUE(bench.fault("reqbufs -12") && bench.fault("reqbufs -5 2"));
    EXPECT_EQ(grey.requestBuffers(2), -ENOMEM);
    EXPECT_EQ(grey.requestBuffers(2), -EIO) << "a call that another fault strikes counts";

    Port& negative = start(kNegative);
    ASSERT_TRUE(bench.fault("request_reinit -16"));
    const Fd request = submitNew({&negative}, 0);
    ASSERT_TRUE(done(request));
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), -EBUSY);
    ASSERT_TRUE(bench.fault("clear"));
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    ASSERT_TRUE(bench.fault("qbuf -14 1 vengine-negative"));
    EXPECT_EQ(negative.queue(1, request), -EFAULT);
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_QUEUE), -ENOENT) << "nothing was done";
}

TEST_F(FaultTest, HungCallsGoOnWhenReleased) {
    Port &main = add(kMain), &grey = start(kGrey);
    const Fd sub(VENGINE_SUBDEV_ENTITY), request = newRequest(media);
    bench.takeRecord();
    ASSERT_TRUE(bench.fault("aloc_buf hang"));
    ASSERT_TRUE(bench.fault("streamon hang 1 vengine-main"));
    kvxdip_memory flags = {};
    auto memory =
        std::async(std::launch::async, [&] { return call(sub, KVXDIP_IOC_ALOC_BUF, &flags); });
    auto stream = std::async(std::launch::async, [&] { return main.stream(true); });
    const auto limit = std::chrono::steady_clock::now() + 20s;
    auto hung = [&](const char* line) { return bench.faults().find(line) != std::string::npos; };
    while (!hung("aloc_buf hangs \n") || !hung("streamon hangs vengine-main\n")) {
        ASSERT_LT(std::chrono::steady_clock::now(), limit) << bench.faults();
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(grey.queue(0, request), 0) << "not serialised";
    auto queued =
        std::async(std::launch::async, [&] { return call(request, MEDIA_REQUEST_IOC_QUEUE); });
    EXPECT_EQ(queued.wait_for(30ms), std::future_status::timeout) << "waits for the stream-on";
    EXPECT_EQ(memory.wait_for(0ms), std::future_status::timeout);
    EXPECT_EQ(setControl(sub, 0), 0) << "others are served";
    ASSERT_TRUE(bench.fault("clear"));
    EXPECT_EQ(memory.get(), 0);
    EXPECT_EQ(stream.get(), 0);
    EXPECT_EQ(queued.get(), 0);
    EXPECT_TRUE(done(request));
    EXPECT_EQ(bench.takeRecord(), "aloc_buf 0000\nset_control 0100000000000000\n");
}

TEST_F(FaultInProcess, StrikesAnyCallOfTheKernel) {
    System::Kernel& kernel = bench.kernel();
    sim::Faults& faults = bench.engine().faults();
    const Fd request = newRequest(media);
    const uint64_t before = faults.calls(Call::ioctl(0, "request"));
    const int id = faults.fail(Call::ioctl(0, "request"), EIO, 2, sim::Repeat::FOR_GOOD);
    for (int expected : {0, -EIO, -EIO})
        EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), expected);
    faults.remove(id);
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    EXPECT_EQ(faults.calls(Call::ioctl(0, "request")) - before, 4u);
    EXPECT_EQ(faults.calls(Call::ioctl(MEDIA_REQUEST_IOC_QUEUE)), 0u);

    const std::string path = "/dev/media0";
    const int fd = kernel.open(path.c_str(), O_RDWR);
    const size_t open = bench.engine().openFiles();
    faults.fail({Operation::CLOSE, 0, path}, EIO);
    EXPECT_EQ(kernel.close(fd), -EIO);
    EXPECT_EQ(bench.engine().openFiles(), open - 1) << "the descriptor is gone";
    faults.fail({Operation::STAT, 0, path}, ENOENT);
    faults.fail({Operation::READ_LINK}, EIO);
    faults.fail({Operation::OPEN_DIR}, EMFILE);
    faults.fail({Operation::CLOSE_DIR}, EIO);
    struct stat info;
    char link[8];
    DIR* dir = nullptr;
    EXPECT_EQ(kernel.stat(path.c_str(), &info), -ENOENT);
    EXPECT_EQ(kernel.stat(path.c_str(), &info), 0);
    EXPECT_EQ(kernel.readLink("/sys/dev/char/81:0", link, sizeof(link)), -EIO);
    EXPECT_EQ(kernel.openDir("/dev", &dir), -EMFILE);
    EXPECT_EQ(errno, EMFILE);
    ASSERT_EQ(kernel.openDir("/dev", &dir), 0);
    EXPECT_EQ(kernel.closeDir(dir), -EIO);
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
