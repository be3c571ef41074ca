#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

using namespace kltest;

namespace {

// Mostly small buffers, which the sender bundles, with some up to 128 KiB; the payload is the
// pattern with the id's low byte in front, the id travels as the source.
Buffer bufferFor(std::uint32_t id) {
    const std::uint32_t limit = id % 10 == 0 ? 131072 : id % 10 < 3 ? 40000 : 1500;
    const std::size_t size = id == 0 ? 131072 : 1 + id * 2654435761u % limit;
    Buffer buffer = taggedBuffer(size, 1, static_cast<unsigned char>(id));
    buffer->setSource(id);
    return buffer;
}

}  // namespace

TEST(klNetPipeline, ABufferedSenderOverThreeLinksDeliversEveryBufferOnceToAMultiLinkReceiver) {
    constexpr std::uint32_t kCount = 3000;
    std::vector<std::shared_ptr<klNetLink>> nears, fars;
    for (int i = 0; i < 3; ++i) {
        const auto [near, far] = connectedPair();
        nears.push_back(near);
        fars.push_back(far);
    }
    const auto receiver = klNetUnbundleReceiver::create(klNetMultiLinkReceiver::create(fars));
    auto seen = std::make_shared<std::vector<int>>(kCount, 0);
    auto garbled = std::make_shared<int>(0);
    Task reading([receiver, seen, garbled] {
        for (int ends = 0; ends < 3;) {  // each link's stream closes with a buffer from kCount
            Buffer got;
            receiver->recv(got);
            const std::size_t id = got->getSource();
            if (id == kCount) {
                ++ends;
            } else if (id < kCount && payloadOf(*got) == payloadOf(*bufferFor(id))) {
                ++(*seen)[id];
            } else {
                ++*garbled;
            }
        }
    });
    auto sender = klNetSender::createBundle(nears, true, {1});
    for (std::uint32_t id = 0; id < kCount; ++id) {
        sender->send(bufferFor(id));
    }
    Task drain([sender] { sender->waitAllDataTransfered(); });
    ASSERT_TRUE(drain.finishedWithin(kBound));
    ASSERT_NO_THROW(drain.get());
    for (const auto& near : nears) {  // the workers are idle now: everything is on the wire
        near->send(bufferFor(kCount));
    }
    if (!reading.finishedWithin(kBound)) {
        receiver->shutdown();
        ASSERT_TRUE(reading.finishedWithin(kBound));
    }
    EXPECT_NO_THROW(reading.get()) << "not every link's stream was closed";
    EXPECT_EQ(0, *garbled);
    EXPECT_EQ(0, std::count_if(seen->begin(), seen->end(), [](int n) { return n != 1; }))
        << "buffers missing or delivered twice";
    sender->shutdown();
    Task destroy([s = std::move(sender)]() mutable { s.reset(); });
    EXPECT_TRUE(destroy.finishedWithin(kBound));
}
