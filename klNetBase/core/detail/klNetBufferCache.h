// klNetBufferCache: the free buffers that one thread keeps of one klNetBufferPool, so that a thread
// that lets go of a buffer and takes the next one gets the same, still warm, buffer back without
// touching anything shared. Internal to the library.
//
// A cache is a ring of at most klNetBufferPool::kThreadCacheSize buffers, first in, first out.
// Every thread that uses a pool gets one per pool (for up to four pools at a time; a thread that
// uses more goes to the shared list for the others). All caches are registered process-wide, so a
// pool can take a buffer from another thread's cache when it has no other, and can free what the
// caches hold of it when it goes; a thread that ends gives its cached buffers back to their pools.
//
// Thread safety: each cache has a lock of its own, taken by its thread on every take and put
// (uncontended but for the rare visits of a pool from another thread, so one atomic exchange to
// take it and a plain store to give it back). Lock order: the registry, then a cache, then a
// pool's shared list.
#pragma once

#include <klNetBase/core/klNetBufferPool.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

// A lock for data that one thread uses almost alone: another party that finds it taken yields
// until it is free.
class klNetOwnerLock {
public:
    void lock() noexcept {
        while (m_taken.exchange(true, std::memory_order_acquire)) {
            while (m_taken.load(std::memory_order_relaxed)) {
                std::this_thread::yield();
            }
        }
    }
    void unlock() noexcept { m_taken.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_taken{false};
};

class klNetBufferCache {
public:
    static constexpr std::size_t kSize = klNetBufferPool::kThreadCacheSize;

    // The calling thread's cache of pool, made on first use; null when the thread has no room
    // left for another pool or is ending.
    static klNetBufferCache* forThisThread(klNetBufferPool& pool);
    // A buffer from any thread's cache of pool, or null when they are all empty.
    static klNetBuffer* steal(const klNetBufferPool& pool);
    // Moves what every thread's cache holds of pool into out and forgets the pool, which is going.
    static void releaseAll(const klNetBufferPool& pool, std::vector<klNetBuffer*>& out);

    // The buffer cached longest ago, or null when the cache is empty.
    klNetBuffer* take();
    // Caches buffer. A full cache first moves its older half into overflow (room for kSize / 2)
    // and returns how many it moved; otherwise 0.
    std::size_t put(klNetBuffer* buffer, klNetBuffer** overflow);

    class Thread;

private:
    // Moves everything out and forgets the pool. REQUIRES: m_lock held.
    std::size_t drain(klNetBuffer** out);
    // The pool this cache serves, 0 when none; written under m_lock, read on the owner's fast
    // path without it.
    std::atomic<std::uint64_t> m_poolId{0};
    klNetBufferPool* m_pool = nullptr;
    klNetOwnerLock m_lock;
    // Guarded by m_lock.
    klNetBuffer* m_ring[kSize] = {};
    std::size_t m_first = 0;
    std::size_t m_count = 0;
};
