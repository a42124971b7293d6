// SPDX-License-Identifier: Apache-2.0
// The fault sweep: each call on the kernel, and each allocation, of whole lifetimes is made to
// fail, a process a run; how each run ends has to be what the table of endings says.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/mc/DeviceEnumerator.h>
#include <corvane/platform/Printer.h>
#include <corvane/sim/Engine.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "Endings.h"
#include "Lifetimes.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace NSVista::NSCorvane::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit{20};
/** So many errnos of a call are those of a device that is lost for good. */
constexpr size_t kLost = 2;
/** Every so manieth want of memory lasts. */
constexpr uint64_t kLastingMemory = 5;
FaultyKernel* sKernel = nullptr;
System::Kernel* sOwnEngine = nullptr;

/** What is made to fail in a run. */
struct Fault {
    Site site = {};
    int error = 0;        ///< 0: no call fails
    uint64_t memory = 0;  ///< which allocation fails; 0: none
    bool andLater = false;
};

struct Options {
    bool list = false, isShort = false, show = false, noMemory = false, noCalls = false;
    bool onceOnly = false, laterOnly = false;
    std::string lifetime, call;
    int error = 0;
    uint64_t memory = 0;
    unsigned jobs = 2;
};

size_t entriesOf(const char* directory) {
    const std::filesystem::directory_iterator all(directory);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

/** The library's threads that live. */
std::string threadsLeft() {
    std::string left;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == "P2Drv-BufferMon" || name == "Corvane-Events")
            left += ' ' + name;
    }
    return left;
}

/** What a survivor must not have left; a fresh scene must stream. */
void lookAtRemains(Client& client, const sim::Engine& engine, size_t fdsBefore, bool isTool) {
    FaultyKernel& kernel = client.kernel;
    if (const size_t accounted = System::openFds().size(); accounted > kernel.failedCloses())
        Client::trouble(std::to_string(accounted) + " descriptors are accounted");
    if (const size_t open = engine.openFiles(); open != 0)
        Client::trouble(std::to_string(open) + " descriptors of the engine are open");
    // What a program prints to and logs to is made once.
    if (const size_t fds = entriesOf("/proc/self/fd"); fds != fdsBefore && !isTool)
        Client::trouble(std::to_string(fds) + " descriptors, not " + std::to_string(fdsBefore));
    if (const std::string left = threadsLeft(); !left.empty())
        Client::trouble("threads are left:" + left);
    if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0)
        Client::trouble("memory is left");
    // A lock that was left taken shows here by the time limit.
    FilePrinter printer(stdout);
    mc::DeviceEnumerator::instance().dumpState(&printer);
    IDefaultSubDeviceProvider::instance()->dumpState(&printer);
    takeTermination();
    record("@fresh\n");
    if (!streamFresh(client))
        record("@stale\n");
}

/** An exception that nobody caught: who is to know where it came from? */
[[noreturn]] void tellTerminate() {
    void* frames[32];
    backtrace_symbols_fd(frames, backtrace(frames, 32), STDERR_FILENO);
    record("@terminate\n");
    abort();
}

/** The process of one run. */
[[noreturn]] void child(const Lifetime& lifetime, const Fault& fault, int output) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    dup2(output, STDERR_FILENO);
    if (freopen("/dev/null", "w", stdout) == nullptr)
        _exit(3);
    {
        sim::VirtualEngine engine;
        FaultyKernel kernel;
        kernel.passOnTo(engine);
        std::set_terminate(tellTerminate);
        sKernel = &kernel;
        sOwnEngine = &engine;
        System::setKernel(&engine);
        watchTermination();
        Client client(kernel);
        if (fault.error != 0)
            kernel.failAt(fault.site, fault.error, fault.andLater);
        else if (fault.memory != 0)
            memory::failAt(fault.memory, fault.andLater);
        else
            kernel.trace();
        const size_t fds = entriesOf("/proc/self/fd");
        const uint64_t before = memory::count();
        lifetime.live(client);
        record("@memory %lu\n", static_cast<unsigned long>(memory::count() - before));
        memory::failAt(0, false);
        kernel.heal();
        watchTermination();
        lookAtRemains(client, engine, fds, lifetime.isTool);
    }
    record("@done\n");
    _exit(0);
}

