// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Printer.h>
#include <corvane/platform/System.h>
#include <corvane/platform/UniqueFd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/FakeKernel.h"

using namespace NSVista::NSCorvane;

namespace {
thread_local bool tInterrupted = false;  ///< the next close() of the thread is
}

/** Stands for the C library's, whose EINTR only file systems over a network give. */
extern "C" __attribute__((visibility("default"))) int close(int fd) {
    const int result = static_cast<int>(syscall(SYS_close, fd));
    if (!std::exchange(tInterrupted, false))
        return result;
    errno = EINTR;
    return -1;
}

namespace {

TEST(System, AccountsDescriptorsUntilTheyAreClosed) {
    test::FakeKernel kernel;
    kernel.openResults = {{"/dev/video7", 901}, {"/dev/video8", -ENODEV}, {"/dev/video9", 901}};
    EXPECT_EQ(System::Open("/dev/video7", O_RDWR, 0x10), 901);
    kernel.on<int>(MEDIA_IOC_REQUEST_ALLOC, [](int, int& fd) { return fd = 900, 0; });
    EXPECT_EQ(System::AllocMediaRequest(5, 0x20), 900);
    EXPECT_EQ(System::Open("/dev/video8", O_RDWR, 0x10), -ENODEV);
    kernel.answer(MEDIA_IOC_REQUEST_ALLOC, -ENODEV);
    EXPECT_EQ(System::AllocMediaRequest(5, 0x20), -ENODEV);
    kernel.closeResult = -ENODEV;
    EXPECT_EQ(System::Close(901, 0x10), -ENODEV);

    const auto open = System::openFds();
    ASSERT_EQ(open.size(), 2U);
    EXPECT_EQ(open[0].path, "request");
    EXPECT_EQ(open[1].fd, 901);
    EXPECT_EQ(open[1].owner, 0x10U);
    char text[256] = {};
    FILE* const dump = fmemopen(text, sizeof(text), "w");
    NSVista::FilePrinter printer(dump);
    System::dumpState(&printer);
    fclose(dump);
    EXPECT_THAT(text,
                testing::MatchesRegex("fd=900 path=request owner=0x20 age=[0-9]{1,5} ms\n"
                                      "fd=901 path=/dev/video7 owner=0x10 age=[0-9]{1,5} ms\n"));

    // Closed behind the layer's back and given to another.
    EXPECT_EQ(System::Open("/dev/video9", O_RDWR, 0x30), 901);
    EXPECT_EQ(System::openFds()[1].owner, 0x30U);
    kernel.closeResult = 0;
    EXPECT_EQ(System::Close(900, 0x20), 0);
    EXPECT_EQ(System::Close(901, 0x10), 0);
    EXPECT_TRUE(System::openFds().empty());
}

TEST(System, ListsTheCallsThatAreUnderWay) {
    test::FakeKernel kernel;
    std::promise<void> gates[3];
    kernel.on<int>(VIDIOC_LOG_STATUS, [&](int fd, int&) {
        gates[fd].get_future().wait();
        return 0;
    });
    std::set<int> wanted;
    const auto listed = [] {
        std::set<int> fds;
        for (const System::CallUnderWay& call : System::callsUnderWay())
            fds.insert(call.fd);
        return fds;
    };
    std::thread threads[3];
    for (const int fd : {0, 1, 2}) {
        threads[fd] = std::thread([fd] {
            int value = 0;
            System::Ioctl(fd, static_cast<int>(VIDIOC_LOG_STATUS), &value, 0);
        });
        wanted.insert(fd);
        while (listed() != wanted)
            std::this_thread::yield();
    }
    for (const int fd : {1, 0, 2}) {
        gates[fd].set_value();
        threads[fd].join();
        wanted.erase(fd);
        EXPECT_EQ(listed(), wanted);
    }
}

TEST(System, HandsResultsAndErrnoOn) {
    test::FakeKernel kernel;
    struct {
        int (*call)();
        unsigned long request;
        int onEagain;
    } const cases[] = {
        {[] { return System::QueueMediaRequest(1); }, MEDIA_REQUEST_IOC_QUEUE, -EAGAIN},
        {[] { return System::ReinitMediaRequest(1); }, MEDIA_REQUEST_IOC_REINIT, -EAGAIN},
        {[] { return System::QueueVideoNodeBuf(1, nullptr); }, VIDIOC_QBUF, -EAGAIN},
        {[] { return System::DQueueVideoNodeBuf(1, nullptr); }, VIDIOC_DQBUF, 11},
        {[] { return System::DQueueEvent(1, nullptr); }, VIDIOC_DQEVENT, -EAGAIN},
        {[] { return System::AddIova(1, 0x77, nullptr); }, 0x77, -EAGAIN},
        // Widened without its sign.
        {[] { return System::Ioctl(1, static_cast<int>(0xC0586410U), nullptr, 3); }, 0xC0586410,
         -EAGAIN},
    };
    for (const auto& c : cases) {
        kernel.answer(c.request, -EAGAIN);
        errno = 0;
        EXPECT_EQ(c.call(), c.onEagain);
        EXPECT_EQ(errno, EAGAIN);
        kernel.answer(c.request, -EIO);
        EXPECT_EQ(c.call(), -EIO);
    }
}

TEST(System, OpensForThisProgramAloneAndClosesOnce) {
    const int fd = System::Open("/dev/null", O_RDWR, 1);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    tInterrupted = true;
    EXPECT_EQ(System::Close(fd, 1), 0);
    EXPECT_FALSE(tInterrupted);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(System::openFds().empty());
    EXPECT_EQ(System::Close(fd, 1), -EBADF);
}

TEST(System, OwnsTheDescriptorZeroLikeAnyOther) {
    const int saved = dup(STDIN_FILENO);
    UniqueFd(STDIN_FILENO).reset();
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(saved, STDIN_FILENO);
    close(saved);
}

TEST(System, TakesAHangUpForNoPriorityData) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[1]);
    EXPECT_FALSE(System::hasPriorityData(fds[0]));
    close(fds[0]);
}

