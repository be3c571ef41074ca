// The buffered receiver over real loopback links.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/recv/klNetBufferedReceiver.h>
#include <klNetBase/recv/klNetLinkReceiver.h>

#include <gtest/gtest.h>

using kltest::Buffer;
using kltest::kBound;
using kltest::taggedBuffer;
using kltest::Task;

namespace {

// How recv() ended: the buffer's size and first byte, or the outcome's word.
std::string next(const std::shared_ptr<klNetReceiver>& receiver) {
    std::string seen;
    const std::string how = kltest::outcome([&] {
        Buffer buffer;
        receiver->recv(buffer);
        seen = std::to_string(buffer->getDataSize()) + "/" +
               (buffer->getDataSize() ? std::to_string(buffer->getData()[0]) : "-");
    });
    return how == "returned" ? seen : how;
}

}  // namespace

TEST(klNetBufferedReceiver, ReadsLinksAheadInParallelThenHandsOnEachLinksEndAfterItsData) {
    auto [near1, far1] = kltest::connectedPair();
    auto [near2, far2] = kltest::connectedPair();
    auto receiver = klNetBufferedReceiver::create(
        {klNetLinkReceiver::create(far1), klNetLinkReceiver::create(far2)});
    // While no error is stored, a peer's empty buffer is data, not a wake-up signal.
    near2->send(taggedBuffer(0, 1));
    EXPECT_EQ("0/-", next(receiver));
    // More than the queue holds, so the first link's worker has to wait for the reader.
    constexpr int kCount = 300;
    for (int i = 0; i < kCount; ++i) {
        near1->send(taggedBuffer(100 + std::size_t(i), 1, static_cast<unsigned char>(i)));
    }
    near1->shutdown();
    near2->send(taggedBuffer(7, 1, 200));
    Task read([receiver, near2 = near2] {
        std::vector<std::string> fromFirst;
        bool secondSeen = false;
        for (int i = 0; i < kCount + 2; ++i) {
            const std::string got = next(receiver);
            if (got == "7/200") {
                EXPECT_FALSE(secondSeen);
                secondSeen = true;
            } else {
                fromFirst.push_back(got);
            }
        }
        EXPECT_TRUE(secondSeen);
        ASSERT_EQ(std::size_t(kCount + 1), fromFirst.size());
        for (int i = 0; i < kCount; ++i) {  // one link's buffers keep their order
            ASSERT_EQ(std::to_string(100 + i) + "/" + std::to_string(i % 256), fromFirst[i]);
        }
        EXPECT_EQ("closed", fromFirst[kCount]);
        // The second link still delivers after the first has failed.
        near2->send(taggedBuffer(9, 1, 201));
        EXPECT_EQ("9/201", next(receiver));
        near2->shutdown();
        EXPECT_EQ("closed", next(receiver));
        EXPECT_EQ("closed", next(receiver)) << "the reader waited for workers that had ended";
    });
    ASSERT_TRUE(read.finishedWithin(kBound));
    read.get();
}

TEST(klNetBufferedReceiver, DestructionShutsTheLinksAndJoinsWorkersEvenWithAFullQueue) {
    auto [near, far] = kltest::connectedPair();
    auto receiver = klNetBufferedReceiver::create({klNetLinkReceiver::create(far)});
    for (int i = 0; i < 400; ++i)
        near->send(taggedBuffer(10, 1));
    Task destroy([r = std::move(receiver)]() mutable { r.reset(); });
    EXPECT_TRUE(destroy.finishedWithin(kBound));
    Buffer buffer;
    EXPECT_EQ("closed", kltest::outcome([&] { far->recv(buffer); }));
}
