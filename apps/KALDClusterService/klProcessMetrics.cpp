#include "klProcessMetrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

// The fields of /proc/self/stat after the command (which may hold blanks and parentheses),
// numbered as proc(5) numbers them: the state is field 3.
std::string statField(const std::string& stat, int field) {
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return {};
    }
    std::istringstream fields(stat.substr(close + 1));
    std::string value;
    for (int i = 3; i <= field && fields >> value; ++i) {
    }
    return value;
}

// The system's boot time, seconds since the epoch ("btime" of /proc/stat).
double bootTime() {
    std::ifstream stat("/proc/stat");
    for (std::string key; stat >> key;) {
        if (key == "btime") {
            double seconds = 0.0;
            stat >> seconds;
            return seconds;
        }
        stat.ignore(1 << 20, '\n');
    }
    return 0.0;
}

}  // namespace

klProcessMetrics klProcessMetrics::read() {
    klProcessMetrics metrics;
    const double ticks = double(::sysconf(_SC_CLK_TCK));
    std::string stat;
    std::getline(std::ifstream("/proc/self/stat"), stat);
    try {
        metrics.cpuSeconds =
            (std::stod(statField(stat, 14)) + std::stod(statField(stat, 15))) / ticks;
        metrics.startTime = bootTime() + std::stod(statField(stat, 22)) / ticks;
    } catch (const std::exception&) {
        // Unreadable: left at 0.
    }
    std::uint64_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    metrics.residentBytes = resident * std::uint64_t(::sysconf(_SC_PAGESIZE));
    std::error_code error;
    for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
         it.increment(error)) {
        ++metrics.openDescriptors;
    }
    // The directory's own descriptor, open while it was listed, is not one of the process's.
    metrics.openDescriptors -= metrics.openDescriptors > 0 ? 1 : 0;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        metrics.maxDescriptors = limit.rlim_cur;
    }
    return metrics;
}

std::string klProcessMetrics::text() const {
    std::ostringstream out;
    out.precision(15);
    const auto family = [&out](const char* name, const char* type, const char* help, auto value) {
        out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n'
            << name << ' ' << value << '\n';
    };
    family("process_cpu_seconds_total", "counter", "User and system CPU time spent in seconds.",
           cpuSeconds);
    family("process_resident_memory_bytes", "gauge", "Resident memory size in bytes.",
           residentBytes);
    family("process_open_fds", "gauge", "Number of open file descriptors.", openDescriptors);
    family("process_max_fds", "gauge", "Maximum number of open file descriptors.", maxDescriptors);
    family("process_start_time_seconds", "gauge",
           "Start time of the process since unix epoch in seconds.", startTime);
    return out.str();
}
