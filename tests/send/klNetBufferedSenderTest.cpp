#include <support/klNetPipelineSupport.h>

using namespace kltest;

namespace {

// Buffers for this destination hold the worker that sends them until the gate opens.
constexpr unsigned int kHeld = 70;

// A buffered sender over probe children that share one recorder and hold held buffers at a gate.
struct Rig {
    explicit Rig(int capacity, int children = 1) {
        recorder->hook = [gate = gate](const Buffer& buffer) {
            if (buffer->getDestination() == kHeld) {
                gate->pass();
            }
        };
        std::vector<std::shared_ptr<klNetSender>> senders;
        for (int i = 0; i < children; ++i) {
            probes.push_back(std::make_shared<ProbeSender>(std::set<unsigned int>{1}));
            probes.back()->recorder = recorder;
            senders.push_back(probes.back());
        }
        sender = klNetBufferedSender::create(senders, capacity);
    }
    ~Rig() { gate->open(); }  // never leave a worker held for the sender's destructor to join
    // Sends a held buffer and returns once held workers number held, this one alone in its batch.
    void hold(int held = 1) {
        sender->send(taggedBuffer(1, kHeld));
        ASSERT_TRUE(gate->waitArrived(held));
    }
    std::vector<Buffer> received() const { return recorder->taken(); }
    // Expects everything sent so far to be passed on within the bound.
    void drained() {
        Task wait([s = sender] { s->waitAllDataTransfered(); });
        ASSERT_TRUE(wait.finishedWithin(kBound));
        EXPECT_NO_THROW(wait.get());
    }

    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
    std::vector<std::shared_ptr<ProbeSender>> probes;
    std::shared_ptr<klNetSender> sender;
};

}  // namespace

TEST(klNetBufferedSender, SendBlocksWhileTheQueueIsFull) {
    for (const auto& [given, capacity] : {std::pair{0, 256}, std::pair{-1, 256}, std::pair{5, 5}}) {
        Rig rig(given);
        rig.hold();
        // Destinations alternate, so nothing is bundled and every buffer arrives as it is.
        const std::vector<Buffer> small = {taggedBuffer(1, 1), taggedBuffer(1, 2)};
        Task fill([s = rig.sender, small, n = capacity] {
            for (int i = 0; i < n; ++i) {
                s->send(small[i % 2]);
            }
        });
        ASSERT_TRUE(fill.finishedWithin(kBound));
        Task extra([s = rig.sender, small, n = capacity] { s->send(small[n % 2]); });
        EXPECT_FALSE(extra.finishedWithin(kQuiet)) << capacity << " queued and one more fitted";
        rig.gate->open();
        EXPECT_TRUE(extra.finishedWithin(kBound));
        rig.drained();
        EXPECT_EQ(std::size_t(capacity + 2), rig.received().size());
    }
}

TEST(klNetBufferedSender, BatchesEndOnceTheyReach64KiBAndRunsForOneDestinationAreBundled) {
    Rig rig(0);
    rig.drained();  // idle: at once, after asking the child
    EXPECT_GT(rig.probes[0]->waitedAt, 0);
    rig.hold();
    const std::pair<std::size_t, unsigned int> queued[] = {
        {65512, 1}, {40000, 1}, {40000, 1}, {10, 1}, {20, 1}, {30, 2}, {40, 1}, {50, 1}};
    std::vector<Buffer> sent;
    for (const auto& [size, destination] : queued) {
        sent.push_back(taggedBuffer(size, destination, static_cast<unsigned char>(sent.size())));
        rig.sender->send(sent.back());
    }
    Task wait([s = rig.sender] { s->waitAllDataTransfered(); });
    EXPECT_FALSE(wait.finishedWithin(kQuiet)) << "returned while buffers were still queued";
    rig.gate->open();
    ASSERT_TRUE(wait.finishedWithin(kBound));
    // After the held buffer's batch: 65536 bytes end a batch, as do 80048; the last takes the rest.
    std::vector<std::size_t> sizes;
    for (const auto& buffer : rig.received()) {
        sizes.push_back(buffer->getDataSize());
    }
    EXPECT_EQ(
        (std::vector<std::size_t>{1, 65512, 2 * 40024, 24 + 10 + 24 + 20, 30, 24 + 40 + 24 + 50}),
        sizes);
    EXPECT_EQ(sent[0], rig.received().at(1));  // alone: passed on as it is
}