TEST(System, RefusesNullAndEndsDirectoriesWithoutAnError) {
    EXPECT_EQ(System::Open(nullptr, O_RDWR, 0), -EFAULT);
    EXPECT_EQ(errno, EFAULT);
    char target[4] = "xxx";
    EXPECT_EQ(System::ReadLink("/proc/self/root", target, 1), 1);
    EXPECT_STREQ(target, "/xx");
    EXPECT_EQ(System::ReadLink("/proc", target, 2), -EINVAL);
    EXPECT_EQ(System::ReadLink("/proc/self/root", nullptr, 2), -EFAULT);
    struct stat info {};
    EXPECT_EQ(System::Stat("/proc", &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(System::Stat("/", nullptr), -EFAULT);
    EXPECT_EQ(System::OpenDir(nullptr), nullptr);
    EXPECT_EQ(System::CloseDir(nullptr), -EBADF);
    auto* entry = reinterpret_cast<dirent*>(&info);
    EXPECT_EQ(System::linuxKernel().readDir(nullptr, &entry), -EBADF);
    EXPECT_EQ(entry, nullptr);
    DIR* const dir = System::OpenDir("/proc/self/fd");
    ASSERT_NE(dir, nullptr);
    errno = ENODEV;
    while (System::ReadDir(dir) != nullptr) {
    }
    EXPECT_EQ(errno, ENODEV) << "an end is no error";
    EXPECT_EQ(System::CloseDir(dir), 0);
}

TEST(System, RetriesWhatASignalInterrupts) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    const std::string fifo = testing::TempDir() + "corvane-fifo-" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    std::atomic<int> fd{0};
    std::thread reader([&] { fd = System::Open(fifo.c_str(), O_RDONLY, 1); });  // blocks
    for (int i = 0; i < 20; ++i) {
        usleep(1000);
        pthread_kill(reader.native_handle(), SIGUSR1);
    }
    EXPECT_EQ(fd, 0);
    const int writer = System::Open(fifo.c_str(), O_RDWR, 1);
    reader.join();
    unlink(fifo.c_str());
    EXPECT_EQ(System::Close(fd, 1), 0);
    EXPECT_EQ(System::Close(writer, 1), 0);
}

TEST(System, AccountsNumbersThatThreadsHandToEachOther) {
    std::vector<std::thread> threads;
    std::atomic<int> missing{0};
    for (unsigned long owner = 1; owner <= 4; ++owner) {
        threads.emplace_back([&missing, owner] {
            for (int i = 0; i < 300; ++i) {
                const int fd = System::Open("/dev/null", O_RDWR, owner);
                bool found = false;
                for (const auto& entry : System::openFds())
                    found |= entry.fd == fd && entry.owner == owner;
                missing += found ? 0 : 1;
                System::Close(fd, owner);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(missing, 0);
    EXPECT_TRUE(System::openFds().empty());
}

}  // namespace
