// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The two log sinks: the debug print and the unified log.
 *
 * Code logs through the macros of Log.h only; this header is for those who set levels or replace
 * sinks.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>
#include <corvane/platform/UniqueFd.h>

namespace NSVista::NSCorvane {
class LineWriter;
}

/** Level codes of the debug print. */
enum cam_debug_level_t {
    CAM_DEBUG_DEBUG = 0,
    CAM_DEBUG_ERROR = 1,
    CAM_DEBUG_WARNING = 2,
    CAM_DEBUG_INFO = 3,
    CAM_DEBUG_KEY = 4,
};

/** One record of the debug print's level table. */
struct CamLogInfoLevel {
    std::atomic<uint8_t> flags;  ///< the top bit enables the level
    const char* prefix;          ///< begins every line of the level
};

/** The debug print's level table, indexed by cam_debug_level_t. */
extern CORVANE_EXPORT CamLogInfoLevel g_logInfoLv[5];

/**
 * The debug-print sink: one line to standard error (to the system's log on a phone).
 * @param level a cam_debug_level_t code.
 */
CORVANE_EXPORT void log_dbg_print(const char* tag, cam_debug_level_t level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/** The file name to print for a source path: what follows its last slash. */
CORVANE_EXPORT const char* get_filename_log_control(const char* path);

/**
 * Logs one line and aborts the process; never returns.
 * @param condition ignored, may be null.
 */
extern "C" CORVANE_EXPORT void __android_log_assert(const char* condition, const char* tag,
                                                    const char* format, ...)
    __attribute__((noreturn, format(printf, 3, 4)));

namespace NSVista::Utils::ULog {

/** Levels of the unified log. */
enum Level : int {
    kError = 1,
    kWarning = 2,
    kInfo = 3,
    kKeyEvent = 4,
    kDebug = 5,
    kVerbose = 6,
};

/** A number that steers the log. Read and set by any thread; it holds from the next line on. */
class CORVANE_EXPORT Setting {
public:
    constexpr explicit Setting(uint32_t value) : mValue(value) {}
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    operator uint32_t() const { return mValue.load(std::memory_order_relaxed); }
    Setting& operator=(uint32_t value) {
        exchange(value);
        return *this;
    }
    /** @return the value before. */
    uint32_t exchange(uint32_t value);

private:
    std::atomic<uint32_t> mValue;
};

/**
 * A sink of the unified log, and the log's process-wide state.
 *
 * The state starts from the properties "persist.vendor.kvx.camera.ulog.mode" (default 2),
 * ".detailslevel" (default 2: warnings) and ".detailsmask" (default: all modules), and may be set
 * at any time; a change takes effect at the next statement.
 */
class CORVANE_EXPORT ULogger {
public:
    /** Enabled sinks: bit 0 the debug print, bit 1 or bit 3 the unified log. */
    static Setting sMode;
    /** Highest unified-log level that passes; errors always pass. */
    static Setting sDetailsLevel;
    /** Module bits whose debug lines pass. */
    static Setting sNormalDetailsMask;
    /** The sink; never null. */
    static std::atomic<ULogger*> sULogger;

    /**
     * Installs a sink.
     * @param logger not owned, must outlive its use; null restores the default sink.
     * @return the sink that was installed before.
     */
    static ULogger* install(ULogger* logger) noexcept;

    virtual ~ULogger();
    /**
     * Takes one line. Any thread, concurrently, under locks of the caller: a sink does not call
     * back into what logs, and does not hold its callers up.
     * @param text not terminated necessarily; @p length bytes, at most 1023.
     */
    virtual void log(uint32_t module, const char* tag, int level, const char* text,
                     size_t length) = 0;
    /** Makes sure that what was logged is not lost. @param wait 1 to return only when it is done.
     */
    virtual void flush(int wait);
};

/**
 * Appends lines of the form "MM-DD hh:mm:ss.uuuuuu pid tid L tag: text" to a file, or to a pipe or
 * terminal: one that takes no more holds a thread up for 100 ms once, then lines are dropped until
 * there is room, and the first that is written again is preceded by how many were. The default sink
 * is one over standard error, or over the file that the property
 * "persist.vendor.kvx.camera.ulog.file" names (owned by who runs the process, mode 0600; no link is
 * followed).
 */
class CORVANE_EXPORT FileULogger : public ULogger {
public:
    /** @return null when the file cannot be opened; errno tells why. */
    static std::unique_ptr<FileULogger> open(const char* path);
    /** @param fd not owned. */
    explicit FileULogger(int fd);
    ~FileULogger() override;
    void log(uint32_t module, const char* tag, int level, const char* text, size_t length) override;
    void flush(int wait) override;

private:
    NSCorvane::UniqueFd mOwned;
    const int mFd;
    const std::unique_ptr<NSCorvane::LineWriter> mWriter;
};

/** Keeps the last lines in memory, for tests and post-mortem dumps. */
class CORVANE_EXPORT RingULogger : public ULogger {
public:
    struct Line {
        uint32_t module;
        int level;
        std::string tag;
        std::string text;
    };

    /** @param capacity number of lines kept, at least 1. */
    explicit RingULogger(size_t capacity);
    void log(uint32_t module, const char* tag, int level, const char* text, size_t length) override;
    /** The lines kept, oldest first; takes them out of the ring. */
    std::vector<Line> take();

private:
    NSCorvane::Mutex mLock;
    std::vector<Line> mLines CORVANE_GUARDED_BY(mLock);
    size_t mNext CORVANE_GUARDED_BY(mLock) = 0;  ///< the oldest line, once the ring is full
    const size_t mCapacity;
};

}  // namespace NSVista::Utils::ULog
