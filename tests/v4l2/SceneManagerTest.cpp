// SPDX-License-Identifier: Apache-2.0
// Pipes are registered once a process: tests that register some run in a process of their own.
#include <corvane/IDeviceEnumerator.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/SceneManager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "support/Recorders.h"

namespace NSVista::NSCorvane::test {
namespace {

using testing::UnorderedElementsAre;

constexpr char kTag[] = "corvane-SceneManager";
constexpr SceneDesc kEmpty = {"empty", nullptr, 0, nullptr, 0, nullptr};

std::shared_ptr<IScene> makeScene(std::shared_ptr<SceneDebugInfo> record = nullptr) {
    return std::make_shared<Scene>(std::move(record), kEmpty, nullptr);
}

/** Notes its life; @p act runs in init(). */
class NotingPipe : public PipeBase {
public:
    NotingPipe(SceneManager& manager, std::string name, Lines& notes,
               std::function<int(PipeBase&)> act)
        : PipeBase(manager), mName(std::move(name)), mNotes(notes), mAct(std::move(act)) {}
    ~NotingPipe() override { mNotes.push_back("~" + mName); }
    void dumpState(IPrinter* printer) override { printer->printLine(("pipe " + mName).c_str()); }
    int init() override {
        mNotes.push_back("init " + mName);
        return mAct ? mAct(*this) : 0;
    }
    void uninit() override {
        mNotes.push_back("uninit " + mName);
        delScene(mName);
    }

private:
    std::string mName;
    Lines& mNotes;
    std::function<int(PipeBase&)> mAct;
};

void registerPipe(const char* key, const char* name, Lines& notes,
                  std::function<int(PipeBase&)> act = nullptr) {
    PipeFactory::Instance().Register(key, [=, &notes](SceneManager& manager) {
        return std::make_shared<NotingPipe>(manager, name, notes, act);
    });
}

TEST(SceneManager, KeepsScenesByName) {
    LogCapture log(kTag, Utils::ULog::kError);
    SceneManager manager;
    EXPECT_EQ(manager.init(), 0);
    const auto first = makeScene();
    EXPECT_EQ(manager.addScene("s", first), 0);
    EXPECT_EQ(log.take(), Lines());
    EXPECT_EQ(manager.addScene("s", makeScene()), 0);
    EXPECT_EQ(manager.getScene("s"), first);
    EXPECT_EQ(manager.getScene("t"), nullptr);
    EXPECT_EQ(manager.init(), 0);
    manager.uninit();
    EXPECT_EQ(manager.delScene("s"), 0);
    EXPECT_EQ(manager.delScene("s"), 0);
    EXPECT_EQ(manager.getScene("s"), nullptr);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(log.take(),
              Lines({"E [addScene] Scene s has already existed", "E [getScene] Not found scene t",
                     "E [init] there're still 1 scenes!", "E [uninit] there're still 1 scenes!",
                     "E [getScene] Not found scene s"}));
}

TEST(SceneManager, ForgetsScenesWithoutHoldingItsLock) {
    auto owner = std::make_unique<SceneManager>();
    SceneManager& manager = *owner;
    std::vector<std::thread> others;
    std::atomic<int> answered{0};
    const auto make = [&] {
        return std::shared_ptr<IScene>(new Scene(nullptr, kEmpty, nullptr), [&](IScene* scene) {
            delete scene;
            const int before = answered;
            others.emplace_back([&] {
                manager.getScene("s");
                ++answered;
            });
            for (int i = 0; i < 2000 && answered == before; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            EXPECT_EQ(answered, before + 1) << "another thread waits for this one";
        });
    };
    manager.addScene("s", make());
    manager.addScene("s", make());
    manager.delScene("s");
    manager.addScene("s", make());
    owner.reset();
    for (auto& other : others)
        other.join();
    EXPECT_EQ(others.size(), 3U) << "each once";
}

TEST(SceneManager, DropsPipesWhileItsTablesLive) {
    inOwnProcess([] {
        struct Watching : PipeBase {
            explicit Watching(SceneManager& manager)
                : PipeBase(manager), record(getDebugInfo("w")) {}
            ~Watching() override { EXPECT_EQ(getDebugInfo("w"), record); }
            void dumpState(IPrinter*) override {}
            int init() override { return addScene("w", makeScene(record)); }
            void uninit() override {}
            std::shared_ptr<SceneDebugInfo> record;
        };
        PipeFactory::Instance().Register(
            "w", [](SceneManager& manager) { return std::make_shared<Watching>(manager); });
        SceneManager manager;
        EXPECT_EQ(manager.init(), 0);
    });
}

TEST(SceneManager, RunsPipesInTheirOrderAndMayBeCalledByThem) {
    inOwnProcess([] {
        Lines notes;
        int failure = 0;
        std::shared_ptr<SceneDebugInfo> record;
        registerPipe("a", "a1", notes);
        registerPipe("b", "b", notes, [&](PipeBase& pipe) {
            record = pipe.getDebugInfo("b");
            return pipe.addScene("b", makeScene(record));
        });
        registerPipe("a", "a2", notes);
        registerPipe("c", "c", notes, [&](PipeBase&) { return failure; });
        SceneManager manager;
        auto& factory = PipeFactory::Instance();
        EXPECT_EQ(factory.GetList(), Lines({"a", "b", "a", "c"}));
        EXPECT_EQ(factory.Create("d", manager), nullptr);
        EXPECT_EQ(factory.GetList().size(), 4U);

        EXPECT_EQ(manager.init(), 0);
        EXPECT_EQ(notes, Lines({"init a2", "init b", "init a2", "~a2", "init c"}));
        EXPECT_NE(manager.getScene("b"), nullptr);
        record->streamOnBegin = {1, 999999000};
        record->streamOnEnd = {2, 999};
        record->streamOffBegin = {3, 0};
        record->streamOffEnd = {4, 5999};
        const std::string on = convertToFormattedLogTime(record->streamOnBegin);
        const std::string off = convertToFormattedLogTime(record->streamOffBegin);
        manager.getDebugInfo("z");
        const Lines dump = dumpOf(manager);
        EXPECT_EQ(std::count(dump.begin(), dump.end(), ""), 7) << "one after each part";
        EXPECT_THAT(
            dump,
            testing::IsSupersetOf(
                {"<<Scene>> state=IDLE #Request(Queued,Done)=(0,0)",
                 ("Scene:'b' { streamOn(" + on + "+1us) streamOff(" + off + "+1000005us) }")
                     .c_str(),
                 "Scene:'z' { streamOn(-+0us) streamOff(-+0us) }", "pipe a2", "pipe b", "pipe c"}));

        notes.clear();
        manager.uninit();
        EXPECT_THAT(notes,
                    UnorderedElementsAre("uninit a2", "uninit b", "uninit c", "~a2", "~b", "~c"));
        EXPECT_EQ(manager.getScene("b"), nullptr);
        EXPECT_EQ(manager.getDebugInfo("b"), record) << "records outlive their scenes";

        notes.clear();
        failure = -7;
        EXPECT_EQ(manager.init(), -7);
        EXPECT_EQ(notes.back(), "~c");
        notes.clear();
        manager.uninit();
        EXPECT_EQ(notes.size(), 4U) << "the pipes before the failing one stay";
    });
}

TEST(SceneManager, TellsOfACallThatHasNoName) {
    FakeKernel kernel;
    LinePrinter printer;
    kernel.on<LinePrinter>(0x1234abcd, [](int, LinePrinter& record) {
        SceneManager().explainStall(&record);
        return 0;
    });
    EXPECT_EQ(System::Ioctl(7, 0x1234abcd, &printer, 0), 0);
    EXPECT_THAT(printer.lines,
                testing::Contains(testing::HasSubstr("in ioctl 0x1234abcd of fd 7 for ")));
}

TEST(SceneManager, TellsTimes) {
    EXPECT_EQ(determineDiffTimespecInNs({5, 100}, {3, 200}), 1999999900);
    EXPECT_EQ(determineDiffTimespecInNs({3, 200}, {5, 100}), -1999999900);
    EXPECT_EQ(determineDiffTimespecInNs({2000000000, 0}, {0, 1}), 1999999999999999999);
}

TEST(SceneManager, EndsOnConsistencyErrors) {
    SceneManager manager;
    const auto noPipe = [&manager] {
        PipeFactory::Instance().Register("x", [](SceneManager&) { return nullptr; });
        manager.init();
    };
    const auto noCreator = [&manager] {
        PipeFactory::Instance().Register("x", nullptr);
        manager.init();
    };
    Lines notes;
    NotingPipe pipe(manager, "p", notes, nullptr);
    expectFatal({
        {noPipe, kTag, "init", "Bad pipe"},
        {noCreator, kTag, "Create", "Bad function"},
        {[&] { pipe.getDevice("m"); }, kTag, "getDevice", "Unsupported"},
        {[&] { pipe.getDevice(Lines{"m"}); }, kTag, "getDevice", "Unsupported"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
