#include "public/log/CommonLog.h"

#include <pthread.h>

namespace {

// The time-failure report is a fixed line that operators' log filters match,
// so its unit, line and function stay put whatever this file's layout.
constexpr const char* kTimeFailureUnit = __FILE__;
constexpr int kTimeFailureLine = 52;

const char* LevelPrefix(ELOGLEVEL level) {
    switch (level) {
        case LOG_ERROR:
            return "\x1b[31;1m [E]";
        case LOG_WARNING:
            return "\x1b[33;1m [W]";
        case LOG_INFO:
            return "\x1b[32;1m [I]";
        case LOG_DEBUG:
            return "\x1b[37;1m [D]";
        case LOG_DEBUG_EX:
            return "\x1b[34;1m [X]";
        default:
            return "\x1b[34;1m [N]";
    }
}

}  // namespace

CCommonLog::CCommonLog(TimeFunc timeFunc, LocalTimeFunc localTimeFunc)
    : m_logLevel(15),
      m_logHandler(nullptr),
      m_log_flag(false),
      m_timeFunc(timeFunc),
      m_localTimeFunc(localTimeFunc) {}

void CCommonLog::SetLogLevel(ELOGLEVEL level) {
    std::lock_guard<std::mutex> lock(m_mutexLog);
    m_logLevel.store(level, std::memory_order_relaxed);
}

void CCommonLog::SetLogPath(std::string& path) {
    std::lock_guard<std::mutex> lock(m_mutexLog);
    if (!m_log_flag) {
        m_log_path = path;
        m_log_flag = true;
    }
}

void CCommonLog::WriteLog(ELOGLEVEL level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    _WriteLogV(level, true, format, args);
    va_end(args);
}

void CCommonLog::_WriteLogNoReport(ELOGLEVEL level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    _WriteLogV(level, false, format, args);
    va_end(args);
}

void CCommonLog::_WriteLogV(ELOGLEVEL level, bool reportTimeFailure, const char* format, va_list args) {
    std::unique_lock<std::mutex> lock(m_mutexLog);
    if ((m_logLevel.load(std::memory_order_relaxed) & level) == 0) {
        return;
    }

    time_t now = m_timeFunc(nullptr);
    struct tm local;
    if (m_localTimeFunc(&now, &local) == nullptr) {
        // The mutex is not recursive: report after releasing it, and do not
        // report a failure of the report itself.
        lock.unlock();
        if (reportTimeFailure) {
            _WriteLogNoReport(LOG_ERROR, "[%s:%d][%s]%s", kTimeFailureUnit, kTimeFailureLine, "WriteLog",
                              "localtime_r failed");
        }
        return;
    }

    char lineFormat[2048];
    snprintf(lineFormat, sizeof(lineFormat), "%s [%04d%02d%02d][%02d:%02d:%02d][%lu] %s\x1b[0m \n",
             LevelPrefix(level), local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
             local.tm_min, local.tm_sec, static_cast<unsigned long>(pthread_self()), format);

    if (m_logHandler == nullptr) {
        char name[1024];
        if (m_log_path.empty()) {
            snprintf(name, sizeof(name), "Quvo_Exanic_%04d%02d%02d_%02d%02d%02d.log", local.tm_year + 1900,
                     local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        } else {
            snprintf(name, sizeof(name), "%s/Quvo_Exanic_%04d%02d%02d_%02d%02d%02d.log", m_log_path.c_str(),
                     local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                     local.tm_sec);
        }
        m_logHandler = fopen(name, "w");
        if (m_logHandler == nullptr) {
            printf("fopen: %s failed\n", name);
            return;
        }
    }

    va_list fileArgs;
    va_copy(fileArgs, args);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vfprintf(stdout, lineFormat, args);
    vfprintf(m_logHandler, lineFormat, fileArgs);
#pragma GCC diagnostic pop
    va_end(fileArgs);
    fflush(stdout);
    fflush(m_logHandler);
}

void quvo_log_message(CCommonLog& log, ELOGLEVEL level, const char* unit, int line, const char* function,
                      const char* format, ...) {
    char message[4096];
    va_list args;
    va_start(args, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(message, sizeof(message), format, args);
#pragma GCC diagnostic pop
    va_end(args);
    log.WriteLog(level, "[%s:%d][%s]%s", unit, line, function, message);
}
