#include "base/dbgout.h"

#include <sys/stat.h>
#include <syslog.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/clock.h"
#include "platform/paths.h"

namespace {

std::mutex g_logLock;
int g_logOpen = 0;
FILE* g_logFile = nullptr;
int g_syslogOn = -1;  // -1: not decided yet (read AFD_SYSLOG on first use)

bool syslog_on() {
    if (g_syslogOn < 0) {
        const char* env = std::getenv("AFD_SYSLOG");
        g_syslogOn = (env != nullptr && std::strcmp(env, "0") == 0) ? 0 : 1;
    }
    return g_syslogOn == 1;
}

// Opens the log as the file's state asks: missing -> "w+", over the cap -> "r+" (rewrite from
// offset 0 without truncating), else "a".
void open_log(const char* path) {
    struct stat st {};
    const char* mode = "a";
    if (stat(path, &st) != 0) {
        mode = "w+";
    } else if (st.st_size > kDbgLogCap) {
        mode = "r+";
    }
    g_logFile = std::fopen(path, mode);
    // A log that cannot be opened is retried on the next message; the stdout and syslog copies
    // still go out.
    g_logOpen = g_logFile != nullptr ? 1 : 0;
}

void vprefixed(const char* prefix, const char* file, const char* func, int line, const char* fmt,
               va_list ap) {
    std::printf("%s%s %s[%04d] ", prefix, file, func, line);
    std::vprintf(fmt, ap);
    std::fflush(stdout);
}

}  // namespace

int traceout(const char* fmt, ...) {
    std::lock_guard<std::mutex> lock(g_logLock);
    platform::Path path(kDbgLogPath);

    if (g_logOpen == 0 && path.ok())
        open_log(path.c_str());

    va_list ap;
    va_start(ap, fmt);
    va_list ap_file;
    va_copy(ap_file, ap);
    va_list ap_sys;
    va_copy(ap_sys, ap);

    std::vprintf(fmt, ap);
    if (g_logFile != nullptr)
        std::vfprintf(g_logFile, fmt, ap_file);

    char line[512];
    std::vsnprintf(line, sizeof line, fmt, ap_sys);
    if (syslog_on())
        syslog(LOG_NOTICE, "%s", line);

    va_end(ap_sys);
    va_end(ap_file);
    va_end(ap);

    std::fflush(stdout);
    if (g_logFile == nullptr)
        return 0;
    std::fflush(g_logFile);

    long pos = std::ftell(g_logFile);
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        // Deleted under us: start a new file at once.
        std::fclose(g_logFile);
        g_logFile = std::fopen(path.c_str(), "w+");
        g_logOpen = g_logFile != nullptr ? 1 : 0;
        std::printf("DBG_ERR:%s %s[%04d] stat ERR\n", "dbgout", "traceout", 90);
        std::fflush(stdout);
    } else if (pos > kDbgLogCap) {
        // Past the cap: the next message reopens with "r+" and writes from offset 0.
        std::fclose(g_logFile);
        g_logFile = nullptr;
        g_logOpen = 0;
    }
    return 0;
}

const char* dbg_timestamp() {
    thread_local char buf[32];
    buf[0] = '\0';
    timeval tv{};
    if (platform::wall_time(&tv) != 0)
        return buf;
    time_t secs = tv.tv_sec;
    struct tm tm {};
    if (localtime_r(&secs, &tm) == nullptr)
        return buf;
    // Formatted through a wider scratch buffer: the text is 23 characters for any real year.
    char text[80];
    std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(tv.tv_usec / 1000));
    std::memcpy(buf, text, sizeof buf - 1);
    buf[sizeof buf - 1] = '\0';
    return buf;
}

void dbg_err(const char* file, const char* func, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vprefixed("DBG_ERR:", file, func, line, fmt, ap);
    va_end(ap);
}

void dbg_info(const char* file, const char* func, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vprefixed("DBG_INFO:", file, func, line, fmt, ap);
    va_end(ap);
}

bool DbgRepeat::admit(uint32_t* held) {
    const uint64_t now = platform::clock().monotonic_us();
    *held = 0;
    if (!seen_.exchange(true)) {
        next_us_.store(now + kDbgRepeatIntervalUs);
        return true;
    }
    uint64_t next = next_us_.load();
    if (now < next || !next_us_.compare_exchange_strong(next, now + kDbgRepeatIntervalUs)) {
        held_.fetch_add(1);
        return false;
    }
    *held = held_.exchange(0);
    return true;
}

void DbgRepeat::reset() {
    seen_.store(false);
    next_us_.store(0);
    held_.store(0);
}

void dbg_err_limited(DbgRepeat& repeat, const char* file, const char* func, int line,
                     const char* fmt, ...) {
    uint32_t held = 0;
    if (!repeat.admit(&held))
        return;
    va_list ap;
    va_start(ap, fmt);
    if (held == 0) {
        vprefixed("DBG_ERR:", file, func, line, fmt, ap);
    } else {
        // The count goes on the message's own line, before its newline.
        char text[256];
        std::vsnprintf(text, sizeof text, fmt, ap);
        size_t n = std::strlen(text);
        while (n > 0 && text[n - 1] == '\n')
            text[--n] = '\0';
        std::printf("DBG_ERR:%s %s[%04d] %s (%u more since the last report)\n", file, func, line,
                    text, held);
        std::fflush(stdout);
    }
    va_end(ap);
}

void dbg_line_limited(DbgRepeat& repeat, const char* text) {
    uint32_t held = 0;
    if (!repeat.admit(&held))
        return;
    if (held == 0)
        std::printf("%s\n", text);
    else
        std::printf("%s (%u more since the last report)\n", text, held);
    std::fflush(stdout);
}

void dbg_line(const char* text) {
    std::printf("%s\n", text);
    std::fflush(stdout);
}

void dbg_set_syslog(bool on) {
    std::lock_guard<std::mutex> lock(g_logLock);
    g_syslogOn = on ? 1 : 0;
}

void dbg_reset_for_testing() {
    std::lock_guard<std::mutex> lock(g_logLock);
    if (g_logFile != nullptr)
        std::fclose(g_logFile);
    g_logFile = nullptr;
    g_logOpen = 0;
}