/** What one run wrote, read again. */
struct Run {
    Fault fault;
    Outcome outcome;
    std::vector<Site> calls;
    std::vector<std::string> troubles;
    uint64_t allocations = 0;
    bool isStale = false;
};

void readLine(const std::string& line, Run& run) {
    std::istringstream words(line);
    std::string what;
    words >> what;
    if (what == "@call" || what == "@fail") {
        Failure failure{};
        Site& site = failure.site;
        words >> site.operation >> site.path >> site.phase >> site.nth >> failure.error;
        if (what == "@call")
            run.calls.push_back(site);
        else
            run.outcome.failures.push_back(failure);
    } else if (what == "@step") {
        FailedStep step{};
        words >> step.phase >> step.result;
        run.outcome.steps.push_back(step);
    } else if (what == "@memory") {
        words >> run.allocations;
    } else if (what == "@exit") {
        words >> run.outcome.exitCode;
    }
}

void readAll(int output, Run& run) {
    char buffer[65536];
    lseek(output, 0, SEEK_SET);
    for (ssize_t got = 0; (got = read(output, buffer, sizeof(buffer))) > 0;)
        run.outcome.text.append(buffer, static_cast<size_t>(got));
    std::istringstream lines(run.outcome.text);
    bool isFresh = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("@trouble"))
            run.troubles.push_back(line.substr(9));
        isFresh = isFresh || line == "@fresh";
        run.isStale = run.isStale || line == "@stale";
        run.outcome.isDone = run.outcome.isDone || line == "@done";
        if (!isFresh)
            readLine(line, run);
    }
}

/** Which allocations may fail without an end: who asks for them does without. */
std::vector<std::string> judgeMemory(const Run& run, std::string& ending) {
    const bool hasLine = run.outcome.text.find("exception: std::bad_alloc") != std::string::npos ||
                         run.outcome.text.find("Bad mSubDev") != std::string::npos;
    ending = run.outcome.isAborted ? "fatal" : "survived";
    if (run.outcome.isAborted && !hasLine)
        return {"it ends with no line that is specified"};
    if (!run.outcome.isAborted && !run.outcome.isDone)
        return {"it neither survives nor aborts"};
    return {};
}

std::vector<std::string> judge(const Run& run, std::string& ending) {
    std::vector<std::string> blame =
        run.fault.memory != 0 ? judgeMemory(run, ending) : judge(run.outcome, ending);
    blame.insert(blame.end(), run.troubles.begin(), run.troubles.end());
    const auto& failures = run.outcome.failures;
    if (run.isStale && std::none_of(failures.begin(), failures.end(), isForGood))
        blame.emplace_back("no fresh scene streams");
    return blame;
}

std::string commandOf(const Lifetime& lifetime, const Fault& fault) {
    std::string command = std::string("corvane-sweep --show --lifetime ") + lifetime.name;
    if (fault.memory != 0)
        command += " --memory " + std::to_string(fault.memory);
    else
        command += " --call '" + fault.site.operation + ' ' + fault.site.path + ' ' +
                   fault.site.phase + ' ' + std::to_string(fault.site.nth) + "' --errno " +
                   std::to_string(fault.error);
    return command + (fault.andLater ? " --later" : " --once");
}

/** Runs processes side by side and hands each one's run over. */
class Processes {
public:
    explicit Processes(unsigned most) : mMost(most) {}

