// SPDX-License-Identifier: Apache-2.0
#include "Endings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "support/SubDeviceCalls.h"

namespace NSVista::NSCorvane::test {

namespace {

enum class Ending {
    Unseen,    ///< the client sees nothing of it
    Logged,    ///< a line
    Returned,  ///< a line, and the step fails
    Reported,  ///< a line and a report that asks for the service's end; the step may go on
    Fatal,     ///< a last line, and the process ends
};

/** What the step returns. */
enum class Result { Any, Errno, MinusOne, Good };

struct Rule {
    const char* operation;
    const char* kinds;   ///< of nodes, apart by blanks
    const char* phases;  ///< likewise; empty: all
    Ending ending;
    const char* text = "";  ///< a piece of the line
    Result result = Result::Good;
    unsigned upTo = ~0U;            ///< holds for the first so many calls of a phase
    int error = 0;                  ///< holds for this errno alone
    const char* later = "";         ///< phases whose steps fail by it
    const char* orFatal = nullptr;  ///< the process may end by this line too, in what follows
    bool forGood = false;           ///< what was lost stays lost for this process
};

constexpr const char kNoDevice[] = "Bad MediaDevice. ret=0";
constexpr const char kNoTopology[] = "mMediaTopologyList.size=0 != 1";
constexpr const char kNoPath[] = "No subdev path for";
constexpr const char kStillOpen[] = "Still opened...";
constexpr const char kWalkFails[] = "MEDIA_IOC_ENUM_ENTITIES fails after";
constexpr const char kNotAsked[] = "cannot be asked for buffers";
constexpr const char kNoPort[] = "Failed to open port";
constexpr const char kNoFlag[] = "Not supported: no V4L2_BUF_FLAG_REQUEST_FD";
/** Entities of the engine: so many steps of the walk find one. */
constexpr unsigned kEntities = 11;
/** So many until the sub-device is found. */
constexpr unsigned kToSubDevice = 2;

using enum Ending;
using enum Result;

/** The first rule that fits holds. */
constexpr Rule kRules[] = {
    // Devices are looked for: what cannot be read is skipped, and a search that finds nothing ends.
    {"opendir", "dev", "find", Logged, "Failed to open media device directory"},
    {"opendir", "dev", "search", Fatal, kNoDevice},
    {"opendir", "dev", "bringup", Fatal, kNoTopology},
    {"readdir", "dev", "find", Logged, "Failed to read media device directory"},
    {"readdir", "dev", "search", Fatal, kNoDevice},
    {"readdir", "dev", "bringup", Fatal, kNoTopology},
    {"closedir", "dev", "", Unseen},
    {"stat", "media", "find", Logged, "Failed to find path", Good, 1},
    {"stat", "media", "search", Fatal, kNoDevice, Good, 1},
    {"stat", "media", "bringup", Fatal, kNoTopology, Good, 1},
    {"open", "media", "find", Logged, "Failed to open"},
    {"open", "media", "search", Fatal, kNoDevice, Good, 1},
    {"open", "media", "search", Logged, "Failed to open", Good, 2, 0, "init open"},
    {"open", "media", "bringup", Fatal, kNoTopology, Good, 1},
    {"open", "media", "bringup", Fatal, kNoPath},
    {"MEDIA_IOC_DEVICE_INFO", "media", "find", Logged, "Failed on MEDIA_IOC_DEVICE_INFO"},
    {"MEDIA_IOC_DEVICE_INFO", "media", "search", Fatal, kNoDevice},
    {"MEDIA_IOC_DEVICE_INFO", "media", "bringup", Fatal, kNoTopology},
    // Any error ends the walk over entities; what was found until then is the snapshot for good.
    {"MEDIA_IOC_ENUM_ENTITIES", "media", "search", Unseen, "", Good, kEntities, EINVAL, "init open",
     nullptr, true},
    {"MEDIA_IOC_ENUM_ENTITIES", "media", "search", Unseen, "", Good, ~0U, EINVAL},
    {"MEDIA_IOC_ENUM_ENTITIES", "media", "search", Logged, kWalkFails, Good, ~0U, 0, "init open",
     nullptr, true},
    {"MEDIA_IOC_ENUM_ENTITIES", "media", "bringup", Fatal, kNoPath, Good, kToSubDevice},
    {"MEDIA_IOC_ENUM_ENTITIES", "media", "bringup tool", Unseen, "", Good, ~0U, EINVAL, "", nullptr,
     true},
    {"MEDIA_IOC_ENUM_ENTITIES", "media", "bringup tool", Logged, kWalkFails, Good, ~0U, 0, "",
     nullptr, true},
    {"MEDIA_IOC_ENUM_LINKS", "media", "search bringup", Fatal, "enumAllMediaLinks"},

    // A node that is not found has no path, and the open of no path fails.
    {"readlink", "sysfs", "init open", Logged, "Invalid sysfs device path", Good, ~0U, 0,
     "init open"},
    {"readlink", "sysfs", "bringup", Fatal, kNoPath},
    {"stat", "video", "init open", Logged, "Unable to find device node", Good, ~0U, 0, "init open"},
    {"stat", "subdev", "bringup", Fatal, kNoPath, Good, 1},
    {"stat", "subdev", "bringup", Unseen, "", Good, ~0U, 0, "", kNoPath},
    // Why an open was refused is asked for.
    {"stat", "media subdev none", "", Unseen},
    {"open", "none", "init", Returned, kNoPort, MinusOne},
    {"open", "none", "open", Returned, "", Any},

    {"open", "media", "acquire open", Returned, "Failed to open", Errno},
    {"close", "media", "release", Returned, "", Errno},
    {"close", "media request none", "", Unseen},
    // The cause of a refused buffer is looked for.
    {"VIDIOC_G_FMT", "video", "stream", Unseen},
    {"readlink", "proc", "stream", Unseen},
    {"MEDIA_IOC_SETUP_LINK", "media", "init open link", Reported, "MEDIA_IOC_SETUP_LINK fail",
     MinusOne},
    {"MEDIA_IOC_SETUP_LINK", "media", "uninit destroy", Reported, "MEDIA_IOC_SETUP_LINK fail"},
    {"MEDIA_IOC_REQUEST_ALLOC", "media", "request open", Fatal, "Bad request fd < 0"},
    {"MEDIA_REQUEST_IOC_QUEUE", "request", "stream", Fatal, "Failed to queue media request"},
    {"MEDIA_REQUEST_IOC_REINIT", "request", "stream", Fatal, "Failed to reinit media request"},

    // A session asks nodes before the scene does what ends the service when it is refused.
    {"open", "video", "init", Returned, kNoPort, MinusOne},
    {"open", "video", "open", Returned, kNoPort, MinusOne, 1},
    {"open", "video", "open", Returned, kNotAsked, Errno},
    {"VIDIOC_QUERYCAP", "video", "init", Reported, "VIDIOC_QUERYCAP fail", MinusOne},
    {"VIDIOC_QUERYCAP", "video", "open", Reported, "VIDIOC_QUERYCAP fail", MinusOne, 1},
    {"VIDIOC_QUERYCAP", "video", "open", Returned, kNotAsked, Errno},
    {"VIDIOC_REQBUFS", "video", "open", Returned, kNotAsked, Errno, 2},
    {"VIDIOC_REQBUFS", "video", "open import", Reported, "VIDIOC_REQBUFS fail", Errno},
    {"VIDIOC_G_FMT", "video", "getFormat open", Reported, "VIDIOC_G_FMT fail", Errno},
    {"VIDIOC_S_FMT", "video", "setFormat open", Reported, "VIDIOC_S_FMT fail", Errno},
    {"VIDIOC_STREAMON", "video", "start", Reported, "VIDIOC_STREAMON fail"},
    {"VIDIOC_STREAMOFF", "video", "stop", Reported, "VIDIOC_STREAMOFF fail"},
    {"VIDIOC_STREAMON", "video", "begin", Reported, "VIDIOC_STREAMON fail", Errno},
    {"VIDIOC_STREAMOFF", "video", "end", Reported, "VIDIOC_STREAMOFF fail", Errno},
    {"VIDIOC_QBUF", "video", "stream", Returned, "Failed to queue buffer", Errno},
    // After ten times of nothing a buffer counts as dequeued, and it carries no request.
    {"VIDIOC_DQBUF", "video", "stream", Unseen, "", Good, ~0U, EAGAIN, "", kNoFlag},
    {"VIDIOC_DQBUF", "video", "stream", Returned, "Failed to dequeue buffer", Errno},
    // A node counts as open after a failed close, and must not be dropped open.
    {"close", "video", "uninit destroy", Fatal, kStillOpen},
    {"close", "video", "init open", Unseen, "", Good, ~0U, 0, "", kStillOpen},

    {"open", "subdev", "bringup", Returned, "Failed to open", MinusOne},
    {"VIDIOC_SUBSCRIBE_EVENT", "subdev", "bringup", Reported, "VIDIOC_SUBSCRIBE_EVENT", MinusOne},
    {"VIDIOC_UNSUBSCRIBE_EVENT", "subdev none", "teardown", Reported, "VIDIOC_UNSUBSCRIBE_EVENT"},
    {"close", "subdev", "teardown", Logged, "Failed to close"},
    {"VIDIOC_DQEVENT", "subdev", "use", Unseen, "", Good, ~0U, ENOENT},
    {"VIDIOC_DQEVENT", "subdev", "use", Returned, "", MinusOne},
};

/** The last lines by which a program's run may end, beside its own. */
constexpr const char* kToolsFatal[] = {
    kNoDevice,
    kNoTopology,
    kNoPath,
    kStillOpen,
    kNoFlag,
    "enumAllMediaLinks",
    "Bad request fd < 0",
    "Failed to queue media request",
    "Failed to reinit media request",
};

std::string kindOf(const std::string& path) {
    constexpr std::pair<const char*, const char*> kKinds[] = {
        {"/dev/media", "media"}, {"/dev/video", "video"}, {"/dev/v4l-subdev", "subdev"},
        {"/dev", "dev"},         {"/sys/", "sysfs"},      {"request", "request"},
        {"/proc/", "proc"}};
    for (const auto& [prefix, kind] : kKinds)
        if (path.starts_with(prefix))
            return kind;
    return "none";
}

bool lists(const char* words, const std::string& word) {
    return (' ' + std::string(words) + ' ').find(' ' + word + ' ') != std::string::npos;
}

/** A private ioctl of the sub-device ends as the row of its call says. */
std::optional<Rule> privateRuleOf(const Failure& failure) {
    static const std::vector<SubDeviceCall> calls = [] {
        const SubDeviceArguments with(-1);
        std::vector<SubDeviceCall> all = subDeviceCalls(with);
        for (SubDeviceCall& call : all)  // up to what the errno and the descriptor change
            call.line.erase(
                std::min({call.line.find(" fd"), call.line.find("-5"), call.line.size()}));
        return all;
    }();
    const auto found = std::find_if(calls.begin(), calls.end(), [&](const SubDeviceCall& call) {
        return failure.site.operation == "KVXDIP_IOC_" + call.name;
    });
    if (found == calls.end() || failure.site.phase != "use")
        return std::nullopt;
    return Rule{found->name.c_str(), "subdev", "use", found->report.empty() ? Returned : Reported,
                found->line.c_str(), Errno};
}

std::optional<Rule> ruleOf(const Failure& failure) {
    const std::string kind = kindOf(failure.site.path);
    const auto fits = [&](const Rule& rule) {
        return failure.site.operation == rule.operation && lists(rule.kinds, kind) &&
               (*rule.phases == '\0' || lists(rule.phases, failure.site.phase)) &&
               failure.site.nth <= rule.upTo && (rule.error == 0 || rule.error == failure.error);
    };
    const auto found = std::find_if(std::begin(kRules), std::end(kRules), fits);
    return found != std::end(kRules) ? *found : privateRuleOf(failure);
}

bool gives(const Rule& rule, int result, int error) {
    return rule.result == Any || (rule.result == Errno && result == -error) ||
           (rule.result == MinusOne && result == -1);
}

size_t countOf(const std::string& piece, const std::string& text) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(piece, at)) != std::string::npos; at += piece.size())
        ++count;
    return count;
}

