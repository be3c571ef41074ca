// The receivers that reshape what arrives before the reader sees it: the unbundle receiver splits
// bundles, the sort receiver restores the multicast sequence order, and the forward receiver keeps
// what is for its node and relays the rest. Each runs over a scripted child.
#include <support/klNetStreamTestStages.h>

#include <gtest/gtest.h>

#include <memory>
#include <queue>
#include <set>

using kltest::Buffers;
using kltest::Bytes;
using kltest::hex;
using kltest::makeBuffer;
using kltest::RecordingSender;
using kltest::ScriptedReceiver;

namespace {

std::shared_ptr<klNetBuffer> multicast(unsigned sequence) {
    return makeBuffer(Bytes{static_cast<unsigned char>(sequence)}, klNetMessageTypeStream, 2, 0,
                      sequence);
}

std::shared_ptr<klNetBuffer> bundleOf(const Buffers& parts) {
    std::queue<std::shared_ptr<klNetBuffer>> queue;
    for (const auto& part : parts) {
        queue.push(part);
    }
    std::shared_ptr<klNetBuffer> bundle;
    EXPECT_TRUE(klNetBuffer::tryBundle(queue, bundle));
    EXPECT_TRUE(queue.empty());
    EXPECT_TRUE(bundle && bundle->getType() == klNetMessageTypeBundle);
    return bundle;
}

// Expects actual to be a restored copy of original: the same header and payload bytes.
void expectCopyOf(const std::shared_ptr<klNetBuffer>& original,
                  const std::shared_ptr<klNetBuffer>& actual) {
    EXPECT_EQ(kltest::headerOf(*original), kltest::headerOf(*actual));
    EXPECT_EQ(kltest::payloadOf(*original), kltest::payloadOf(*actual));
}

std::shared_ptr<klNetBuffer> next(klNetReceiver& receiver) {
    std::shared_ptr<klNetBuffer> buffer;
    receiver.recv(buffer);
    return buffer;
}

}  // namespace

TEST(klNetReorderReceivers, UnbundleHandsOutBundlePartsInOrderReadingTheChildOnce) {
    const Buffers parts = {makeBuffer(hex("11"), klNetMessageTypeStream, 4, 2, 5),
                           makeBuffer(hex("22 23"), klNetMessageTypeMessage, 4, 2, 6, 8, 2),
                           makeBuffer(hex("33 34 35"), klNetMessageTypeImage, 4, 2, 7)};
    const auto bundle = bundleOf(parts);
    const auto plain = makeBuffer(hex("44"), klNetMessageTypeStream, 4, 2, 8);
    auto child = std::make_shared<ScriptedReceiver>(Buffers{bundle, plain});
    const auto unbundle = klNetUnbundleReceiver::create(child);
    for (const auto& part : parts) {
        SCOPED_TRACE(part->getSequence());
        expectCopyOf(part, next(*unbundle));
        EXPECT_EQ(1, child->calls);
    }
    EXPECT_EQ(plain, next(*unbundle));
    EXPECT_EQ(2, child->calls);
}

TEST(klNetReorderReceivers, SortHandsOutMulticastBuffersInSequenceOrder) {
    // 2, 1, 0: the first call holds 2 and 1 and returns 0; the held ones follow without reading.
    const Buffers early = {multicast(2), multicast(1), multicast(0)};
    auto child = std::make_shared<ScriptedReceiver>(early);
    const auto sort = klNetSortReceiver::create(child);
    EXPECT_EQ(early[2], next(*sort));
    EXPECT_EQ(3, child->calls);
    EXPECT_FALSE(child->isReadable());
    EXPECT_TRUE(sort->isReadable());  // held buffers are readable
    EXPECT_EQ(early[1], next(*sort));
    EXPECT_EQ(early[0], next(*sort));
    EXPECT_EQ(3, child->calls);
    EXPECT_FALSE(sort->isReadable());

    // Directed buffers pass at once, whether or not multicast 4 is held; their sequence numbers
    // are of their own counter and do not count as multicast 3.
    const auto directed = makeBuffer(hex("DD"), klNetMessageTypeMessage, 2, 4, 3, 9, 1);
    const auto first = makeBuffer(hex("EE"), klNetMessageTypeMessage, 2, 4, 7, 8, 1);
    child->script = {first, multicast(4), directed, multicast(3)};
    EXPECT_EQ(first, next(*sort));
    EXPECT_EQ(directed, next(*sort));
    EXPECT_EQ(3u, next(*sort)->getSequence());
    EXPECT_EQ(4u, next(*sort)->getSequence());

    // Walk the expected number up to 65535 with buffers in order; then 0 waits for 65535.
    const auto ticker = multicast(0);
    unsigned ticks = 5;
    child->generator = [&] {
        ticker->setSequence(ticks++);
        return ticker;
    };
    for (unsigned sequence = 5; sequence < 65535; ++sequence) {
        ASSERT_EQ(sequence, next(*sort)->getSequence());
    }
    child->generator = nullptr;
    const auto zero = multicast(0);
    const auto last = multicast(65535);
    child->script = {zero, last};
    EXPECT_EQ(last, next(*sort));
    EXPECT_EQ(zero, next(*sort));
    EXPECT_EQ(3 + 4 + (65535 - 5) + 2, child->calls);
}

