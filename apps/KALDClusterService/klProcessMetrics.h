// klProcessMetrics: this process's own numbers for monitoring, from /proc/self, as Prometheus'
// process_* families.
//
// Thread safety: any thread.
#pragma once

#include <cstdint>
#include <string>

struct klProcessMetrics {
    double cpuSeconds = 0.0;  // user and system time
    std::uint64_t residentBytes = 0;
    std::uint64_t openDescriptors = 0;
    std::uint64_t maxDescriptors = 0;  // the soft limit
    double startTime = 0.0;            // seconds since the epoch

    // Reads them now; what cannot be read stays 0.
    static klProcessMetrics read();
    // The families process_cpu_seconds_total, process_resident_memory_bytes, process_open_fds,
    // process_max_fds and process_start_time_seconds in Prometheus' text format.
    std::string text() const;
};
