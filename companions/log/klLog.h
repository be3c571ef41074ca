// klLog: diagnostics to standard error, one line per call:
//   2026-11-21 09:50:12.345 ERROR <message>
// Formats are printf-style and end in "\n" as the callers write them.
// Thread safety: any thread; each call writes its line with one write.
#pragma once

class klLog {
public:
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
};
