#include "klLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

namespace {

void writeLine(const char* level, const char* format, va_list args) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);

    char prefix[64];
    std::snprintf(prefix, sizeof(prefix), "%s.%03ld %s ", stamp, now.tv_nsec / 1000000, level);
    std::string line = prefix;

    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length > 0) {
        const std::size_t start = line.size();
        line.resize(start + std::size_t(length) + 1);
        std::vsnprintf(&line[start], std::size_t(length) + 1, format, args);
        line.pop_back();
    }
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    // One write per line keeps lines of concurrent callers apart.
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

}  // namespace

void klLog::error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeLine("ERROR", format, args);
    va_end(args);
}

void klLog::info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeLine("INFO", format, args);
    va_end(args);
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