std::string describe(const Failure& failure) {
    return failure.site.operation + " of " + failure.site.path + " in " + failure.site.phase +
           " #" + std::to_string(failure.site.nth) + " (" + strerror(failure.error) + ")";
}

class Judge {
public:
    explicit Judge(const Outcome& outcome) : mOutcome(outcome) {}

    std::vector<std::string> verdict(std::string& ending) {
        ending = "unseen";
        for (const Failure& failure : mOutcome.failures)
            judge(failure, ending);
        for (const FailedStep& step : mOutcome.steps)
            explain(step);
        if (const size_t told = countOf("Exception of zelsys", mOutcome.text); told != mReports)
            blame(std::to_string(told) + " reports, not " + std::to_string(mReports));
        endOf(ending);
        return std::move(mBlame);
    }

private:
    void judge(const Failure& failure, std::string& ending) {
        const std::optional<Rule> rule = ruleOf(failure);
        if (!rule)
            return blame("no rule for " + describe(failure));
        if (rule->orFatal != nullptr)
            mMayEndBy.push_back(rule->orFatal);
        if (rule->ending == Fatal)
            mMustEndBy.push_back(rule->text);
        else if (mOutcome.isDone && mOutcome.text.find(rule->text) == std::string::npos)
            blame(describe(failure) + " leaves no \"" + rule->text + "\"");
        if (rule->ending == Reported)
            ++mReports;
        if (rule->ending != Unseen)
            ending = rule->ending == Reported   ? "reported"
                     : rule->ending == Returned ? "returned"
                     : rule->ending == Logged   ? "logged"
                                                : "fatal";
        const bool fails = rule->result != Good && mOutcome.isDone;
        const auto hasFailed = [&](const FailedStep& step) {
            return step.phase == failure.site.phase && gives(*rule, step.result, failure.error);
        };
        if (fails && std::none_of(mOutcome.steps.begin(), mOutcome.steps.end(), hasFailed) &&
            !isHidden(failure))
            blame(describe(failure) + " is returned to nobody");
    }
    /** A step fails by its first failure; what comes on its way back is not returned. */
    bool isHidden(const Failure& failure) const {
        return std::any_of(mOutcome.steps.begin(), mOutcome.steps.end(),
                           [&](const FailedStep& step) {
                               return mOutcome.andLater && step.phase == failure.site.phase;
                           });
    }
    void explain(const FailedStep& step) {
        const auto explains = [&](const Failure& failure) {
            const std::optional<Rule> rule = ruleOf(failure);
            return rule.has_value() && ((failure.site.phase == step.phase &&
                                         gives(*rule, step.result, failure.error)) ||
                                        lists(rule->later, step.phase));
        };
        if (std::none_of(mOutcome.failures.begin(), mOutcome.failures.end(), explains))
            blame("nothing explains that " + step.phase + " gives " + std::to_string(step.result));
    }
    void endOf(std::string& ending) {
        const auto isIn = [&](const char* line) {
            return mOutcome.text.find(line) != std::string::npos;
        };
        const bool isSpecified = std::any_of(mMustEndBy.begin(), mMustEndBy.end(), isIn) ||
                                 std::any_of(mMayEndBy.begin(), mMayEndBy.end(), isIn);
        if (mOutcome.isAborted && isSpecified)
            ending = "fatal";
        else if (mOutcome.isAborted)
            blame("it ends with no line that is specified");
        else if (!mOutcome.isDone)
            blame("it neither survives nor aborts");
        else if (!mMustEndBy.empty())
            blame(std::string("it survives, but has to end by \"") + mMustEndBy.front() + "\"");
    }
    void blame(std::string what) { mBlame.push_back(std::move(what)); }

