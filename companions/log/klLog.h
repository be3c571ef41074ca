// klLog: diagnostics to standard error, one line per call:
//   2026-11-21 09:50:12.345 ERROR <message>
// Formats are printf-style and end in "\n" as the callers write them. Every other control
// character of the message (a line break inside a peer's text, say) is written as an escape
// (\n, \r, \t, \xHH), so one call is always one line.
// Thread safety: any thread; each call writes its line with one write.
#pragma once

#include <string>

class klLog {
public:
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));

    // Appends standard error to the file at path (created with mode 0640 if missing) from now on.
    // Standard error rather than a destination of this logger's own, because the shared library
    // and each program carry their own copy of the logger: a process-wide descriptor is what they
    // all write to. Programs the process starts inherit it too. Failure throws std::runtime_error
    // "cannot open log file '<path>': <system text>" and leaves standard error as it was.
    static void setFile(const std::string& path);
};
