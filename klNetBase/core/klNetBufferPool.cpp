#include <klNetBase/core/klNetBufferPool.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace {

// Every buffer is a mapping of its own, so that freeing one above the limit gives its memory back
// to the system at once; from the heap it would often stay with the process.
std::size_t mappedSize() {
    static const std::size_t page = std::size_t(::sysconf(_SC_PAGESIZE));
    return (sizeof(klNetBuffer) + page - 1) / page * page;
}

}  // namespace

klNetBufferPool klNetBufferPool::s_instance;

klNetBufferPool::~klNetBufferPool() {
    klNetBuffer* buffer = nullptr;
    while (m_free.try_pop(buffer)) {
        destroy(buffer);
    }
}

void klNetBufferPool::setFreeLimit(std::size_t buffers) {
    m_freeLimit.store(std::max<std::size_t>(buffers, 1), std::memory_order_relaxed);
}

void klNetBufferPool::destroy(klNetBuffer* buffer) {
    buffer->~klNetBuffer();
    ::munmap(buffer, mappedSize());
}

void klNetBufferPool::addBuffer() {
    // Anonymous pages come zeroed, header and payload; populated at once, as a buffer's first
    // use would touch most of them anyway.
    void* memory = ::mmap(nullptr, mappedSize(), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    m_freeCount.fetch_add(1, std::memory_order_relaxed);
    m_free.push(new (memory) klNetBuffer());
}

void klNetBufferPool::release(klNetBuffer* buffer) {
    if (m_freeCount.fetch_add(1, std::memory_order_relaxed) < getFreeLimit()) {
        m_free.push(buffer);
    } else {
        m_freeCount.fetch_sub(1, std::memory_order_relaxed);
        destroy(buffer);
    }
}

std::shared_ptr<klNetBuffer> klNetBufferPool::get() {
    klNetBuffer* buffer = nullptr;
    // Another thread may take a freshly added buffer first; then add another.
    while (!m_free.try_pop(buffer)) {
        addBuffer();
    }
    m_freeCount.fetch_sub(1, std::memory_order_relaxed);
    return std::shared_ptr<klNetBuffer>(buffer, [this](klNetBuffer* b) { release(b); });
}

void klNetBufferPool::getMany(int n, std::vector<std::shared_ptr<klNetBuffer>>& out) {
    if (n < 1) {
        return;
    }
    out.reserve(out.size() + std::size_t(n));
    for (int i = 0; i < n; ++i) {
        out.push_back(get());
    }
}
