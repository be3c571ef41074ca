#include <klNetBase/runtime/klNetMem.h>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

void* klNetMem::copy(void* dst, const void* src, std::size_t n) {
    if (n <= kParallelThreshold) {
        return std::memcpy(dst, src, n);
    }
    return parallelCopy(dst, src, n);
}

void* klNetMem::parallelCopy(void* dst, const void* src, std::size_t n) {
    return parallelCopy(dst, src, n, std::thread::hardware_concurrency());
}

void* klNetMem::parallelCopy(void* dst, const void* src, std::size_t n, unsigned hardwareThreads) {
    const std::size_t parts = hardwareThreads < 8 ? 1 : hardwareThreads / 8;
    const std::size_t chunk = n / parts;
    auto* to = static_cast<unsigned char*>(dst);
    const auto* from = static_cast<const unsigned char*>(src);
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(0, parts, 1),
        [=](const tbb::blocked_range<std::size_t>& range) {
            const std::size_t begin = range.begin() * chunk;
            const std::size_t end = std::min(n, range.end() * chunk);
            std::memcpy(to + begin, from + begin, end - begin);
        },
        tbb::static_partitioner());
    return dst;
}

std::uint64_t klNetMem::getUsedMemory() {
    std::ifstream statm("/proc/self/statm");
    std::uint64_t totalPages = 0;
    std::uint64_t residentPages = 0;
    if (!(statm >> totalPages >> residentPages)) {
        return 0;
    }
    return residentPages * std::uint64_t(::sysconf(_SC_PAGESIZE));
}

std::uint64_t klNetMem::getAvailableMemory() {
    std::ifstream meminfo("/proc/meminfo");
    const std::string key = "MemAvailable:";
    for (std::string line; std::getline(meminfo, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::stoull(line.substr(key.size())) * 1024;  // the figure is in kB
        }
    }
    return 0;
}
