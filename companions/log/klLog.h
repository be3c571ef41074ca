// klLog: diagnostics to standard error, one line per call:
//   2026-11-21 09:50:12.345 ERROR <message>
// or, under systemd's journal, "<3><message>" (below).
// Formats are printf-style and end in "\n" as the callers write them. Every other control
// character of the message (a line break inside a peer's text, say) is written as an escape
// (\n, \r, \t, \xHH), so one call is always one line.
// Thread safety: any thread; each call writes its line with one write.
#pragma once

#include <string>

class klLog {
public:
    // Levels, numbered as syslog numbers its priorities.
    enum class Level { error = 3, warning = 4, info = 6, debug = 7 };

    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void write(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Lines below level are dropped (default: info). Process-wide, through the environment
    // variable KLNET_LOG_LEVEL, so that every copy of the logger (the library has its own) and
    // every program the process starts follow it: call it before other threads start.
    static void setLevel(Level level);
    // "error", "warning", "info" or "debug"; false for any other text.
    static bool parseLevel(const std::string& text, Level& level);
    // The level's name, as parseLevel() reads it.
    static const char* levelName(Level level);

    // Where standard error is the journal's stream (systemd sets JOURNAL_STREAM to its device
    // and inode), a line is "<N>message" with N the level's number, which the journal takes as
    // the priority and stamps itself; anywhere else "DATE TIME LEVEL message".

    // Appends text to out with every control character written as an escape (\n, \r, \t, \xHH),
    // as a log line shows it, so that a peer's text cannot forge a line. quoting also escapes '"'
    // and '\\' as \" and \\, and every byte that is not ASCII, for a text shown in quotes.
    static void appendEscaped(std::string& out, const std::string& text, bool quoting);

    // Appends standard error to the file at path (created with mode 0640 if missing) from now on.
    // Standard error rather than a destination of this logger's own, because the shared library
    // and each program carry their own copy of the logger: a process-wide descriptor is what they
    // all write to. Programs the process starts inherit it too. Failure throws std::runtime_error
    // "cannot open log file '<path>': <system text>" and leaves standard error as it was.
    static void setFile(const std::string& path);
};
