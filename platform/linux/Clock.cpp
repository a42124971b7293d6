#include <corvane/platform/Clock.h>

#include <cstdio>

namespace NSVista::NSCorvane {

void getCurrentLogTime(struct timespec& now) {
    clock_gettime(CLOCK_REALTIME, &now);
}

std::string convertToFormattedLogTime(const struct timespec& time) {
    if (time.tv_sec == 0 && time.tv_nsec == 0)
        return "-";
    struct tm local {};
    localtime_r(&time.tv_sec, &local);
    char day[32] = {};
    strftime(day, sizeof(day), "%m-%d %H:%M:%S", &local);
    char text[64] = {};
    snprintf(text, sizeof(text), "%s.%06ld", day, static_cast<long>(time.tv_nsec / 1000));
    return text;
}

}  // namespace NSVista::NSCorvane