    template <class Over>
    void run(const Lifetime& lifetime, const std::vector<Fault>& faults, Over over) {
        size_t next = 0;
        while (next < faults.size() || !mRunning.empty()) {
            if (next < faults.size() && mRunning.size() < mMost)
                start(lifetime, faults[next++]);
            else
                end(lifetime, over);
        }
    }

private:
    struct Running {
        Fault fault;
        int output;
        Clock::time_point deadline;
    };

    void start(const Lifetime& lifetime, const Fault& fault) {
        fflush(stdout);
        const int output = memfd_create("sweep", MFD_CLOEXEC);
        fcntl(output, F_SETFL, O_APPEND);
        const pid_t pid = fork();
        if (pid == 0)
            child(lifetime, fault, output);
        mRunning[pid] = {fault, output, Clock::now() + kLimit};
    }
    template <class Over>
    void end(const Lifetime& lifetime, Over over) {
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG)) == 0) {
            for (const auto& [running, about] : mRunning)
                if (Clock::now() > about.deadline)
                    kill(running, SIGKILL);
            poll(nullptr, 0, 2);
        }
        const auto found = mRunning.find(pid);
        Run run;
        run.fault = found->second.fault;
        run.outcome.isTool = lifetime.isTool;
        run.outcome.andLater = run.fault.andLater;
        readAll(found->second.output, run);
        run.outcome.isAborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            run.troubles.emplace_back("it hangs");
        run.outcome.isDone = run.outcome.isDone && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        close(found->second.output);
        mRunning.erase(found);
        over(run);
    }

    const unsigned mMost;
    std::map<pid_t, Running> mRunning;
};

class Sweep {
public:
    explicit Sweep(const Options& options) : mOptions(options), mProcesses(options.jobs) {}

    void sweep(const Lifetime& lifetime) {
        Run whole;
        mProcesses.run(lifetime, {Fault{}}, [&](const Run& run) { whole = run; });
        look(lifetime, whole);
        const std::vector<Fault> faults = faultsOf(lifetime, whole);
        std::set<int> errnos;
        for (const Fault& fault : faults)
            errnos.insert(fault.error);
        std::map<std::string, unsigned> endings;
        mProcesses.run(lifetime, faults, [&](const Run& run) { ++endings[look(lifetime, run)]; });
        printf("%-16s %5zu calls %6lu allocations %2zu errnos %6zu runs:", lifetime.name,
               whole.calls.size(), static_cast<unsigned long>(whole.allocations),
               errnos.size() - errnos.count(0), faults.size());
        for (const auto& [ending, count] : endings)
            printf(" %s %u", ending.c_str(), count);
        printf("\n");
        mRuns += faults.size() + 1;
    }
    /** @return the program's exit code. */
    int finish() const {
        printf("%zu runs, %zu unexplained\n", mRuns, mUnexplained);
        return mUnexplained != 0 ? 1 : 0;
    }

private:
    /** @return how it ended. */
    std::string look(const Lifetime& lifetime, const Run& run) {
        std::string ending;
        const std::vector<std::string> blame = judge(run, ending);
        if (mOptions.show)
            printf("%s\n", run.outcome.text.c_str());
        if (blame.empty())
            return ending;
        ++mUnexplained;
        printf("UNEXPLAINED: %s\n", commandOf(lifetime, run.fault).c_str());
        for (const std::string& line : blame)
            printf("    %s\n", line.c_str());
        return "unexplained";
    }

