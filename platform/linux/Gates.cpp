// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Gates.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/Trace.h>
#include <corvane/platform/ULog.h>

#include <utility>

namespace NSVista::NSCorvane {

namespace {

using Utils::ULog::ULogger;

/** Bits of the library's module word; all must be in the mask for its debug lines. */
constexpr uint32_t kModuleWord = 0x8002000;

constinit Mutex gLock;
constinit Gates* gFirst CORVANE_GUARDED_BY(gLock) = nullptr;

uint64_t tracedAreas() {
    const bool camera = (atrace_get_enabled_tags() & ATRACE_TAG_CAMERA) != 0;
    return camera ? get_corvane_enabled_tracebits() : 0;
}

uint32_t loggedLevels() {
    const uint32_t details = ULogger::sDetailsLevel;
    uint32_t levels = uint32_t{1} << Utils::ULog::kError;
    for (const int level : {Utils::ULog::kWarning, Utils::ULog::kInfo, Utils::ULog::kKeyEvent})
        levels |= static_cast<uint32_t>(details >= static_cast<uint32_t>(level)) << level;
    const bool debug = details >= Utils::ULog::kDebug &&
                       (ULogger::sNormalDetailsMask & kModuleWord) == kModuleWord;
    return levels | static_cast<uint32_t>(debug) << Utils::ULog::kDebug;
}

}  // namespace

Gates::Gates() noexcept {
    const MutexLock lock(gLock);
    load();
    mNext = std::exchange(gFirst, this);
}

/** The copy goes with its shared object; it keeps its last words for who still reads it. */
Gates::~Gates() {
    const MutexLock lock(gLock);
    Gates** link = &gFirst;
    while (*link != this)
        link = &(*link)->mNext;
    *link = mNext;
}

void Gates::update() noexcept {
    const MutexLock lock(gLock);
    for (Gates* gates = gFirst; gates != nullptr; gates = gates->mNext)
        gates->load();
}

void Gates::load() noexcept {
    mAreas.store(tracedAreas(), std::memory_order_relaxed);
    mLevels.store(loggedLevels(), std::memory_order_relaxed);
}

}  // namespace NSVista::NSCorvane
