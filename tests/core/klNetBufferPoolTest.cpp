#include <support/klNetTestSupport.h>

#include <klNetBase/core/klNetBufferPool.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

using BufferList = std::vector<std::shared_ptr<klNetBuffer>>;

bool isAllZero(const klNetBuffer& buffer) {
    const unsigned char* bytes = buffer.getBuffer();
    const std::size_t size = klNetBuffer::getHeaderSize() + klNetBuffer::getCapacity();
    return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; }) &&
           buffer.getSendMode() == klNetSendModeDefault;
}

}  // namespace

TEST(klNetBufferPool, CreatedBuffersAreZeroEvenOnReusedMemory) {
    // Leave freed, dirty buffer memory behind for the allocator to hand out again.
    {
        klNetBufferPool dirty;
        BufferList held;
        dirty.getMany(4, held);
        for (const auto& buffer : held) {
            std::memset(buffer->getBuffer(), 0xA5,
                        klNetBuffer::getHeaderSize() + klNetBuffer::getCapacity());
            buffer->setSendMode(klNetSendModeSecondStage);
        }
        held.clear();
    }
    klNetBufferPool pool;
    BufferList held;  // held at once, so every one is newly created
    pool.getMany(4, held);
    for (const auto& buffer : held) {
        EXPECT_TRUE(isAllZero(*buffer));
    }
    // The process-wide pool creates a new buffer when every one it has is in use: hold more than
    // this program ever has free at once, then take one more.
    BufferList global;
    klNetBufferPool::popMany(64, global);
    for (const auto& buffer : global) {
        std::memset(buffer->getData(), 0xA5, klNetBuffer::getCapacity());
    }
    EXPECT_TRUE(isAllZero(*klNetBufferPool::pop()));
}

TEST(klNetBufferPool, ReleasedBuffersComeBackFirstInFirstOutWithOldContents) {
    klNetBufferPool pool;
    auto a = pool.get();
    auto b = pool.get();
    auto c = pool.get();
    klNetBuffer* const rawA = a.get();
    klNetBuffer* const rawB = b.get();
    klNetBuffer* const rawC = c.get();
    EXPECT_TRUE(rawA != rawB && rawB != rawC && rawA != rawC);
    b->setDataSize(17);
    b->getData()[5] = 0x5B;
    b->setSendMode(klNetSendModeFirstStage);
    b.reset();
    c.reset();
    a.reset();

    auto first = pool.get();
    EXPECT_EQ(rawB, first.get());
    EXPECT_EQ(17u, first->getDataSize());  // nothing is reset on the way back
    EXPECT_EQ(0x5B, first->getData()[5]);
    EXPECT_EQ(klNetSendModeFirstStage, first->getSendMode());
    EXPECT_EQ(rawC, pool.get().get());
    // The buffer released just above went to the back, behind a.
    EXPECT_EQ(rawA, pool.get().get());
    EXPECT_EQ(rawC, pool.get().get());
}

TEST(klNetBufferPool, GetManyAppendsOnlyForPositiveCounts) {
    klNetBufferPool pool;
    BufferList out;
    pool.getMany(2, out);
    const BufferList before = out;
    pool.getMany(0, out);
    EXPECT_EQ(before, out);
    pool.getMany(-3, out);
    EXPECT_EQ(before, out);
    pool.getMany(3, out);
    ASSERT_EQ(5u, out.size());
    EXPECT_EQ(before[0], out[0]);
    EXPECT_EQ(before[1], out[1]);
    EXPECT_NE(out[2], out[4]);
}

TEST(klNetBufferPool, ConcurrentUsersNeverShareABuffer) {
    constexpr int kThreads = 6;
    constexpr int kRounds = 4000;
    std::mutex inUseMutex;
    std::unordered_set<klNetBuffer*> inUse;  // guarded by inUseMutex
    std::atomic<int> duplicates{0};
    std::atomic<int> corrupted{0};

    auto worker = [&](int id) {
        BufferList held;
        for (int round = 0; round < kRounds; ++round) {
            held.clear();  // releases on this thread, racing with the others' gets
            klNetBufferPool::popMany(1 + (round + id) % 3, held);
            for (const auto& buffer : held) {
                std::lock_guard<std::mutex> lock(inUseMutex);
                if (!inUse.insert(buffer.get()).second) {
                    ++duplicates;
                }
            }
            for (const auto& buffer : held) {
                buffer->setSource(std::size_t(id));
                buffer->getData()[0] = static_cast<unsigned char>(id);
            }
            std::this_thread::yield();
            for (const auto& buffer : held) {
                if (buffer->getSource() != std::size_t(id) || buffer->getData()[0] != id) {
                    ++corrupted;
                }
                std::lock_guard<std::mutex> lock(inUseMutex);
                inUse.erase(buffer.get());
            }
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(worker, i);
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, duplicates.load());
    EXPECT_EQ(0, corrupted.load());
    EXPECT_TRUE(inUse.empty());
}
