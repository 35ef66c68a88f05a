// Process-wide coloured log: every line goes to standard output and to one
// log file per process, both written under one mutex so lines never mix.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

enum ELOGLEVEL : int {
    LOG_ERROR = 1,
    LOG_WARNING = 2,
    LOG_INFO = 4,
    LOG_DEBUG = 8,
    LOG_DEBUG_EX = 16,
};

class CCommonLog {
public:
    using TimeFunc = time_t (*)(time_t*);
    using LocalTimeFunc = struct tm* (*)(const time_t*, struct tm*);

    // The instance every component logs through; built on first use. Inline,
    // so a disabled log line costs a guard test and a load.
    static CCommonLog& GetInstance() {
        static CCommonLog instance;
        return instance;
    }

    // Separate instances exist for tests, which inject the clock; the
    // process itself logs only through GetInstance().
    explicit CCommonLog(TimeFunc timeFunc = ::time, LocalTimeFunc localTimeFunc = ::localtime_r);
    ~CCommonLog() = default;
    CCommonLog(const CCommonLog&) = delete;
    CCommonLog& operator=(const CCommonLog&) = delete;

    // Replaces the mask of enabled levels; any combination of ELOGLEVEL bits.
    void SetLogLevel(ELOGLEVEL level);
    // Reads the mask without taking the lock, so callers can skip formatting.
    int GetLogLevel() const { return m_logLevel.load(std::memory_order_relaxed); }
    // Directory of the log file; only the first call has an effect.
    void SetLogPath(std::string& path);
    // Writes one line at `level` if that level is enabled. The file is opened
    // (truncating one of the same name) at the first enabled line.
    void WriteLog(ELOGLEVEL level, const char* format, ...) __attribute__((format(printf, 3, 4)));

private:
    void _WriteLogV(ELOGLEVEL level, bool reportTimeFailure, const char* format, va_list args);
    void _WriteLogNoReport(ELOGLEVEL level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    std::atomic<int> m_logLevel;
    FILE* m_logHandler;
    std::mutex m_mutexLog;
    std::string m_log_path;
    bool m_log_flag;
    TimeFunc m_timeFunc;
    LocalTimeFunc m_localTimeFunc;
};

// Formats `format` into a 4096-byte message and writes it as
// "[unit:line][function]message". Callers go through QUVO_LOG, which checks
// the level first so that nothing is formatted for a disabled level.
void quvo_log_message(CCommonLog& log, ELOGLEVEL level, const char* unit, int line, const char* function,
                      const char* format, ...) __attribute__((format(printf, 6, 7), cold, noinline));

#define QUVO_LOG_TO_AS(log, function, level, ...)                                           \
    do {                                                                                    \
        CCommonLog& quvoLog_ = (log);                                                       \
        if (__builtin_expect((quvoLog_.GetLogLevel() & (level)) != 0, 0))                   \
            quvo_log_message(quvoLog_, (level), __FILE__, __LINE__, function, __VA_ARGS__); \
    } while (0)

#define QUVO_LOG_TO(log, level, ...) QUVO_LOG_TO_AS(log, __func__, level, __VA_ARGS__)

// For a shared helper that logs on behalf of the function that called it.
#define QUVO_LOG_AS(function, level, ...) \
    QUVO_LOG_TO_AS(CCommonLog::GetInstance(), function, level, __VA_ARGS__)

#define QUVO_LOG(level, ...) QUVO_LOG_TO(CCommonLog::GetInstance(), level, __VA_ARGS__)
