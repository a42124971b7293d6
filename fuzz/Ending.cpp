// SPDX-License-Identifier: Apache-2.0
#include "Ending.h"

#include <corvane/platform/Service.h>
#include <corvane/platform/ULog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace NSVista::NSCorvane::fuzz {

thread_local jmp_buf* gEnd = nullptr;

namespace {

/** What follows the function's name in the fatal lines that are specified. */
constexpr const char* kSpecified[] = {
    "A same user id ",
    "Bad MediaDevice. ret=",
    "Bad MediaRequest - mediaDev=",
    "Bad VideoDevice",
    "Bad buffer fill: index=",
    "Bad default subdev ",
    "Bad device info",
    "Bad device path",
    "Bad function",
    "Bad index:",
    "Bad media request state:",
    "Bad monitor",
    "Bad observer",
    "Bad pipe",
    "Bad port index:",
    "Bad request",
    "Bad state transition: ",
    "FATAL ",
    "Failed to queue media request",
    "Failed to reinit media request: ",
    "No default model name: ",
    "No request done callback",
    "No subdev path for ",
    "Not support count=",
    "Not supported: no V4L2_BUF_FLAG_REQUEST_FD",
    "Still opened... ",
    "Unsupported",
    "enumAllMediaLinks",
    "index:",
    "mMediaTopologyList.size=",
    "port == nullptr",
    "port index:",
    "requestFd:",
};

bool isSpecified(const char* line) {
    const char* const text = strstr(line, "] ");
    const auto begins = [text](const char* piece) {
        return strncmp(text + 2, piece, strlen(piece)) == 0 ||
               strstr(text + 2, (std::string(": ") + piece).c_str()) != nullptr;
    };
    return text != nullptr && (std::any_of(std::begin(kSpecified), std::end(kSpecified), begins) ||
                               strstr(text, ": Bad port/device name") != nullptr);
}

/** A log that keeps nothing. */
class Discarding : public Utils::ULog::ULogger {
public:
    void log(uint32_t, const char*, int, const char* text, size_t length) override {
        mLast = length != 0 ? text[length - 1] : '\0';  // reads as far as it is told to
    }

private:
    std::atomic<char> mLast{'\0'};
};

}  // namespace

}  // namespace NSVista::NSCorvane::fuzz

using namespace NSVista;
using namespace NSVista::NSCorvane;

/** Nothing that is logged is shown, but all of it is formatted; no report ends the process. */
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static fuzz::Discarding log;
    Utils::ULog::ULogger::install(&log);
    Utils::ULog::ULogger::sDetailsLevel = 6;
    Utils::setExceptionHandler([](const char*, const char*) {});
    Utils::setTerminateHandler([] {});
    return 0;
}

/** In place of the platform's: the libraries find this one first. */
extern "C" [[gnu::visibility("default")]] void __android_log_assert(const char*, const char* tag,
                                                                    const char* format, ...) {
    char line[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (fuzz::gEnd != nullptr && fuzz::isSpecified(line))
        longjmp(*fuzz::gEnd, 1);
    fprintf(stderr, "unspecified fatal line of %s: %s\n", tag, line);
    abort();
}
