// klNetBufferPool: the one process-wide source of klNetBuffers.
//
// Buffers are large and used at a high rate, so they are not freed as they are let go: a buffer
// handed out is wrapped in a std::shared_ptr whose control block lives in the buffer's own memory,
// and letting go of the last owner puts the buffer back into the pool, control block and all, so
// that getting and releasing a buffer allocates nothing. The pool grows one buffer at a time
// whenever it runs dry. A new buffer is zeroed completely, header and payload, so no stale bytes
// of other allocations can ever travel; a recycled buffer keeps the header and payload of its last
// use.
//
// Where free buffers wait: each thread keeps the last few buffers it let go of in a small cache of
// its own (at most kThreadCacheSize per pool), first in, first out, and gets its next buffers from
// there. A thread that sends small messages thus reuses the same few buffers, still in the
// processor's cache, without touching anything shared. Beyond that a shared list, most recently
// returned first, takes what caches overflow with and refills them; when both are empty a buffer
// parked in another thread's cache is taken before a new one is made, so a buffer let go is reused
// whenever it is the only free one.
//
// Bounds: the shared list keeps at most getFreeLimit() buffers (default 1024, about 129 MiB, far
// more than a busy stream's stages let go of at once); a buffer let go beyond that is freed, so
// that a burst does not keep its peak of memory for the life of the process (each buffer is a
// mapping of its own, so its memory goes back to the system). The thread caches come on top, small
// and bounded: a thread that ends hands its cached buffers back to the pool, and a pool that goes
// frees the buffers parked in the caches of threads that still run.
//
// Thread safety: every member may be called from any thread, and a buffer may be released on any
// thread. A pool must outlive every buffer it handed out and every use of it.
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/klNetBaseExport.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class KLNETBASE_EXPORT klNetBufferPool {
public:
    klNetBufferPool();
    // Frees every free buffer, those in thread caches included. Buffers still in use are not
    // freed: they must not be released after the pool is gone.
    ~klNetBufferPool();

    klNetBufferPool(const klNetBufferPool&) = delete;
    klNetBufferPool& operator=(const klNetBufferPool&) = delete;

    // A free buffer, the calling thread's own released ones first, or a new zeroed one when none
    // is free.
    std::shared_ptr<klNetBuffer> get();
    // Appends n buffers to out (out is not cleared); nothing when n is below 1.
    void getMany(int n, std::vector<std::shared_ptr<klNetBuffer>>& out);

    // The same on the process-wide pool.
    static std::shared_ptr<klNetBuffer> pop() { return s_instance.get(); }
    static void popMany(int n, std::vector<std::shared_ptr<klNetBuffer>>& out) {
        s_instance.getMany(n, out);
    }

    // The most free buffers kept in the shared list; at least 1. Thread caches come on top.
    static constexpr std::size_t kDefaultFreeLimit = 1024;
    void setFreeLimit(std::size_t buffers);
    std::size_t getFreeLimit() const { return m_freeLimit.load(std::memory_order_relaxed); }

    // The most buffers one thread keeps of one pool.
    static constexpr std::size_t kThreadCacheSize = 8;

    static klNetBufferPool s_instance;

private:
    friend class klNetBufferCache;
    template <class T>
    class ControlAllocator;

    // A free buffer from the shared list, another thread's cache or a new mapping.
    klNetBuffer* takeFree();
    // The owning std::shared_ptr, its control block placed in the buffer's mapping.
    std::shared_ptr<klNetBuffer> wrap(klNetBuffer* buffer);
    // Called once the last owner and observer of a buffer have let go.
    void recycle(klNetBuffer* buffer);
    // Into the shared list while it is below the limit; the rest is freed.
    void giveBack(klNetBuffer* const* buffers, std::size_t count);
    static klNetBuffer* create();
    static void destroy(klNetBuffer* buffer);

    // Tells this pool's thread caches apart from those of pools gone before it at the same place.
    const std::uint64_t m_id;
    std::mutex m_mutex;
    // The shared free list, the most recently returned last; guarded by m_mutex.
    std::vector<klNetBuffer*> m_free;
    std::atomic<std::size_t> m_freeLimit{kDefaultFreeLimit};
};
