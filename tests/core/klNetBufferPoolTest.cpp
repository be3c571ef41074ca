#include <support/klNetTestSupport.h>

#include <mutex>
#include <thread>
#include <unordered_set>

using kltest::Buffers;

TEST(klNetBufferPool, CreatedBuffersAreZeroEvenOnReusedMemory) {
    constexpr std::size_t kRecordSize = klNetBuffer::getHeaderSize() + klNetBuffer::getCapacity();
    {  // Leaves freed, dirty buffer memory behind for the allocator to hand out again.
        klNetBufferPool dirty;
        Buffers held;
        dirty.getMany(4, held);
        for (const auto& buffer : held) {
            std::memset(buffer->getBuffer(), 0xA5, kRecordSize);
            buffer->setSendMode(klNetSendModeSecondStage);
        }
    }
    klNetBufferPool pool;
    Buffers held;  // held at once, so every one is newly created
    pool.getMany(4, held);
    for (const auto& buffer : held) {
        const unsigned char* bytes = buffer->getBuffer();
        EXPECT_TRUE(
            std::all_of(bytes, bytes + kRecordSize, [](unsigned char b) { return b == 0; }));
        EXPECT_EQ(klNetSendModeDefault, buffer->getSendMode());
    }
}

TEST(klNetBufferPool, ReleasedBuffersComeBackFirstInFirstOutWithOldContents) {
    klNetBufferPool pool;
    Buffers out;
    pool.getMany(-3, out);
    pool.getMany(3, out);
    ASSERT_EQ(3u, out.size());
    const std::vector<klNetBuffer*> raw = {out[0].get(), out[1].get(), out[2].get()};
    out[1]->setDataSize(17);
    out[1]->setSendMode(klNetSendModeFirstStage);
    for (const int i : {1, 2, 0}) {
        out[i].reset();
    }
    pool.getMany(2, out);  // appends
    EXPECT_EQ(raw[1], out[3].get());
    EXPECT_EQ(raw[2], out[4].get());
    EXPECT_EQ(17u, out[3]->getDataSize());  // nothing is reset on the way back
    EXPECT_EQ(klNetSendModeFirstStage, out[3]->getSendMode());
    out[4].reset();  // to the back, behind the one released before
    EXPECT_EQ(raw[0], pool.get().get());
    EXPECT_EQ(raw[2], pool.get().get());
}

TEST(klNetBufferPool, ConcurrentUsersNeverShareABuffer) {
    std::mutex mutex;
    std::unordered_set<klNetBuffer*> inUse;  // guarded by mutex
    int duplicates = 0;                      // guarded by mutex
    std::vector<std::thread> threads;
    for (int id = 0; id < 6; ++id) {
        threads.emplace_back([&, id] {
            for (int round = 0; round < 4000; ++round) {
                Buffers held;  // released at the end of the round, racing with the others
                klNetBufferPool::popMany(1 + (round + id) % 3, held);
                std::unique_lock<std::mutex> lock(mutex);
                for (const auto& buffer : held) {
                    duplicates += inUse.insert(buffer.get()).second ? 0 : 1;
                }
                lock.unlock();
                std::this_thread::yield();
                lock.lock();
                for (const auto& buffer : held) {
                    inUse.erase(buffer.get());
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, duplicates);
}