TEST(klNetBufferedSender, AWorkerErrorFreesBlockedCallersAndIsRethrownByEveryLaterCall) {
    Rig rig(2);
    rig.recorder->hook = [gate = rig.gate](const Buffer&) {
        gate->pass();
        throw klConnectionClosed();  // of a type of its own, so that slicing shows
    };
    rig.hold();
    rig.sender->send(taggedBuffer(5, 1));
    rig.sender->send(taggedBuffer(5, 1));
    Task blocked([s = rig.sender] { s->send(taggedBuffer(5, 1)); });
    EXPECT_FALSE(blocked.finishedWithin(kQuiet));
    rig.gate->open();  // the child throws now; the worker empties the queue, freeing the caller
    EXPECT_TRUE(blocked.finishedWithin(kBound));
    Task wait([s = rig.sender] { s->waitAllDataTransfered(); });
    ASSERT_TRUE(wait.finishedWithin(kBound));
    KL_EXPECT_THROW_TEXT(wait.get(), klConnectionClosed, "Connection closed");
    KL_EXPECT_THROW_TEXT(rig.sender->send(taggedBuffer(5, 1)), klConnectionClosed,
                         "Connection closed");
    KL_EXPECT_THROW_TEXT(rig.sender->send(taggedBuffer(5, 1)), klConnectionClosed,
                         "Connection closed");
    KL_EXPECT_THROW_TEXT(rig.sender->waitAllDataTransfered(), klConnectionClosed,
                         "Connection closed");
    EXPECT_TRUE(rig.received().empty());
}

TEST(klNetBufferedSender, AnEmptyBufferStopsTheWorkerThatTakesItAndIsNotSent) {
    Rig one(0), two(0, 2);
    const Buffer before = taggedBuffer(10, 1), later = taggedBuffer(12, 2);
    for (const Buffer& buffer : {before, taggedBuffer(0, 1), taggedBuffer(11, 1)}) {
        one.sender->send(buffer);
    }
    two.sender->send(taggedBuffer(0, 1));
    two.sender->send(later);  // the other worker carries on
    ASSERT_TRUE(waitUntil([&] { return !one.received().empty() && !two.received().empty(); }));
    EXPECT_FALSE(waitUntil([&] { return one.received().size() > 1; }, kQuiet));
    EXPECT_EQ(std::vector<Buffer>{before}, one.received());
    EXPECT_EQ(std::vector<Buffer>{later}, two.received());
    for (Rig* rig : {&one, &two}) {  // and both still come apart cleanly
        Task destroy([s = std::move(rig->sender)]() mutable { s.reset(); });
        EXPECT_TRUE(destroy.finishedWithin(kBound));
    }
}

TEST(klNetBufferedSender, DestructionDiscardsQueuedBuffersAndJoinsEveryWorker) {
    Rig rig(0, 2);
    rig.hold(1);
    rig.hold(2);  // both workers are held now
    std::vector<std::weak_ptr<klNetBuffer>> queued;
    for (int i = 0; i < 3; ++i) {
        Buffer buffer = taggedBuffer(8, 1);
        queued.push_back(buffer);
        rig.sender->send(buffer);
    }
    Task destroy([s = std::move(rig.sender)]() mutable { s.reset(); });
    EXPECT_TRUE(waitUntil([&] {
        return std::all_of(queued.begin(), queued.end(), [](const auto& b) { return b.expired(); });
    })) << "queued buffers were not discarded";
    EXPECT_FALSE(destroy.finishedWithin(kQuiet)) << "returned before joining the held workers";
    rig.gate->open();
    EXPECT_TRUE(destroy.finishedWithin(kBound));
    EXPECT_EQ(2u, rig.received().size());
}
