// The receivers that reshape what arrives before the reader sees it: the unbundle receiver splits
// bundles, the sort receiver restores the multicast sequence order, and the forward receiver keeps
// what is for its node and relays the rest. Each runs over a scripted child.
#include <support/klNetPipelineSupport.h>

using namespace kltest;

namespace {

Buffer stream(const char* payload, unsigned destination, unsigned sequence) {
    return makeBuffer(hex(payload), klNetMessageTypeStream, 1, destination, sequence);
}

Buffer bundleOf(const Buffers& parts) {
    std::queue<Buffer> queue(std::deque<Buffer>(parts.begin(), parts.end()));
    Buffer bundle;
    klNetBuffer::tryBundle(queue, bundle);
    EXPECT_TRUE(queue.empty() && bundle->getType() == klNetMessageTypeBundle);
    return bundle;
}

Buffer next(klNetReceiver& receiver) {
    Buffer buffer;
    receiver.recv(buffer);
    return buffer;
}

}  // namespace

TEST(klNetReorderReceivers, SortHandsOutMulticastBuffersInSequenceOrder) {
    // 2, 1, 0: the first call holds 2 and 1 and returns 0; the held ones follow without reading.
    const Buffers early = {stream("02", 0, 2), stream("01", 0, 1), stream("00", 0, 0)};
    auto child = std::make_shared<ScriptedReceiver>(early);
    const auto sort = klNetSortReceiver::create(child);
    EXPECT_EQ(early[2], next(*sort));
    EXPECT_TRUE(sort->isReadable());  // the child is not, but held buffers are
    EXPECT_EQ(early[1], next(*sort));
    EXPECT_EQ(early[0], next(*sort));
    EXPECT_EQ(3, child->calls);
    EXPECT_FALSE(sort->isReadable());

    // Directed buffers pass at once, whether or not multicast 4 is held; their sequence numbers
    // are of their own counter and do not count as multicast 3.
    const auto directed = stream("DD", 4, 3), first = stream("EE", 4, 7);
    child->script = {first, stream("04", 0, 4), directed, stream("03", 0, 3)};
    EXPECT_EQ(first, next(*sort));
    EXPECT_EQ(directed, next(*sort));
    EXPECT_EQ(3u, next(*sort)->getSequence());
    EXPECT_EQ(4u, next(*sort)->getSequence());

    // Walk the expected number up to 65534 with buffers in order; then 0 and 65535 wait for
    // 65534, and the held 65535 hands the turn on to 0, wrapping.
    const auto ticker = stream("00", 0, 0);
    child->generator = [ticker, sequence = 5u]() mutable {
        ticker->setSequence(sequence++);
        return ticker;
    };
    for (unsigned sequence = 5; sequence < 65534; ++sequence) {
        ASSERT_EQ(sequence, next(*sort)->getSequence());
    }
    child->generator = nullptr;
    const auto zero = stream("00", 0, 0), last = stream("FF", 0, 65535);
    child->script = {zero, last, stream("FE", 0, 65534)};
    EXPECT_EQ(65534u, next(*sort)->getSequence());
    child->calls = 0;
    EXPECT_EQ(last, next(*sort));
    EXPECT_EQ(zero, next(*sort));
    EXPECT_EQ(0, child->calls);
}

TEST(klNetReorderReceivers, ForwardKeepsWhatIsForItsNodeRelaysTheRestAndUnbundlesOnTop) {
    auto sender = std::make_shared<ProbeSender>(std::set<unsigned int>{7});
    const auto forA = stream("A1", 7, 0), forC = stream("C1 C2", 7, 1), toAll = stream("D1", 0, 0),
               forUs = stream("B1", 5, 2), forE = stream("E1", 7, 3),
               forUsLater = stream("F1", 5, 4), forUsBundled = stream("F2", 5, 5);
    auto child = std::make_shared<ScriptedReceiver>(Buffers{
        forA, forC, toAll, forUs, forE, forUsLater, bundleOf({forUsBundled, stream("F3", 5, 6)})});
    child->batches = {4, 1, 1, 1};
    const auto forward = klNetForwardReceiver::create(child, sender, 5);

    // One batch: the two buffers for 7 leave as one bundle, the multicast one after it.
    EXPECT_EQ(toAll, next(*forward));
    ASSERT_EQ(2u, sender->sent().size());
    EXPECT_EQ(wireOf(*bundleOf({forA, forC})), wireOf(*sender->sent()[0]));
    EXPECT_EQ(toAll, sender->sent()[1]);
    EXPECT_EQ(forUs, next(*forward));
    EXPECT_EQ(1, child->calls);

    // A batch with nothing to keep is relayed, and the next batch is read.
    EXPECT_EQ(forUsLater, next(*forward));
    EXPECT_EQ(3, child->calls);
    ASSERT_EQ(3u, sender->sent().size());
    EXPECT_EQ(forE, sender->sent()[2]);
    // A bundle for this node is kept whole and split by the unbundle receiver on top.
    EXPECT_EQ(wireOf(*forUsBundled), wireOf(*next(*forward)));
    EXPECT_EQ(3u, sender->sent().size());

    // Without a sender: an unbundle receiver right over the child, which hands out the parts of a
    // bundle in order, reading the child once, and other buffers as they are.
    child->calls = 0;
    child->script = {bundleOf({forA, forC, forE}), forUs};
    const auto plain = klNetForwardReceiver::create(child, nullptr, 5);
    EXPECT_NE(nullptr, std::dynamic_pointer_cast<klNetUnbundleReceiver>(plain));
    for (const Buffer& part : {forA, forC, forE}) {
        EXPECT_EQ(wireOf(*part), wireOf(*next(*plain)));
    }
    EXPECT_EQ(1, child->calls);
    EXPECT_EQ(forUs, next(*plain));

    // Node 0 keeps a multicast buffer and relays it all the same.
    auto relay = std::make_shared<ProbeSender>(std::set<unsigned int>{7});
    child->script = {toAll};
    EXPECT_EQ(toAll, next(*klNetForwardReceiver::create(child, relay, 0)));
    EXPECT_EQ(std::vector<Buffer>{toAll}, relay->sent());
}