    const Outcome& mOutcome;
    std::vector<std::string> mBlame;
    std::vector<const char*> mMustEndBy, mMayEndBy;
    size_t mReports = 0;
};

/** A program ends with a code and a line, or by a specified last line. */
std::vector<std::string> judgeTool(const Outcome& outcome, std::string& ending) {
    const auto isIn = [&](const char* line) {
        return outcome.text.find(line) != std::string::npos;
    };
    ending = outcome.isAborted ? "fatal" : "exit " + std::to_string(outcome.exitCode);
    if (outcome.isAborted) {
        if (std::none_of(std::begin(kToolsFatal), std::end(kToolsFatal), isIn))
            return {"it ends with no line that is specified"};
    } else if (!outcome.isDone) {
        return {"it neither survives nor aborts"};
    } else if (outcome.exitCode != 0 && !isIn("corvane-stream: ") && !isIn("corvane-info: ")) {
        return {"it ends with " + std::to_string(outcome.exitCode) + " and says nothing"};
    } else if (outcome.exitCode == 0 && isIn("Exception of zelsys")) {
        return {"it ends well though a driver call was refused"};
    }
    return {};
}

}  // namespace

std::vector<int> errnosOf(const std::string& operation) {
    if (operation == "open" || operation == "opendir")
        return {ENODEV, EACCES, EBUSY, EMFILE, ENOENT};
    if (operation == "stat" || operation == "readlink")
        return {ENOENT, EACCES};
    if (operation == "close" || operation == "readdir" || operation == "closedir")
        return {EIO};
    if (operation == "VIDIOC_DQBUF")
        return {EIO, EAGAIN, ENODEV, EPIPE, EINVAL};
    return {EIO, ENODEV, ENOMEM, EINVAL, EBUSY};
}

std::vector<std::string> judge(const Outcome& outcome, std::string& ending) {
    return outcome.isTool ? judgeTool(outcome, ending) : Judge(outcome).verdict(ending);
}

bool isForGood(const Failure& failure) {
    const std::optional<Rule> rule = ruleOf(failure);
    return rule.has_value() && rule->forGood;
}

}  // namespace NSVista::NSCorvane::test
