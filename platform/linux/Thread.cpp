// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Properties.h>
#include <corvane/platform/Thread.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "TraceBackend.h"

namespace NSVista {

namespace {

int setSchedule(int tid, int policy, int realTimePriority) {
    struct sched_param param {};
    param.sched_priority = realTimePriority;
    return sched_setscheduler(tid, policy, &param) == 0 ? 0 : -errno;
}

int setNormal(int tid, int priority) {
    if (priority < static_cast<int>(Thread::Priority::Lowest) ||
        priority > static_cast<int>(Thread::Priority::Highest))
        return -EINVAL;
    if (const int result = setSchedule(tid, SCHED_OTHER, 0); result != 0)
        return result;
    const int nice = (static_cast<int>(Thread::Priority::Normal) - priority) * 2;
    return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0 ? 0 : -errno;
}

}  // namespace

int Thread::getThisThread() {
    return gettid();
}

int Thread::setThreadPriority(const int& tid, Priority priority, Scheduler scheduler) {
    switch (scheduler) {
        case Scheduler::Normal:
            return setNormal(tid, static_cast<int>(priority));
        case Scheduler::Fifo:
            return setSchedule(tid, SCHED_FIFO, static_cast<int>(priority));
        case Scheduler::RoundRobin:
            return setSchedule(tid, SCHED_RR, static_cast<int>(priority));
    }
    return -EINVAL;
}

}  // namespace NSVista

namespace NSVista::NSCorvane {

void customizeThreadReadyToRun(const char* name, size_t length) {
    if (name == nullptr)
        return;
    const std::string kept(name, std::min<size_t>(strnlen(name, length), 15));
    pthread_setname_np(pthread_self(), kept.c_str());
    trace::nameThread(kept.c_str());
}

}  // namespace NSVista::NSCorvane

int kvxcam_perfctrl_set_affinity() {
    const int32_t mask =
        NSVista::Utils::Properties::property_get_int32("persist.vendor.kvx.camera.affinity", 0);
    if (mask == 0)
        return 0;
    if (mask < 0)
        return -EINVAL;
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    for (unsigned cpu = 0; cpu < 31; ++cpu) {
        if ((static_cast<uint32_t>(mask) >> cpu & 1) != 0)
            CPU_SET(cpu, &cpus);
    }
    return sched_setaffinity(0, sizeof(cpus), &cpus) == 0 ? 0 : -errno;
}
