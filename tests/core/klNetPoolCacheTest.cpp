// The buffer pool's thread caches: what a thread lets go of stays reusable by every thread, is
// bounded, is freed with the pool, and getting and releasing a buffer allocates nothing.
#include <support/klNetAllocationProbe.h>
#include <support/klNetTestSupport.h>

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

using namespace kltest;

namespace {

// Whether the page that holds buffer is still mapped (mincore fails with ENOMEM once it is not).
bool mapped(const klNetBuffer* buffer) {
    static const std::uintptr_t page = std::uintptr_t(::sysconf(_SC_PAGESIZE));
    unsigned char resident;
    void* start = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(buffer) & ~(page - 1));
    return ::mincore(start, 1, &resident) == 0 || errno != ENOMEM;
}

}  // namespace

TEST(klNetPoolCache, ABufferLetGoOnAnotherThreadIsReusedWithItsContentsBeforeANewOneIsMade) {
    for (const bool threadEnds : {false, true}) {
        klNetBufferPool pool;
        klNetBuffer* released = nullptr;
        std::promise<void> leave;
        std::promise<void> done;
        std::thread other([&] {
            Buffer buffer = pool.get();
            buffer->setDataSize(1234);
            released = buffer.get();
            buffer.reset();  // parked in this thread's cache
            done.set_value();
            leave.get_future().wait();
        });
        done.get_future().wait();
        if (threadEnds) {  // a thread that ends hands its cache back
            leave.set_value();
            other.join();
        }
        Buffer again = pool.get();
        EXPECT_EQ(released, again.get()) << "thread ended: " << threadEnds;
        EXPECT_EQ(1234u, again->getDataSize());
        if (!threadEnds) {
            leave.set_value();
            other.join();
        }
    }
}

TEST(klNetPoolCache, ThreadCachesAreBoundedAndGoWithTheirPoolWhileTheirThreadsRun) {
    auto pool = std::make_unique<klNetBufferPool>();
    pool->setFreeLimit(2);
    std::vector<klNetBuffer*> raw;
    std::promise<void> leave;
    std::promise<void> done;
    std::thread other([&] {
        Buffers held;
        pool->getMany(20, held);
        for (const auto& buffer : held) {
            raw.push_back(buffer.get());
        }
        held.clear();  // 8 stay in this thread's cache, 2 in the pool's list, 10 are freed
        done.set_value();
        leave.get_future().wait();
    });
    done.get_future().wait();
    EXPECT_EQ(pool->getFreeLimit() + klNetBufferPool::kThreadCacheSize,
              std::size_t(std::count_if(raw.begin(), raw.end(), mapped)));
    pool.reset();
    EXPECT_EQ(0, std::count_if(raw.begin(), raw.end(), mapped));
    leave.set_value();
    other.join();  // the thread's end must not touch the pool that is gone
}

TEST(klNetPoolCache, GettingAndReleasingWarmBuffersAllocatesNothingAndObservedOnesStayOut) {
    klNetBufferPool pool;
    Buffers warm;
    pool.getMany(4, warm);
    warm.clear();
    const std::size_t before = allocationCount();
    int reusedWhileObserved = 0;
    for (int i = 0; i < 1000; ++i) {
        Buffer one = pool.get();
        const klNetBuffer* raw = one.get();
        std::weak_ptr<klNetBuffer> observer = one;  // keeps the control block, not the buffer
        one.reset();
        Buffer other = pool.get();
        reusedWhileObserved += other.get() == raw || !observer.expired() ? 1 : 0;
    }
    EXPECT_EQ(before, allocationCount());
    EXPECT_EQ(0, reusedWhileObserved);
}
