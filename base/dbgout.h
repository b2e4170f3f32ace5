// Debug log. Field messages go through traceout, which writes each one to standard output, to
// /dev/af_dbg.log and to the system log. The log file is capped: once the write position passes
// 20 MiB the next message starts again at offset 0 of the same file (the oldest lines are
// overwritten, the file keeps its size), and a log file deleted while the daemon runs is
// re-created. Everything else goes straight to standard output with the "DBG_ERR:"/"DBG_INFO:"
// prefixes and is flushed at once so it interleaves correctly with traceout.
#pragma once

#include <atomic>
#include <cstdint>

#define AFD_PRINTF_LIKE(fmt_idx, arg_idx) __attribute__((format(printf, fmt_idx, arg_idx)))

// Writes the formatted message to stdout, the log file and syslog (LOG_NOTICE). Returns 0.
// Thread-safe: one lock around the whole operation.
int traceout(const char* fmt, ...) AFD_PRINTF_LIKE(1, 2);

// Local time as "%d-%02d-%02d %02d:%02d:%02d.%03d" (year, month, day, hour, minute, second,
// milliseconds), or "" when the time cannot be read. The text lives in a 32-byte buffer of the
// calling thread, valid until that thread's next call: callers pass it straight to traceout.
const char* dbg_timestamp();

// "DBG_ERR:<file> <func>[<line, 4 digits>] " + message, to stdout, flushed.
void dbg_err(const char* file, const char* func, int line, const char* fmt, ...)
    AFD_PRINTF_LIKE(4, 5);
// "DBG_INFO:<file> <func>[<line, 4 digits>] " + message, to stdout, flushed.
void dbg_info(const char* file, const char* func, int line, const char* fmt, ...)
    AFD_PRINTF_LIKE(4, 5);

// A plain line to stdout ("%s\n"), flushed: the messages printed by the line-output call.
void dbg_line(const char* text);

// Repeated error lines. A device that is missing or stuck fails on every frame, and a line per
// failure floods the log and the console (and a console on a slow serial line costs the loop its
// frame rate). A DbgRepeat stands for one kind of failure: the first occurrence is printed, later
// ones are counted, and at most one line per interval is printed, carrying the number of
// occurrences held back since the previous printed one. Occurrences may come from several
// threads. Static storage: the object starts zeroed and needs no set-up.
inline constexpr uint32_t kDbgRepeatIntervalUs = 5000000;

class DbgRepeat {
  public:
    // True when this occurrence is to be printed; *held then gets the number of occurrences held
    // back since the last printed one (0 for the first). False: counted, not to be printed.
    bool admit(uint32_t* held);
    // Forgets the history: the next occurrence is printed as a first one.
    void reset();

  private:
    std::atomic<bool> seen_{false};
    std::atomic<uint64_t> next_us_{0};  // platform clock time from which a line may be printed
    std::atomic<uint32_t> held_{0};
};

// dbg_err through a DbgRepeat. A line printed after held-back occurrences ends with
// " (N more since the last report)".
void dbg_err_limited(DbgRepeat& repeat, const char* file, const char* func, int line,
                     const char* fmt, ...) AFD_PRINTF_LIKE(5, 6);
// dbg_line through a DbgRepeat, with the same ending.
void dbg_line_limited(DbgRepeat& repeat, const char* text);

// Log file size cap in bytes.
inline constexpr long kDbgLogCap = 20971520;
inline constexpr const char* kDbgLogPath = "/dev/af_dbg.log";

// Copies to the system log on (default) or off. AFD_SYSLOG=0 in the environment turns them off
// at start-up (tests, desktop runs that should not fill the journal).
void dbg_set_syslog(bool on);

// Forgets the open log stream, so the next traceout looks the file up again (tests change the
// file root between cases).
void dbg_reset_for_testing();
