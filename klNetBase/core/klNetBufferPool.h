// klNetBufferPool: the one process-wide source of klNetBuffers.
//
// Buffers are large and used at a high rate, so they are not freed as they are let go: a buffer
// handed out is wrapped in a std::shared_ptr whose deleter pushes it back into the pool's
// lock-free first-in-first-out queue. The pool grows one buffer at a time whenever it runs dry.
// It keeps at most getFreeLimit() free buffers (default 1024, about 129 MiB, far more than a busy
// stream's stages let go of at once): a buffer let go while that many wait is freed instead, so
// that a burst does not keep its peak of memory for the life of the process (each buffer is a
// mapping of its own, so its memory goes back to the system). A new buffer is zeroed completely,
// header and payload, so no stale bytes of other allocations can ever travel; a recycled buffer
// keeps the header and payload of its last use.
//
// Thread safety: every member may be called from any thread, and a buffer may be released on any
// thread. The queue's own lock-free operations and atomic counters are the only synchronisation;
// the free limit may be overshot by the number of threads letting go of buffers at the same time.
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/klNetBaseExport.h>

#include <tbb/cache_aligned_allocator.h>
#include <tbb/concurrent_queue.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

class KLNETBASE_EXPORT klNetBufferPool {
public:
    klNetBufferPool() = default;
    // Frees every buffer in the queue. Buffers still in use are not freed: they must not be
    // released after the pool is gone.
    ~klNetBufferPool();

    klNetBufferPool(const klNetBufferPool&) = delete;
    klNetBufferPool& operator=(const klNetBufferPool&) = delete;

    // The buffer released longest ago, or a new zeroed one when none is free.
    std::shared_ptr<klNetBuffer> get();
    // Appends n buffers to out (out is not cleared); nothing when n is below 1.
    void getMany(int n, std::vector<std::shared_ptr<klNetBuffer>>& out);

    // The same on the process-wide pool.
    static std::shared_ptr<klNetBuffer> pop() { return s_instance.get(); }
    static void popMany(int n, std::vector<std::shared_ptr<klNetBuffer>>& out) {
        s_instance.getMany(n, out);
    }

    // The most free buffers kept; at least 1, so that a buffer let go is always there to be
    // reused while nothing else is free.
    static constexpr std::size_t kDefaultFreeLimit = 1024;
    void setFreeLimit(std::size_t buffers);
    std::size_t getFreeLimit() const { return m_freeLimit.load(std::memory_order_relaxed); }

    static klNetBufferPool s_instance;

private:
    // Creates one zeroed buffer and pushes it into the queue.
    void addBuffer();
    // The deleter of every buffer handed out: back into the queue, or freed above the limit.
    void release(klNetBuffer* buffer);
    static void destroy(klNetBuffer* buffer);

    tbb::concurrent_queue<klNetBuffer*, tbb::cache_aligned_allocator<klNetBuffer*>> m_free;
    // Buffers in m_free, counted before they go in and after they come out, so never below the
    // queue's own size.
    std::atomic<std::size_t> m_freeCount{0};
    std::atomic<std::size_t> m_freeLimit{kDefaultFreeLimit};
};
