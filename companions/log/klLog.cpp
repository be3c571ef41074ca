#include "klLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

namespace {

const char* const kLevelVariable = "KLNET_LOG_LEVEL";

klLog::Level currentLevel() {
    klLog::Level level = klLog::Level::info;
    if (const char* text = std::getenv(kLevelVariable)) {
        klLog::parseLevel(text, level);
    }
    return level;
}

// Whether standard error is the journal's stream: JOURNAL_STREAM holds "device:inode" of it,
// and still matches only while standard error has not been redirected since.
bool toJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0, inode = 0;
    struct stat status {};
    return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           ::fstat(STDERR_FILENO, &status) == 0 && status.st_dev == dev_t(device) &&
           status.st_ino == ino_t(inode);
}

void writeLine(klLog::Level level, const char* format, va_list args) {
    if (int(level) > int(currentLevel())) {
        return;
    }
    std::string line;
    if (toJournal()) {
        line = "<" + std::to_string(int(level)) + ">";
    } else {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        tm local{};
        localtime_r(&now.tv_sec, &local);
        char stamp[32];
        std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
        std::string name = klLog::levelName(level);
        for (char& c : name) {
            c = char(std::toupper(static_cast<unsigned char>(c)));
        }
        char prefix[64];
        std::snprintf(prefix, sizeof(prefix), "%s.%03ld %s ", stamp, now.tv_nsec / 1000000,
                      name.c_str());
        line = prefix;
    }

    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length > 0) {
        std::string message(std::size_t(length) + 1, '\0');
        std::vsnprintf(message.data(), message.size(), format, args);
        message.pop_back();
        // The line's own end is the one newline kept as it is.
        if (message.back() == '\n') {
            message.pop_back();
        }
        klLog::appendEscaped(line, message, false);
    }
    line += '\n';
    // One write per line keeps lines of concurrent callers apart.
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

}  // namespace

#define KLLOG_WRITE(level)          \
    va_list args;                   \
    va_start(args, format);         \
    writeLine(level, format, args); \
    va_end(args)

void klLog::error(const char* format, ...) {
    KLLOG_WRITE(Level::error);
}

void klLog::warning(const char* format, ...) {
    KLLOG_WRITE(Level::warning);
}

void klLog::info(const char* format, ...) {
    KLLOG_WRITE(Level::info);
}

void klLog::debug(const char* format, ...) {
    KLLOG_WRITE(Level::debug);
}

void klLog::write(Level level, const char* format, ...) {
    KLLOG_WRITE(level);
}

void klLog::setLevel(Level level) {
    ::setenv(kLevelVariable, levelName(level), 1);
}

#undef KLLOG_WRITE

void klLog::appendEscaped(std::string& out, const std::string& text, bool quoting) {
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        const bool plain = quoting ? byte >= 0x20 && byte < 0x7f : byte >= 0x20 && byte != 0x7f;
        if (quoting && (c == '"' || c == '\\')) {
            out += '\\';
            out += c;
        } else if (plain) {
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else {
            char escape[5];
            std::snprintf(escape, sizeof(escape), "\\x%02x", byte);
            out += escape;
        }
    }
}

const char* klLog::levelName(Level level) {
    switch (level) {
        case klLog::Level::error:
            return "error";
        case klLog::Level::warning:
            return "warning";
        case klLog::Level::info:
            return "info";
        case klLog::Level::debug:
            return "debug";
    }
    return "info";
}

bool klLog::parseLevel(const std::string& text, Level& level) {
    for (const Level candidate : {Level::error, Level::warning, Level::info, Level::debug}) {
        if (text == levelName(candidate)) {
            level = candidate;
            return true;
        }
    }
    return false;
}

void klLog::setFile(const std::string& path) {
    // O_APPEND keeps each line whole even when others write to the file too.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    int result = -1;
    if (fd == STDERR_FILENO) {
        // Standard error was closed and the file took its number: only keep it across exec.
        result = ::fcntl(fd, F_SETFD, 0);
    } else if (fd >= 0) {
        result = ::dup2(fd, STDERR_FILENO);
    }
    const int error = errno;
    if (fd >= 0 && fd != STDERR_FILENO) {
        ::close(fd);
    }
    if (result < 0) {
        char text[256];
        throw std::runtime_error("cannot open log file '" + path +
                                 "': " + ::strerror_r(error, text, sizeof(text)));
    }
}
