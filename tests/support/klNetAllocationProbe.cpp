#include <support/klNetAllocationProbe.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> g_largest{0};
std::atomic<std::size_t> g_count{0};
}  // namespace

std::size_t kltest::largestAllocation() {
    return g_largest.load();
}

void kltest::resetLargestAllocation() {
    g_largest = 0;
}

std::size_t kltest::allocationCount() {
    return g_count.load();
}

// In a translation unit of their own so that no caller sees malloc and free behind them.
void* operator new(std::size_t size) {
    ++g_count;
    std::size_t seen = g_largest.load();
    while (size > seen && !g_largest.compare_exchange_weak(seen, size)) {
    }
    if (void* memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
