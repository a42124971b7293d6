// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Clock.h>
#include <corvane/platform/NoThrow.h>

#include <cstring>

CORVANE_LOG_UNIT("corvane-Clock")

namespace NSVista::NSCorvane {

namespace {

constexpr size_t kSecondLength = sizeof("MM-DD hh:mm:ss.") - 1;

/** A second as text, which costs much; formatted once for all that a thread prints of it. */
const char* secondText(time_t second) {
    thread_local time_t known = 0;
    thread_local char text[32] = {};
    if (second != known || text[0] == '\0') {
        struct tm local {};
        localtime_r(&second, &local);
        strftime(text, sizeof(text), "%m-%d %H:%M:%S.", &local);
        known = second;
    }
    return text;
}

}  // namespace

size_t formatLogTime(const struct timespec& time, char (&text)[kLogTimeSize]) {
    if (time.tv_sec == 0 && time.tv_nsec == 0) {
        memcpy(text, "-", 2);
        return 1;
    }
    memcpy(text, secondText(time.tv_sec), kSecondLength);
    char* const fraction = text + kSecondLength;
    long rest = time.tv_nsec / 1000;
    for (int digit = 5; digit >= 0; --digit, rest /= 10)
        fraction[digit] = static_cast<char>('0' + rest % 10);
    fraction[6] = '\0';
    return kSecondLength + 6;
}

void getCurrentLogTime(struct timespec& now) {
    clock_gettime(CLOCK_REALTIME, &now);
}

std::string convertToFormattedLogTime(const struct timespec& time) try {
    char text[kLogTimeSize];
    const size_t length = formatLogTime(time, text);
    return {text, length};
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
