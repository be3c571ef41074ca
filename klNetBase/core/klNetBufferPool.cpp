#include <klNetBase/core/klNetBufferPool.h>

#include <klNetBase/core/detail/klNetBufferCache.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace {

// Room in front of every buffer for its std::shared_ptr control block; a whole cache line, so the
// buffer keeps its alignment.
constexpr std::size_t kControlRoom = 64;

// Every buffer is a mapping of its own, so that freeing one above the limit gives its memory back
// to the system at once; from the heap it would often stay with the process.
std::size_t mappedSize() {
    static const std::size_t page = std::size_t(::sysconf(_SC_PAGESIZE));
    return (kControlRoom + sizeof(klNetBuffer) + page - 1) / page * page;
}

unsigned char* mappingOf(klNetBuffer* buffer) {
    return reinterpret_cast<unsigned char*>(buffer) - kControlRoom;
}

std::atomic<std::uint64_t> g_nextPoolId{1};

// The deleter does nothing: the buffer goes back to the pool when its control block is released
// (ControlAllocator::deallocate), which is the last thing std::shared_ptr does with either.
struct KeepBuffer {
    void operator()(klNetBuffer*) const noexcept {}
};

}  // namespace

// Places a buffer's control block in the room in front of it and recycles the buffer when the
// control block goes, so that neither is ever allocated on the heap.
template <class T>
class klNetBufferPool::ControlAllocator {
public:
    using value_type = T;

    ControlAllocator(klNetBufferPool* pool, klNetBuffer* buffer) noexcept
        : m_pool(pool), m_buffer(buffer) {}
    template <class U>
    ControlAllocator(const ControlAllocator<U>& other) noexcept
        : m_pool(other.m_pool), m_buffer(other.m_buffer) {}

    T* allocate(std::size_t) {
        static_assert(sizeof(T) <= kControlRoom && alignof(T) <= kControlRoom,
                      "the control block must fit the room in front of the buffer");
        return reinterpret_cast<T*>(mappingOf(m_buffer));
    }
    void deallocate(T*, std::size_t) noexcept { m_pool->recycle(m_buffer); }

    template <class U>
    bool operator==(const ControlAllocator<U>& other) const noexcept {
        return m_buffer == other.m_buffer;
    }
    template <class U>
    bool operator!=(const ControlAllocator<U>& other) const noexcept {
        return m_buffer != other.m_buffer;
    }

private:
    template <class U>
    friend class ControlAllocator;

    klNetBufferPool* m_pool;
    klNetBuffer* m_buffer;
};

klNetBufferPool klNetBufferPool::s_instance;

klNetBufferPool::klNetBufferPool() : m_id(g_nextPoolId.fetch_add(1)) {}

klNetBufferPool::~klNetBufferPool() {
    std::vector<klNetBuffer*> free;
    klNetBufferCache::releaseAll(*this, free);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        free.insert(free.end(), m_free.begin(), m_free.end());
        m_free.clear();
    }
    for (klNetBuffer* buffer : free) {
        destroy(buffer);
    }
}

void klNetBufferPool::setFreeLimit(std::size_t buffers) {
    m_freeLimit.store(std::max<std::size_t>(buffers, 1), std::memory_order_relaxed);
}

klNetBuffer* klNetBufferPool::create() {
    // Anonymous pages come zeroed, header and payload; populated at once, as a buffer's first
    // use would touch most of them anyway.
    void* memory = ::mmap(nullptr, mappedSize(), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return new (static_cast<unsigned char*>(memory) + kControlRoom) klNetBuffer();
}

void klNetBufferPool::destroy(klNetBuffer* buffer) {
    buffer->~klNetBuffer();
    ::munmap(mappingOf(buffer), mappedSize());
}

void klNetBufferPool::giveBack(klNetBuffer* const* buffers, std::size_t count) {
    std::size_t kept = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::size_t limit = getFreeLimit();
        kept = m_free.size() < limit ? std::min(count, limit - m_free.size()) : 0;
        m_free.insert(m_free.end(), buffers, buffers + kept);
    }
    // Unmapping is slow: outside the lock.
    for (std::size_t i = kept; i < count; ++i) {
        destroy(buffers[i]);
    }
}

void klNetBufferPool::recycle(klNetBuffer* buffer) {
    if (klNetBufferCache* cache = klNetBufferCache::forThisThread(*this)) {
        klNetBuffer* overflow[kThreadCacheSize / 2];
        if (const std::size_t moved = cache->put(buffer, overflow)) {
            giveBack(overflow, moved);
        }
        return;
    }
    giveBack(&buffer, 1);
}

klNetBuffer* klNetBufferPool::takeFree() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_free.empty()) {
            klNetBuffer* buffer = m_free.back();
            m_free.pop_back();
            return buffer;
        }
    }
    if (klNetBuffer* buffer = klNetBufferCache::steal(*this)) {
        return buffer;
    }
    return create();
}

std::shared_ptr<klNetBuffer> klNetBufferPool::wrap(klNetBuffer* buffer) {
    return std::shared_ptr<klNetBuffer>(buffer, KeepBuffer(),
                                        ControlAllocator<klNetBuffer>(this, buffer));
}

std::shared_ptr<klNetBuffer> klNetBufferPool::get() {
    klNetBuffer* buffer = nullptr;
    if (klNetBufferCache* cache = klNetBufferCache::forThisThread(*this)) {
        buffer = cache->take();
    }
    return wrap(buffer != nullptr ? buffer : takeFree());
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
