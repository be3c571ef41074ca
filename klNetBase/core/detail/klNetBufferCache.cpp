#include <klNetBase/core/detail/klNetBufferCache.h>

namespace {

constexpr std::size_t kPoolsPerThread = 4;

}  // namespace

// The caches of one thread, one per pool it uses, linked into the process-wide registry while the
// thread lives.
class klNetBufferCache::Thread {
public:
    Thread();
    // Gives every cached buffer back to its pool.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    klNetBufferCache caches[kPoolsPerThread];
    // Guarded by the registry mutex.
    Thread* previous = nullptr;
    Thread* next = nullptr;
};

namespace {

// Constant-initialised and trivially destroyed, so usable until the very end of the process, after
// the process-wide pool is gone.
std::mutex g_registryMutex;
klNetBufferCache::Thread* g_threads = nullptr;  // guarded by g_registryMutex

// Trivial thread-locals, so that the fast path reads them without an initialisation check, in
// the static TLS block (a few bytes), so without a call to find them.
__attribute__((tls_model("initial-exec"))) thread_local klNetBufferCache::Thread* t_thread =
    nullptr;
__attribute__((tls_model("initial-exec"))) thread_local bool t_ended = false;

klNetBufferCache::Thread& threadCaches() {
    thread_local klNetBufferCache::Thread caches;
    return caches;
}

}  // namespace

klNetBufferCache::Thread::Thread() {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    next = g_threads;
    if (next != nullptr) {
        next->previous = this;
    }
    g_threads = this;
    t_thread = this;
}

klNetBufferCache::Thread::~Thread() {
    t_thread = nullptr;
    t_ended = true;
    std::lock_guard<std::mutex> lock(g_registryMutex);
    // Under the registry mutex no pool can finish going meanwhile: one that is going either has
    // already emptied these caches or waits for the mutex before it frees its shared list.
    for (klNetBufferCache& cache : caches) {
        klNetBuffer* buffers[kSize];
        klNetBufferPool* pool = nullptr;
        std::size_t count = 0;
        {
            std::lock_guard<klNetOwnerLock> cacheLock(cache.m_lock);
            pool = cache.m_pool;
            count = cache.drain(buffers);
        }
        if (count != 0) {
            pool->giveBack(buffers, count);
        }
    }
    (previous != nullptr ? previous->next : g_threads) = next;
    if (next != nullptr) {
        next->previous = previous;
    }
}

klNetBufferCache* klNetBufferCache::forThisThread(klNetBufferPool& pool) {
    Thread* thread = t_thread;
    if (thread == nullptr) {
        if (t_ended) {
            return nullptr;
        }
        thread = &threadCaches();
    }
    for (klNetBufferCache& cache : thread->caches) {
        if (cache.m_poolId.load(std::memory_order_relaxed) == pool.m_id) {
            return &cache;
        }
    }
    for (klNetBufferCache& cache : thread->caches) {
        std::lock_guard<klNetOwnerLock> lock(cache.m_lock);
        if (cache.m_poolId.load(std::memory_order_relaxed) == 0) {
            cache.m_pool = &pool;
            cache.m_poolId.store(pool.m_id, std::memory_order_relaxed);
            return &cache;
        }
    }
    return nullptr;
}

klNetBuffer* klNetBufferCache::steal(const klNetBufferPool& pool) {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    for (Thread* thread = g_threads; thread != nullptr; thread = thread->next) {
        for (klNetBufferCache& cache : thread->caches) {
            if (cache.m_poolId.load(std::memory_order_relaxed) == pool.m_id) {
                if (klNetBuffer* buffer = cache.take()) {
                    return buffer;
                }
            }
        }
    }
    return nullptr;
}

void klNetBufferCache::releaseAll(const klNetBufferPool& pool, std::vector<klNetBuffer*>& out) {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    for (Thread* thread = g_threads; thread != nullptr; thread = thread->next) {
        for (klNetBufferCache& cache : thread->caches) {
            std::lock_guard<klNetOwnerLock> cacheLock(cache.m_lock);
            if (cache.m_poolId.load(std::memory_order_relaxed) == pool.m_id) {
                klNetBuffer* buffers[kSize];
                out.insert(out.end(), buffers, buffers + cache.drain(buffers));
            }
        }
    }
}

klNetBuffer* klNetBufferCache::take() {
    std::lock_guard<klNetOwnerLock> lock(m_lock);
    if (m_count == 0) {
        return nullptr;
    }
    klNetBuffer* buffer = m_ring[m_first];
    m_first = (m_first + 1) % kSize;
    --m_count;
    return buffer;
}

std::size_t klNetBufferCache::put(klNetBuffer* buffer, klNetBuffer** overflow) {
    std::lock_guard<klNetOwnerLock> lock(m_lock);
    std::size_t moved = 0;
    if (m_count == kSize) {
        for (; moved < kSize / 2; ++moved) {
            overflow[moved] = m_ring[m_first];
            m_first = (m_first + 1) % kSize;
        }
        m_count -= moved;
    }
    m_ring[(m_first + m_count) % kSize] = buffer;
    ++m_count;
    return moved;
}

std::size_t klNetBufferCache::drain(klNetBuffer** out) {
    const std::size_t count = m_count;
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = m_ring[(m_first + i) % kSize];
    }
    m_first = 0;
    m_count = 0;
    m_pool = nullptr;
    m_poolId.store(0, std::memory_order_relaxed);
    return count;
}
