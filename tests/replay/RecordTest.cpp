// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Record.h>
#include <corvane/platform/System.h>
#include <corvane/platform/UniqueFd.h>
#include <corvane/replay/Decode.h>
#include <corvane/replay/RecordReader.h>
#include <corvane/replay/Story.h>
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/Allocations.h"
#include "support/FakeKernel.h"
#include "support/Process.h"

using namespace NSVista::NSCorvane;
using namespace testing;

namespace {

class RecordTest : public testing::Test {
protected:
    ~RecordTest() override {
        record::stop();
        unlink(mPath.c_str());
    }
    /** Its calls as text, without what tells nodes apart. */
    static std::vector<std::string> textsOf(const replay::Record& record) {
        std::vector<std::string> texts;
        for (const replay::Call& call : record.calls)
            texts.push_back(replay::callText(call, record.machine));
        return texts;
    }

    const std::string mPath = testing::TempDir() + "corvane-record-" + std::to_string(getpid());
};

TEST_F(RecordTest, HoldsEveryCallOfWhicheverKernelIsInstalled) {
    const int next = open("/dev/null", O_RDONLY);
    close(next);
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    System::Open("/in the record before", O_RDONLY, 1);
    const int64_t begin = monotonicInNs();
    pthread_setname_np(pthread_self(), "recorded");
    ASSERT_EQ(record::start(mPath.c_str(), "a note of 17 char"), 0);
    EXPECT_EQ(open("/dev/null", O_RDONLY), next) << "descriptors are what they were";
    close(next);
    sim::VirtualEngine engine;
    {
        const sim::ScopedKernel installed(engine);
        const int fd = System::Open("/dev/video0", O_RDWR, 1);
        v4l2_requestbuffers request{2, V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_MEMORY_DMABUF, 0, 0, {}};
        EXPECT_EQ(System::Ioctl(fd, static_cast<int>(VIDIOC_REQBUFS), &request, 0), -EINVAL);
        EXPECT_EQ(errno, EINVAL);
        v4l2_ext_control control{};
        control.id = V4L2_CID_BRIGHTNESS;
        control.value = 77;
        v4l2_ext_controls list{};
        list.count = 1;
        list.controls = &control;
        System::Ioctl(fd, static_cast<int>(VIDIOC_S_EXT_CTRLS), &list, 0);
        list.count = 1U << 28;  // not believed
        System::Ioctl(fd, static_cast<int>(VIDIOC_S_EXT_CTRLS), &list, 0);
        v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        buffer.length = VIDEO_MAX_PLANES;
        buffer.m.planes = planes;
        System::Ioctl(fd, static_cast<int>(VIDIOC_QUERYBUF), &buffer, 0);
        pthread_key_t key;
        pthread_key_create(&key, [](void*) {  // runs when the thread has given its lane back
            record::flush();
            System::Open("/at the end", O_RDONLY, 1);
        });
        std::thread([&] {
            System::Close(fd, 1);
            pthread_setspecific(key, &key);
        }).join();
        pthread_key_delete(key);
        record::flush();
        std::thread([] { System::CloseDir(System::OpenDir("/sys/dev/char")); }).join();
        char link[256];
        System::ReadLink("/sys/dev/char/81:1", link, sizeof(link));
    }
    System::Open("/nonexistent", O_RDONLY, 1);
    record::stop();
    System::Open("/not recorded", O_RDONLY, 1);

    struct stat info {};
    stat(mPath.c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    const replay::Record record = replay::loadRecord(mPath);
    EXPECT_THAT(record.problems, IsEmpty());
    EXPECT_EQ(record.note, "a note of 17 char");
    EXPECT_NE(record.architecture, "");
    ASSERT_EQ(record.threads.size(), 4U);
    EXPECT_EQ(record.threads[0].tid, gettid());
    EXPECT_EQ(record.threads[0].name, "recorded");
    EXPECT_GT(record.calls.at(0).begin, begin);
    EXPECT_LT(record.calls.at(0).begin, monotonicInNs());
    EXPECT_THAT(textsOf(record),
                ElementsAre(HasSubstr(R"(open("/dev/video0", O_RDWR) = )"),
                            HasSubstr("count=2, type=VIDEO_CAPTURE, memory=DMABUF}) = -22 EINVAL"),
                            HasSubstr("controls=[{id=0x980900, value=77}]}) = 0 "),
                            HasSubstr("count=268435456"), HasSubstr("VIDIOC_QUERYBUF("),
                            HasSubstr("close("), HasSubstr("/at the end"),
                            HasSubstr(R"(opendir("/sys/dev/char") = 0)"), HasSubstr("closedir("),
                            HasSubstr(R"(video0")"),
                            HasSubstr(R"(open("/nonexistent", O_RDONLY) = -2 ENOENT)")));
    EXPECT_EQ(record.calls[4].piece(record::kArray, false).size(), sizeof(v4l2_plane[8]));
}

/** What a call carried besides its argument: kinds and sizes. */
std::vector<std::pair<uint32_t, size_t>> piecesOf(const std::vector<replay::Piece>& pieces) {
    std::vector<std::pair<uint32_t, size_t>> sizes;
    for (const replay::Piece& piece : pieces)
        if (piece.what != record::kArgument)
            sizes.emplace_back(piece.what, piece.bytes.size());
    return sizes;
}

TEST_F(RecordTest, HoldsWhatCallsGaveBesidesTheirArgument) {
    test::FakeKernel kernel;
    const UniqueFd exported(memfd_create("buffer", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(exported.get(), 100), 0);
    kernel.on<v4l2_exportbuffer>(VIDIOC_EXPBUF,
                                 [&](int, auto& buffer) { return buffer.fd = exported.get(), 0; });
    kernel.on<media_entity_desc>(MEDIA_IOC_ENUM_ENTITIES, [](int, auto& entity) {
        entity.pads = entity.id == 5 ? 2 : 0;
        entity.links = 1;
        return 0;
    });
    for (const auto code : {MEDIA_IOC_ENUM_LINKS, MEDIA_IOC_G_TOPOLOGY, VIDIOC_QBUF})
        kernel.answer(code, 0);
    kernel.on<v4l2_ext_controls>(VIDIOC_S_EXT_CTRLS, [](int, auto& list) {
        list.controls[1].value64 = 1;  // where the address was
        return 0;
    });
    kernel.directory = {"video7"};
    kernel.statResults["/none"] = -ENOENT;
    uint64_t memory[100] = {};
    const auto address = reinterpret_cast<uintptr_t>(memory);
    v4l2_exportbuffer exporting{};
    media_pad_desc pads[2] = {};
    media_link_desc link{};
    media_links_enum links{5, pads, &link, {}};
    std::vector<media_v2_entity> entities(4096);
    media_v2_topology graph{0, 1, 0, address, 2, 0, address, 3, 0, address, 4, 0, address};
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    buffer.length = 3;
    buffer.m.planes = reinterpret_cast<v4l2_plane*>(memory);
    const size_t page = static_cast<size_t>(getpagesize());
    void* const last = mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<char*>(last) + page, page, PROT_NONE);
    v4l2_ext_control controls[3] = {};
    controls[0].size = 7;  // a value of no address
    controls[1].size = 3;
    controls[1].ptr = memory;
    controls[2].size = 3;  // ends behind its memory
    controls[2].ptr = static_cast<char*>(last) + page - 2;
    v4l2_ext_controls list{};
    list.count = 3;
    list.controls = controls;
    struct stat device {};
    device.st_rdev = makedev(81, 7);
    const auto call = [](auto code, void* argument) {
        return System::Ioctl(3, static_cast<int>(code), argument, 0);
    };

    ASSERT_EQ(record::start(mPath.c_str()), 0);
    EXPECT_EQ(call(VIDIOC_EXPBUF, &exporting), 0);
    EXPECT_EQ(call(MEDIA_IOC_ENUM_LINKS, &links), 0);
    EXPECT_EQ(call(MEDIA_IOC_G_TOPOLOGY, &graph), 0);
    EXPECT_EQ(call(VIDIOC_QBUF, &buffer), 0);
    EXPECT_EQ(call(VIDIOC_S_EXT_CTRLS, &list), 0);
    EXPECT_EQ(System::Stat("/dev/video7", &device), 0);
    EXPECT_EQ(System::Stat("/none", &device), -ENOENT);
    DIR* const dir = System::OpenDir("/dev");
    while (System::ReadDir(dir) != nullptr) {
    }
    System::CloseDir(dir);
    kernel.answer(MEDIA_IOC_ENUM_ENTITIES, -EIO);
    errno = 0;
    EXPECT_EQ(call(MEDIA_IOC_ENUM_LINKS, &links), 0);
    EXPECT_EQ(errno, 0) << "that the recorder asks for more is not seen";
    buffer.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;  // no planes, whatever stands there
    EXPECT_EQ(call(VIDIOC_QBUF, &buffer), 0);
    graph.num_entities = graph.num_links = 4096;  // more than there is room for
    graph.ptr_entities = graph.ptr_links = reinterpret_cast<uintptr_t>(entities.data());
    EXPECT_EQ(call(MEDIA_IOC_G_TOPOLOGY, &graph), 0);
    kernel.on<int>(VIDIOC_LOG_STATUS, [](int, int&) { return record::stop(), 0; });
    call(VIDIOC_LOG_STATUS, memory);

    const replay::Record record = replay::loadRecord(mPath);
    EXPECT_EQ(record::status().lost, 1U);
    record::start(mPath.c_str());
    record::stop();
    EXPECT_THAT(replay::loadRecord(mPath).threads, IsEmpty()) << "the end is the last record's";
    ASSERT_EQ(record.calls.size(), 15U);
    const auto after = [&](size_t i) { return piecesOf(record.calls[i].after); };
    EXPECT_THAT(after(0), ElementsAre(Pair(record::kExportSize, 8U)));
    EXPECT_EQ(record.machine.read(record.calls[0].piece(record::kExportSize, true), 0, 8), 100U);
    EXPECT_THAT(after(1), ElementsAre(Pair(1, sizeof(pads)), Pair(2, sizeof(link))));
    EXPECT_THAT(
        after(2),
        ElementsAre(Pair(1, sizeof(media_v2_entity)), Pair(2, 2 * sizeof(media_v2_interface)),
                    Pair(3, 3 * sizeof(media_v2_pad)), Pair(4, 4 * sizeof(media_v2_link))));
    EXPECT_THAT(piecesOf(record.calls[3].before), ElementsAre(Pair(1, 3 * sizeof(v4l2_plane))));
    EXPECT_THAT(piecesOf(record.calls[4].before),
                ElementsAre(Pair(1, sizeof(controls)), Pair(3, 3U)));
    EXPECT_THAT(after(4), ElementsAre(Pair(1, sizeof(controls))));
    EXPECT_THAT(textsOf(record)[5], HasSubstr("= 0 {device 81:7}"));
    EXPECT_EQ(record.calls[5].handle, 0);
    EXPECT_THAT(textsOf(record)[6], HasSubstr("= -2 ENOENT"));
    EXPECT_EQ(record.calls[8].handle, record.calls[7].handle);
    EXPECT_EQ(record.calls[8].code, uint32_t{DT_CHR});
    EXPECT_EQ(record.calls[9].code + record.calls[10].code, 0U);
    EXPECT_TRUE(record.calls[11].returned);
    EXPECT_THAT(piecesOf(record.calls[12].before), IsEmpty());
    EXPECT_THAT(after(13), IsEmpty());
    EXPECT_TRUE(record.calls[13].returned && !record.calls[14].returned);
}

TEST_F(RecordTest, HoldsACallThatNeverReturnsAndWhatAKilledProcessLeaves) {
    const auto hangs = [this] {
        record::start(mPath.c_str());
        sim::VirtualEngine engine;
        const sim::ScopedKernel installed(engine);
        engine.faults().hang(sim::Call::ioctl(VIDIOC_QUERYCAP));
        const int fd = System::Open("/dev/video0", O_RDWR, 1);
        std::thread([] {
            record::flush();
            usleep(50000);
            record::flush();
            kill(getpid(), SIGKILL);
        }).detach();
        v4l2_capability capability{};
        return System::Ioctl(fd, static_cast<int>(VIDIOC_QUERYCAP), &capability, 0);
    };
    EXPECT_EQ(test::inForkedChild(hangs), -SIGKILL);
    EXPECT_THAT(textsOf(replay::loadRecord(mPath)),
                ElementsAre(HasSubstr("/dev/video0"), testing::EndsWith("<unfinished ...>")));
}

#if !defined(__SANITIZE_THREAD__)  // which knows no threads in a child

TEST_F(RecordTest, AForkedChildRecordsOnItsOwn) {
    const std::string childs = mPath + "-child";
    std::ofstream(mPath) << std::string(100000, 'x');  // of which nothing is to stay
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    record::flush();  // a thread on its way up holds a sanitizer's locks, for ever in the child
    const auto child = [&childs] {
        const int result = record::start(childs.c_str());
        System::Open("/childs", O_RDONLY, 1);
        record::stop();
        return result;
    };
    EXPECT_EQ(test::inForkedChild(child), 0);
    System::Open("/parents", O_RDONLY, 1);
    record::stop();
    EXPECT_THAT(textsOf(replay::loadRecord(childs)), ElementsAre(HasSubstr("/childs")));
    const replay::Record parents = replay::loadRecord(mPath);
    EXPECT_THAT(textsOf(parents), ElementsAre(HasSubstr("/parents")));
    EXPECT_THAT(parents.problems, IsEmpty());
    unlink(childs.c_str());
}

#endif

TEST_F(RecordTest, GoesRoundAtItsLimitAndKeepsTheBeginning) {
    NSVista::Utils::Properties::property_set("persist.vendor.camera.corvane.recordlimit",
                                             "4194304");
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    System::Open("/first", O_RDONLY, 1);
    uint64_t calls = 1;
    while (record::status().bytes < 9U << 20) {
        for (int i = 0; i < 500; ++i)
            System::Open("/nonexistent", O_RDONLY, 1);
        calls += 500;
        record::flush();
    }
    System::Open("/last", O_RDONLY, 1);
    record::stop();
    NSVista::Utils::Properties::property_set("persist.vendor.camera.corvane.recordlimit", nullptr);
    EXPECT_EQ(record::status().lost, 0U);
    const replay::Record record = replay::loadRecord(mPath);
    EXPECT_LE(record.bytes.size(), 4194304U);
    EXPECT_FALSE(record.isWhole);
    ASSERT_FALSE(record.calls.empty());
    EXPECT_EQ(record.calls.front().text(false), "/first");
    EXPECT_EQ(record.calls.back().text(false), "/last");
    EXPECT_LT(record.calls.size(), calls);
}

TEST_F(RecordTest, CountsWhatFindsNoRoomAndAllocatesNothing) {
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    System::Close(-1, 1);
    const uint64_t before = test::allocations.load();
    for (int i = 0; i < 50000; ++i) {
        v4l2_capability capability;
        ASSERT_EQ(System::QueueMediaRequest(-1), -EBADF);
        System::Ioctl(-1, static_cast<int>(VIDIOC_QUERYCAP), &capability, 0);
    }
    EXPECT_EQ(test::allocations.load(), before);
    record::stop();
    const replay::Record record = replay::loadRecord(mPath);
    EXPECT_EQ(record.calls.size() + record::status().lost, 100001U);
    EXPECT_EQ(record.isWhole, record::status().lost == 0);
    for (const replay::Call& call : record.calls)
        ASSERT_TRUE(call.failed()) << "what began has ended";
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    System::Close(-1, 1);
    EXPECT_EQ(record::start(nullptr), 0) << "ends it";
    EXPECT_TRUE(replay::loadRecord(mPath).isWhole) << "lost is lost to one record";
}

TEST_F(RecordTest, CountsTheCallsOfThreadsWithoutALane) {
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    std::vector<std::thread> threads;
    std::atomic<int> done{0};
    for (int t = 0; t < 70; ++t)
        threads.emplace_back([&] {
            EXPECT_EQ(System::Close(-1, 1), -EBADF);
            EXPECT_EQ(System::QueueMediaRequest(-1), -EBADF);
            for (++done; done < 70;)
                std::this_thread::yield();
        });
    for (auto& thread : threads)
        thread.join();
    record::stop();
    const uint64_t lost = record::status().lost;
    EXPECT_GE(lost, 12U);
    EXPECT_EQ(replay::loadRecord(mPath).calls.size() + lost, 140U);
}

TEST_F(RecordTest, EndsWithItsCauseWhereNothingCanBeWritten) {
    EXPECT_EQ(record::start("/nonexistent/folder/file"), -ENOENT);
    ASSERT_EQ(mkfifo(mPath.c_str(), 0600), 0);
    EXPECT_EQ(record::start(mPath.c_str()), -ENXIO) << "nobody reads the pipe";
    unlink(mPath.c_str());
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    EXPECT_NE(system(("flock -sn " + mPath + " true").c_str()), 0);
    // A file system that is full ends the record, not the calls.
    record::stop();
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit little{4096, limit.rlim_max};
    ASSERT_EQ(record::start(mPath.c_str()), 0);
    setrlimit(RLIMIT_FSIZE, &little);
    for (int i = 0; i < 200; ++i)
        System::QueueMediaRequest(-1);
    record::flush();
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(record::status().error, -EFBIG);
    EXPECT_FALSE(record::status().running);
}

}  // namespace
