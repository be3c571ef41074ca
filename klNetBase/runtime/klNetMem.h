// klNetMem: memory copies, in parallel for large blocks, and memory figures.
// Thread safety: every function may be called from any thread.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <cstddef>
#include <cstdint>

class KLNETBASE_EXPORT klNetMem {
public:
    static constexpr std::size_t kParallelThreshold = 1000000;

    // Up to 1000000 bytes one memcpy, above that parallelCopy. Returns dst.
    static void* copy(void* dst, const void* src, std::size_t n);
    // Copies in one part per eight hardware threads (one part below sixteen), statically
    // partitioned over oneTBB. Each part is n / parts bytes, so with two or more parts the last
    // n % parts bytes are left uncopied. Returns dst.
    static void* parallelCopy(void* dst, const void* src, std::size_t n);
    // The same for a given number of hardware threads.
    static void* parallelCopy(void* dst, const void* src, std::size_t n, unsigned hardwareThreads);

    // Resident set size of this process, in bytes.
    static std::uint64_t getUsedMemory();
    // Physical memory available to new work on this machine, in bytes.
    static std::uint64_t getAvailableMemory();
};
