#include <support/klNetPipelineSupport.h>

#include <klNetBase/recv/klNetMultiLinkReceiver.h>
#include <klNetBase/send/klNetSender.h>

#include <gtest/gtest.h>

using Buffer = std::shared_ptr<klNetBuffer>;
using kltest::Bytes;
using kltest::kBound;
using kltest::Task;

namespace {

constexpr std::uint32_t kCount = 3000;
// Source of the buffer that closes each link's stream, sent past the pipeline.
constexpr std::uint32_t kEnd = 0xFFFFFFFF;

// Mostly small buffers, which the sender bundles, with some up to 128 KiB.
std::size_t sizeOf(std::uint32_t id) {
    const std::uint32_t hash = id * 2654435761u;
    if (id < 2) {
        return id == 0 ? 131072 : 1;
    }
    return 1 + hash % (id % 10 == 0 ? 131072 : id % 10 < 3 ? 40000 : 1500);
}

// The id's little-endian bytes, as many as fit, then bytes that depend on id and place.
Bytes contentOf(std::uint32_t id) {
    Bytes bytes(sizeOf(id));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i < 4 ? id >> (8 * i) : id * 131 + i * 7);
    }
    return bytes;
}

Buffer bufferFor(std::uint32_t id, const Bytes& content) {
    Buffer buffer = kltest::bufferWith(content);
    buffer->setType(klNetMessageTypeMessage);
    buffer->setCompression(klNetCompressionNone, content.size());
    buffer->setSource(id);
    buffer->setDestination(1);
    return buffer;
}

}  // namespace

TEST(klNetPipeline, ABufferedSenderOverThreeLinksDeliversEveryBufferOnceToAMultiLinkReceiver) {
    std::vector<kltest::SocketPair> pairs;
    std::vector<std::shared_ptr<klNetLink>> nears, fars;
    for (int i = 0; i < 3; ++i) {
        pairs.push_back(kltest::connectedPair());
        nears.push_back(pairs.back().near);
        fars.push_back(pairs.back().far);
    }
    const auto receiver = klNetMultiLinkReceiver::create(fars);
    std::vector<int> seen(kCount, 0);
    int ends = 0, garbled = 0;
    Task reading([&] {
        std::queue<Buffer> records;
        while (ends < 3) {
            Buffer got;
            receiver->recv(got);
            if (got->getType() == klNetMessageTypeBundle) {
                got->split(records);
            } else {
                records.push(got);
            }
            for (; !records.empty(); records.pop()) {
                const std::size_t id = records.front()->getSource();
                if (id == kEnd) {
                    ++ends;
                } else if (id >= kCount ||
                           kltest::payloadOf(*records.front()) != contentOf(std::uint32_t(id))) {
                    ++garbled;
                } else {
                    ++seen[id];
                }
            }
        }
    });

    auto sender = klNetSender::createBundle(nears, true, {1});
    for (std::uint32_t id = 0; id < kCount; ++id) {
        sender->send(bufferFor(id, contentOf(id)));
    }
    Task drain([sender] { sender->waitAllDataTransfered(); });
    ASSERT_TRUE(drain.finishedWithin(kBound));
    ASSERT_FALSE(drain.error());
    for (const auto& near : nears) {  // the workers are idle now: everything is on the wire
        near->send(bufferFor(kEnd, {0xEE}));
    }
    if (!reading.finishedWithin(kBound)) {
        ADD_FAILURE() << "only " << ends << " of 3 links ended";
        receiver->shutdown();
        ASSERT_TRUE(reading.finishedWithin(kBound));
    }
    EXPECT_FALSE(reading.error());
    EXPECT_EQ(0, garbled);
    EXPECT_EQ(0, std::count_if(seen.begin(), seen.end(), [](int n) { return n != 1; }))
        << "buffers missing or delivered twice";

    sender->shutdown();
    receiver->shutdown();
    Task destroy([s = std::move(sender)]() mutable { s.reset(); });
    EXPECT_TRUE(destroy.finishedWithin(kBound));
}