    std::vector<Fault> faultsOf(const Lifetime& lifetime, const Run& whole) const {
        std::vector<Fault> faults;
        const auto add = [&](Fault fault, bool isLasting) {
            if (!mOptions.laterOnly)
                faults.push_back(fault);
            fault.andLater = true;
            if (!mOptions.onceOnly && isLasting)
                faults.push_back(fault);
        };
        std::set<std::string> kinds;
        const bool noCalls = mOptions.noCalls || mOptions.memory != 0;
        for (const Site& site : noCalls ? std::vector<Site>() : whole.calls) {
            const std::string name = site.operation + ' ' + site.path + ' ' + site.phase + ' ';
            if (!mOptions.call.empty() && mOptions.call != name + std::to_string(site.nth))
                continue;
            const bool isKnown =
                !kinds.insert(site.operation + ' ' + site.path.substr(0, 8) + site.phase).second;
            if (mOptions.isShort && isKnown)
                continue;
            const std::vector<int> errnos = errnosOf(site.operation);
            const size_t most = mOptions.isShort || lifetime.isTool ? 1 : errnos.size();
            for (size_t i = 0; i < errnos.size(); ++i)
                if (mOptions.error == 0 ? i < most : mOptions.error == errnos[i])
                    add({site, errnos[i]}, i < kLost || mOptions.error != 0);
        }
        if (mOptions.noMemory || lifetime.isTool || !mOptions.call.empty())
            return faults;
        if (mOptions.memory != 0)
            return add({{}, 0, mOptions.memory}, true), faults;
        const uint64_t stride = mOptions.isShort ? whole.allocations / 10 + 1 : 1;
        for (uint64_t nth = 1; nth <= whole.allocations; nth += stride)
            add({{}, 0, nth}, nth % kLastingMemory == 0);
        return faults;
    }

    const Options mOptions;
    Processes mProcesses;
    size_t mRuns = 0, mUnexplained = 0;
};

int run(const Options& options) {
    if (options.list) {
        for (const Lifetime& lifetime : lifetimes())
            puts(lifetime.name);
        return 0;
    }
    Sweep sweep(options);
    for (const Lifetime& lifetime : lifetimes())
        if (options.lifetime.empty() || options.lifetime == lifetime.name)
            sweep.sweep(lifetime);
    return sweep.finish();
}

}  // namespace

}  // namespace NSVista::NSCorvane::test

namespace NSVista::NSCorvane::System {

/** Stands before every engine that this program's code installs. */
extern "C" Kernel* __wrap__ZN7NSVista9NSCorvane6System9setKernelEPNS1_6KernelE(
    Kernel* kernel) noexcept;
extern "C" Kernel* __real__ZN7NSVista9NSCorvane6System9setKernelEPNS1_6KernelE(
    Kernel* kernel) noexcept;

Kernel* __wrap__ZN7NSVista9NSCorvane6System9setKernelEPNS1_6KernelE(Kernel* kernel) noexcept {
    test::sKernel->passOnTo(kernel != test::sKernel ? *kernel : *test::sOwnEngine);
    __real__ZN7NSVista9NSCorvane6System9setKernelEPNS1_6KernelE(test::sKernel);
    return test::sKernel;
}

}  // namespace NSVista::NSCorvane::System

int main(int argc, char** argv) {
    NSVista::NSCorvane::test::Options options;
    CLI::App app("Lets each call and each allocation of the library's uses fail in turn.");
    app.add_flag("--list", options.list, "List the lifetimes, then end");
    app.add_option("--lifetime", options.lifetime, "Only this lifetime");
    app.add_option("--call", options.call, "Only this call: OPERATION PATH PHASE NTH");
    app.add_option("--errno", options.error, "Only this errno");
    app.add_option("--memory", options.memory, "Only this allocation");
    app.add_flag("--no-calls", options.noCalls, "Let no call fail");
    app.add_flag("--no-memory", options.noMemory, "Let no allocation fail");
    app.add_flag("--once", options.onceOnly, "Only the one call, not all later ones as well");
    app.add_flag("--later", options.laterOnly, "Only with all later calls");
    app.add_flag("--short", options.isShort, "One call of a kind, with one errno");
    app.add_flag("--show", options.show, "Print what the runs write");
    app.add_option("--jobs", options.jobs, "Processes at a time")->check(CLI::Range(1, 64));
    CLI11_PARSE(app, argc, argv);
    return NSVista::NSCorvane::test::run(options);
}