TEST(klNetReorderReceivers, ForwardKeepsWhatIsForItsNodeAndRelaysTheRestBundled) {
    auto sender = std::make_shared<RecordingSender>(std::set<unsigned int>{7});
    const auto forA = makeBuffer(hex("A1"), klNetMessageTypeStream, 1, 7, 0);
    const auto forC = makeBuffer(hex("C1 C2"), klNetMessageTypeStream, 1, 7, 1);
    const auto toAll = makeBuffer(hex("D1"), klNetMessageTypeStream, 1, 0, 0);
    const auto forUs = makeBuffer(hex("B1"), klNetMessageTypeStream, 1, 5, 2);
    const auto forE = makeBuffer(hex("E1"), klNetMessageTypeStream, 1, 7, 3);
    const auto forUsLater = makeBuffer(hex("F1"), klNetMessageTypeStream, 1, 5, 4);
    auto child =
        std::make_shared<ScriptedReceiver>(Buffers{forA, forC, toAll, forUs, forE, forUsLater});
    child->batches = {4, 1, 1};
    const auto forward = klNetForwardReceiver::create(child, sender, 5);

    // One batch: the two buffers for 7 leave as one bundle, the multicast one after it.
    EXPECT_EQ(toAll, next(*forward));
    EXPECT_EQ(1, child->calls);
    ASSERT_EQ(2u, sender->sent.size());
    EXPECT_EQ(klNetMessageTypeBundle, sender->sent[0]->getType());
    EXPECT_EQ(7u, sender->sent[0]->getDestination());
    std::queue<std::shared_ptr<klNetBuffer>> relayed;
    sender->sent[0]->split(relayed);
    ASSERT_EQ(2u, relayed.size());
    expectCopyOf(forA, relayed.front());
    expectCopyOf(forC, relayed.back());
    EXPECT_EQ(toAll, sender->sent[1]);
    EXPECT_EQ(forUs, next(*forward));
    EXPECT_EQ(1, child->calls);

    // A batch with nothing to keep is relayed, and the next batch is read.
    EXPECT_EQ(forUsLater, next(*forward));
    EXPECT_EQ(3, child->calls);
    ASSERT_EQ(3u, sender->sent.size());
    EXPECT_EQ(forE, sender->sent[2]);
}

TEST(klNetReorderReceivers, ForwardCreateAlwaysPutsAnUnbundleReceiverOnTop) {
    // Without a sender: an unbundle receiver directly over the child, which filters nothing.
    const Buffers forOthers = {makeBuffer(hex("71"), klNetMessageTypeStream, 1, 7, 0),
                               makeBuffer(hex("72 73"), klNetMessageTypeStream, 1, 7, 1)};
    auto child = std::make_shared<ScriptedReceiver>(Buffers{bundleOf(forOthers)});
    const auto plain = klNetForwardReceiver::create(child, nullptr, 5);
    EXPECT_NE(nullptr, std::dynamic_pointer_cast<klNetUnbundleReceiver>(plain));
    expectCopyOf(forOthers[0], next(*plain));
    expectCopyOf(forOthers[1], next(*plain));
    EXPECT_EQ(1, child->calls);

    // With a sender: a bundle for this node is kept whole and split on top of the forwarding.
    auto sender = std::make_shared<RecordingSender>(std::set<unsigned int>{7});
    const Buffers forUs = {makeBuffer(hex("53"), klNetMessageTypeStream, 1, 5, 3),
                           makeBuffer(hex("54"), klNetMessageTypeStream, 1, 5, 4)};
    auto relayChild = std::make_shared<ScriptedReceiver>(Buffers{bundleOf(forUs)});
    const auto relaying = klNetForwardReceiver::create(relayChild, sender, 5);
    EXPECT_NE(nullptr, std::dynamic_pointer_cast<klNetUnbundleReceiver>(relaying));
    expectCopyOf(forUs[0], next(*relaying));
    expectCopyOf(forUs[1], next(*relaying));
    EXPECT_EQ(1, relayChild->calls);
    EXPECT_TRUE(sender->sent.empty());
}
