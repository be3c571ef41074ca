#include <support/klNetPipelineSupport.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/send/klNetBufferedSender.h>

#include <gtest/gtest.h>

using Buffer = std::shared_ptr<klNetBuffer>;
using kltest::Gate;
using kltest::kBound;
using kltest::kQuiet;
using kltest::ProbeSender;
using kltest::taggedBuffer;
using kltest::Task;

namespace {

// Buffers for these destinations hold the worker that sends them until the gate opens.
constexpr unsigned int kHeld = 70, kHeldToo = 71;

// A buffered sender over probe children whose hook holds held buffers at one gate and then
// throws failure, if one is set.
struct Rig {
    explicit Rig(int capacity, int children = 1, std::string failure = {}) {
        std::vector<std::shared_ptr<klNetSender>> senders;
        for (int i = 0; i < children; ++i) {
            probes.push_back(std::make_shared<ProbeSender>(std::set<unsigned int>{1}));
            probes.back()->recorder.setHook([gate = gate, failure](const Buffer& buffer) {
                if (buffer->getDestination() == kHeld || buffer->getDestination() == kHeldToo) {
                    gate->pass();
                    if (!failure.empty()) {
                        throw klNetError(failure);
                    }
                }
            });
            senders.push_back(probes.back());
        }
        sender = klNetBufferedSender::create(senders, capacity);
    }
    ~Rig() { gate->open(); }  // never leave a worker held for the sender's destructor to join
    // Sends a held buffer and returns once a worker is held with it, alone in its batch.
    void hold(unsigned int destination = kHeld, int held = 1) {
        sender->send(taggedBuffer(1, destination));
        ASSERT_TRUE(gate->waitArrived(held));
    }
    std::vector<Buffer> received() const {
        std::vector<Buffer> all;
        for (const auto& probe : probes) {
            const auto taken = probe->recorder.taken();
            all.insert(all.end(), taken.begin(), taken.end());
        }
        return all;
    }
    // Waits (bounded) until every buffer sent so far was passed on; false on timeout or error.
    bool drained() {
        Task wait([s = sender] { s->waitAllDataTransfered(); });
        return wait.finishedWithin(kBound) && !wait.error();
    }

    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
    std::vector<std::shared_ptr<ProbeSender>> probes;
    std::shared_ptr<klNetSender> sender;
};

std::vector<std::size_t> sizesOf(const std::vector<Buffer>& buffers) {
    std::vector<std::size_t> sizes;
    for (const auto& buffer : buffers) {
        sizes.push_back(buffer->getDataSize());
    }
    return sizes;
}

class klNetBufferedSenderCapacity : public ::testing::TestWithParam<std::pair<int, int>> {};

}  // namespace

TEST_P(klNetBufferedSenderCapacity, SendBlocksWhileTheQueueIsFull) {
    const int capacity = GetParam().second;
    Rig rig(GetParam().first);
    rig.hold();
    const Buffer small = taggedBuffer(1, 1);
    Task fill([s = rig.sender, small, capacity] {
        for (int i = 0; i < capacity; ++i) {
            s->send(small);
        }
    });
    ASSERT_TRUE(fill.finishedWithin(kBound));
    Task extra([s = rig.sender, small] { s->send(small); });
    EXPECT_FALSE(extra.finishedWithin(kQuiet)) << capacity << " queued and one more fitted";
    rig.gate->open();
    EXPECT_TRUE(extra.finishedWithin(kBound));
    ASSERT_TRUE(rig.drained());
    EXPECT_EQ(std::size_t(capacity + 2), kltest::unbundled(rig.received()).size());
}

INSTANTIATE_TEST_SUITE_P(Capacities, klNetBufferedSenderCapacity,
                         ::testing::Values(std::make_pair(0, 256), std::make_pair(-1, 256),
                                           std::make_pair(5, 5)));

TEST(klNetBufferedSender, BatchesStopAt65536BytesAndBundleRunsForOneDestination) {
    Rig large(0);
    large.hold();
    std::vector<Buffer> sent;
    for (unsigned char tag = 1; tag <= 5; ++tag) {
        sent.push_back(taggedBuffer(40000, 1, tag));
        large.sender->send(sent.back());
    }
    large.gate->open();
    ASSERT_TRUE(large.drained());
    auto received = large.received();
    // Two buffers of 40024 bytes reach the batch limit, so they travel as a bundle of two.
    EXPECT_EQ((std::vector<std::size_t>{1, 2 * 40024, 2 * 40024, 40000}), sizesOf(received));
    received.erase(received.begin());
    EXPECT_EQ(kltest::concatPayloads(sent), kltest::concatPayloads(kltest::unbundled(received)));

    Rig small(0);
    small.hold();
    sent.clear();
    for (unsigned int destination : {1, 1, 2, 1, 1}) {
        sent.push_back(taggedBuffer(10 * (sent.size() + 1), destination));
        small.sender->send(sent.back());
    }
    small.gate->open();
    ASSERT_TRUE(small.drained());
    received = small.received();
    EXPECT_EQ((std::vector<std::size_t>{1, 24 + 10 + 24 + 20, 30, 24 + 40 + 24 + 50}),
              sizesOf(received));
    ASSERT_EQ(4u, received.size());
    EXPECT_EQ(sent[2], received[2]);  // alone: passed on as it is
    EXPECT_EQ(klNetMessageTypeBundle, received[3]->getType());
    received.erase(received.begin());
    EXPECT_EQ(kltest::concatPayloads(sent), kltest::concatPayloads(kltest::unbundled(received)));
}

