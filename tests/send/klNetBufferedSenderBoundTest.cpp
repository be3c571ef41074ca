// klNetBufferedSender bounded by the pool buffers its waiting batches hold: small buffers packed
// into a bundle hold one between them, every buffer that waits as it was sent holds one.
#include <support/klNetPipelineSupport.h>

using namespace kltest;

TEST(klNetBufferedSender, BoundedByPoolBuffersPackedBuffersRunAheadAndOthersBlock) {
    auto gate = std::make_shared<Gate>();
    auto probe = std::make_shared<ProbeSender>(std::set<unsigned int>{1, 2});
    probe->recorder->hook = [gate](const Buffer& buffer) {
        if (buffer->getDestination() == 70) {
            gate->pass();
        }
    };
    auto sender = klNetBufferedSender::create({probe}, 2, klNetBufferedSender::Bound::PoolBuffers);
    struct Opener {
        std::shared_ptr<Gate> gate;
        ~Opener() { gate->open(); }  // never leave the worker held for the destructor to join
    } opener{gate};
    sender->send(taggedBuffer(1, 70));
    ASSERT_TRUE(gate->waitArrived());
    Task packed([sender] {
        for (int i = 0; i < 1000; ++i) {  // 29000 bytes: one batch, one bundle
            sender->send(taggedBuffer(5, 1));
        }
        sender->send(taggedBuffer(5, 2));  // a second pool buffer: the bound is reached
    });
    ASSERT_TRUE(packed.finishedWithin(kBound)) << "packed buffers were held back";
    Task blocked([sender] { sender->send(taggedBuffer(6, 1)); });
    EXPECT_FALSE(blocked.finishedWithin(kQuiet)) << "a third pool buffer fitted";
    gate->open();
    ASSERT_TRUE(blocked.finishedWithin(kBound));
    sender->waitAllDataTransfered();
    std::vector<std::pair<std::size_t, std::size_t>> sizes;  // data size, destination
    for (const auto& buffer : probe->sent()) {
        sizes.emplace_back(buffer->getDataSize(), buffer->getDestination());
    }
    EXPECT_EQ((std::vector<std::pair<std::size_t, std::size_t>>{
                  {1, 70}, {1000 * 29, 1}, {5, 2}, {6, 1}}),
              sizes);
}
