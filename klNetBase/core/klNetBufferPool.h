// klNetBufferPool: the one process-wide source of klNetBuffers.
//
// Buffers are large and used at a high rate, so they are never freed while the process runs: a
// buffer handed out is wrapped in a std::shared_ptr whose deleter pushes it back into the pool's
// lock-free first-in-first-out queue. The pool grows one buffer at a time whenever it runs dry and
// never shrinks, so it holds as many buffers as were ever in use at once. A new buffer is zeroed
// completely, header and payload, so no stale bytes of other allocations can ever travel; a
// recycled buffer keeps the header and payload of its last use.
//
// Thread safety: every member may be called from any thread, and a buffer may be released on any
// thread. The queue's own lock-free operations are the only synchronisation.
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/klNetBaseExport.h>

#include <tbb/cache_aligned_allocator.h>
#include <tbb/concurrent_queue.h>

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

    static klNetBufferPool s_instance;

private:
    using Allocator = tbb::cache_aligned_allocator<klNetBuffer>;

    // Creates one zeroed buffer and pushes it into the queue.
    void addBuffer();

    tbb::concurrent_queue<klNetBuffer*, tbb::cache_aligned_allocator<klNetBuffer*>> m_free;
};