TEST(klNetBufferedSender, WaitAllDataTransferedReturnsOnlyOnceEverythingWasPassedOn) {
    Rig rig(0);
    EXPECT_TRUE(rig.drained());  // idle: at once, after asking the child
    EXPECT_GT(rig.probes[0]->waitedAt, 0);
    rig.hold();
    for (unsigned int i = 0; i < 20; ++i) {
        rig.sender->send(taggedBuffer(100 + i, 1 + i % 3));
    }
    Task wait([s = rig.sender] { s->waitAllDataTransfered(); });
    EXPECT_FALSE(wait.finishedWithin(kQuiet));
    rig.gate->open();
    ASSERT_TRUE(wait.finishedWithin(kBound));
    EXPECT_EQ(21u, kltest::unbundled(rig.received()).size());
}

TEST(klNetBufferedSender, AWorkerErrorIsRethrownAsTheSameObjectByEveryLaterCall) {
    Rig rig(2, 1, "link down");
    rig.hold();
    rig.sender->send(taggedBuffer(5, 1));
    rig.sender->send(taggedBuffer(5, 1));
    Task blocked([s = rig.sender] { s->send(taggedBuffer(5, 1)); });
    EXPECT_FALSE(blocked.finishedWithin(kQuiet));
    rig.gate->open();  // the child throws now; the worker empties the queue, freeing the caller
    EXPECT_TRUE(blocked.finishedWithin(kBound));

    Task wait([s = rig.sender] { s->waitAllDataTransfered(); });
    ASSERT_TRUE(wait.finishedWithin(kBound));
    ASSERT_TRUE(wait.error());
    std::vector<const void*> objects;
    const auto expectStored = [&](const std::function<void()>& call) {
        try {
            call();
            ADD_FAILURE() << "no error";
        } catch (const klNetError& error) {
            EXPECT_STREQ("link down", error.what());
            objects.push_back(&error);
        }
    };
    expectStored([&] { std::rethrow_exception(wait.error()); });
    expectStored([&] { rig.sender->send(taggedBuffer(5, 1)); });
    expectStored([&] { rig.sender->send(taggedBuffer(5, 1)); });
    expectStored([&] { rig.sender->waitAllDataTransfered(); });
    ASSERT_EQ(4u, objects.size());
    EXPECT_EQ(std::vector<const void*>(4, objects[0]), objects);
    EXPECT_TRUE(rig.received().empty());
}

TEST(klNetBufferedSender, AnEmptyBufferStopsTheWorkerThatTakesItAndIsNotSent) {
    Rig one(0);
    const Buffer before = taggedBuffer(10, 1), after = taggedBuffer(11, 1);
    one.sender->send(before);
    one.sender->send(taggedBuffer(0, 1));
    one.sender->send(after);
    ASSERT_TRUE(kltest::waitUntil([&] { return !one.received().empty(); }));
    EXPECT_FALSE(kltest::waitUntil([&] { return one.received().size() > 1; }, kQuiet));
    EXPECT_EQ(std::vector<Buffer>{before}, one.received());

    Rig two(0, 2);  // the other worker carries on
    two.sender->send(taggedBuffer(0, 1));
    const Buffer later = taggedBuffer(12, 2);
    two.sender->send(later);
    ASSERT_TRUE(kltest::waitUntil([&] { return !two.received().empty(); }));
    EXPECT_EQ(std::vector<Buffer>{later}, two.received());
    for (Rig* rig : {&one, &two}) {  // and both still come apart cleanly
        Task destroy([s = std::move(rig->sender)]() mutable { s.reset(); });
        EXPECT_TRUE(destroy.finishedWithin(kBound));
    }
}

TEST(klNetBufferedSender, DestructionDiscardsQueuedBuffersAndJoinsEveryWorker) {
    Rig rig(0, 2);
    rig.hold(kHeld, 1);
    rig.hold(kHeldToo, 2);  // both workers are held now
    std::vector<std::weak_ptr<klNetBuffer>> queued;
    for (int i = 0; i < 3; ++i) {
        Buffer buffer = taggedBuffer(8, 1);
        queued.push_back(buffer);
        rig.sender->send(buffer);
    }
    Task destroy([s = std::move(rig.sender)]() mutable { s.reset(); });
    EXPECT_TRUE(kltest::waitUntil([&] {
        return std::all_of(queued.begin(), queued.end(), [](const auto& b) { return b.expired(); });
    })) << "queued buffers were not discarded";
    EXPECT_FALSE(destroy.finishedWithin(kQuiet)) << "returned before joining the held workers";
    rig.gate->open();
    EXPECT_TRUE(destroy.finishedWithin(kBound));
    EXPECT_EQ((std::vector<std::size_t>{1, 1}), sizesOf(rig.received()));
}
