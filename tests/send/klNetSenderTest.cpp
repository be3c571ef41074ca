// The sender stages: composing, rotating, switching, locking and buffering, and a buffered sender
// over three loopback links.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <system_error>

using namespace kltest;

namespace {

// Thread starts that succeed before one fails, as in a process out of threads; negative: none
// fails.
std::atomic<int> g_threadStartsLeft{-1};

}  // namespace

// Stands in for the system's call that std::thread makes, so that a thread can fail to start.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    int left = g_threadStartsLeft.load();
    while (left >= 0 && !g_threadStartsLeft.compare_exchange_weak(left, left - 1)) {
    }
    return left == 0 ? EAGAIN : real(thread, attributes, body, argument);
}
using Destinations = std::set<unsigned int>;
using Probe = std::shared_ptr<ProbeSender>;

namespace {

Probe probe(const Destinations& destinations) {
    return std::make_shared<ProbeSender>(destinations);
}

template <class Stage>
bool is(const std::shared_ptr<klNetSender>& sender) {
    return std::dynamic_pointer_cast<Stage>(sender) != nullptr;
}

}  // namespace

TEST(klNetSender, CreateReturnsTheArgumentWhereAWrapperWouldAddNothing) {
    auto link = std::make_shared<TestLink>(), link2 = std::make_shared<TestLink>();
    const auto leaf = klNetLinkSender::create(link, {1}), leaf2 = klNetLinkSender::create(link2);
    EXPECT_EQ(leaf, klNetMultiSender::create({leaf}));
    EXPECT_EQ(leaf, klNetBalancedSender::create({leaf}));
    const auto buffered = klNetBufferedSender::create(leaf, 0);
    EXPECT_EQ(buffered, klNetLockedSender::create(buffered));
    const auto locked = klNetLockedSender::create(leaf);
    EXPECT_NE(locked, klNetLockedSender::create(locked));  // a lock around the lock
    EXPECT_EQ(Destinations{1}, locked->getDestinations());

    const auto single = klNetSender::createBundle({link}, false, {4, 5});
    EXPECT_TRUE(is<klNetLinkSender>(single));
    EXPECT_EQ((Destinations{4, 5}), single->getDestinations());
    EXPECT_TRUE(is<klNetBalancedSender>(klNetSender::createBundle({link, link2}, false, {})));
    EXPECT_TRUE(is<klNetBufferedSender>(klNetSender::createBundle({link, link2}, true, {1})));
    KL_EXPECT_THROW_TEXT(klNetSender::createBundle({}, false, {})->send(taggedBuffer(1, 1)),
                         klNetError, "klNetBalancedSender: no sender to send through");
}

TEST(klNetMultiSender, RotatesUnicastsAndNeverSendsAMulticastBackTowardsItsSource) {
    const auto c0 = probe({1, 2}), c1 = probe({2}), c2 = probe({2, 3});
    const auto multi = klNetMultiSender::create({c0, c1, c2});
    EXPECT_EQ((Destinations{1, 2, 3}), multi->getDestinations());
    Buffers sent;
    for (unsigned int destination : {2, 1, 3, 2, 2, 2, 9}) {
        sent.push_back(taggedBuffer(4, destination));
        multi->send(sent.back());
    }
    // The first unicast goes to position 1, the next in turn skips those that do not reach the
    // destination; 9 is nobody's and is dropped.
    EXPECT_EQ((Buffers{sent[1], sent[3]}), c0->sent());
    EXPECT_EQ((Buffers{sent[0], sent[4]}), c1->sent());
    EXPECT_EQ((Buffers{sent[2], sent[5]}), c2->sent());

    // Each stage edits only its own set of destinations.
    multi->removeDestination(2);
    c0->removeDestination(1);
    EXPECT_EQ((Destinations{1, 3}), multi->getDestinations());
    EXPECT_TRUE(c1->hasDestination(2));
    multi->send(taggedBuffer(4, 2));  // still served below, but no longer this stage's
    const Buffer fromThree = makeBuffer({3}, klNetMessageTypeMessage, 3, 0),
                 fromNobody = makeBuffer({0}, klNetMessageTypeMessage, 0, 0);
    multi->send(fromThree);
    multi->send(fromNobody);
    EXPECT_EQ((Buffers{sent[1], sent[3], fromThree, fromNobody}), c0->sent());
    EXPECT_EQ((Buffers{sent[0], sent[4], fromThree, fromNobody}), c1->sent());
    EXPECT_EQ((Buffers{sent[2], sent[5], fromNobody}), c2->sent());
}

TEST(klNetBalancedSender, CyclesThroughItsChildrenWhateverTheDestination) {
    const std::vector<Probe> children = {probe({1}), probe({2}), probe({})};
    const auto balanced = klNetBalancedSender::create({children[0], children[1], children[2]});
    Buffers sent(6);
    for (auto& buffer : sent) {
        balanced->send(buffer = taggedBuffer(4, 9));
    }
    // Where the rotation starts is the stage's own affair.
    const long first =
        std::find(sent.begin(), sent.end(), children[0]->sent().at(0)) - sent.begin();
    ASSERT_LT(first, 3);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((Buffers{sent[(first + i) % 3], sent[(first + i) % 3 + 3]}), children[i]->sent());
    }
}

TEST(klNetSwitchSender, ChoosesByModeThenBySizeAboveTheThreshold) {
    const struct {
        klNetBufferSendMode mode;
        std::size_t size;
        bool first;
    } cases[] = {
        {klNetSendModeDefault, 1024, false},       {klNetSendModeDefault, 1025, true},
        {klNetSendModeDefault, 0, false},          {klNetSendModeFirstStage, 10, true},
        {klNetSendModeSecondStage, 100000, false}, {klNetBufferSendMode(7), 100000, false}};
    const auto first = probe({1}), second = probe({1});
    const auto sender = klNetSwitchSender::create(first, second, 1024);
    Buffers expected[2];
    for (const auto& c : cases) {
        const Buffer buffer = taggedBuffer(c.size, 1);
        buffer->setSendMode(c.mode);
        sender->send(buffer);
        expected[c.first ? 0 : 1].push_back(buffer);
    }
    EXPECT_EQ(expected[0], first->sent());
    EXPECT_EQ(expected[1], second->sent());
}

TEST(klNetSender, InnerStagesAskEveryChildInOrderAndShutdownReachesEveryLink) {
    const auto a = probe({1}), b = probe({2}), c = probe({3});
    a->compressed = 5, b->compressed = 7, c->compressed = 11;
    b->affinity = 3, c->affinity = 1;
    const auto tree = klNetSwitchSender::create(klNetMultiSender::create({a, b}), c, 10);
    EXPECT_EQ(3, tree->getNodeAffinity());
    EXPECT_EQ(-1, klNetBalancedSender::create({})->getNodeAffinity());
    EXPECT_EQ(23u, tree->getCompressedBytes());
    tree->resetStatistics();
    tree->waitAllDataTransfered();
    EXPECT_TRUE(a->resets == 1 && b->resets == 1 && c->resets == 1);
    EXPECT_TRUE(0 < a->waitedAt && a->waitedAt < b->waitedAt && b->waitedAt < c->waitedAt);

    const std::vector<std::shared_ptr<TestLink>> links = {
        std::make_shared<TestLink>(), std::make_shared<TestLink>(), std::make_shared<TestLink>()};
    links[2]->setNodeAffinity(2);
    const auto pipeline = klNetSwitchSender::create(
        klNetLinkSender::create(links[0]),
        klNetLockedSender::create(klNetBalancedSender::create(
            {klNetLinkSender::create(links[1]), klNetLinkSender::create(links[2])})),
        10);
    EXPECT_EQ(2, pipeline->getNodeAffinity());
    EXPECT_EQ(std::vector<std::shared_ptr<klNetLink>>(links.begin(), links.end()),
              pipeline->getLinks());
    pipeline->shutdown();
    for (const auto& link : links) {
        EXPECT_EQ(1, link->shutdowns);
    }
}

TEST(klNetLockedSender, SerialisesConcurrentCallersAndUnlocksWhenTheTargetThrows) {
    auto link = std::make_shared<TestLink>();
    std::atomic<int> inside{0}, overlaps{0};
    link->recorder.hook = [&](const Buffer& buffer) {
        overlaps += inside++ != 0;
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();  // widen the window in which a second caller would show
        }
        --inside;
        if (buffer->getDestination() == 13) {
            throw klNetError("refused");
        }
    };
    const auto locked = klNetLockedSender::create(klNetLinkSender::create(link));
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&locked, buffer = taggedBuffer(16, 1)] {
            for (int i = 0; i < 250; ++i) {
                locked->send(buffer);
            }
        });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(0, overlaps);
    EXPECT_EQ(1000u, link->recorder.taken().size());
    KL_EXPECT_THROW_TEXT(locked->send(taggedBuffer(16, 13)), klNetError, "refused");
    EXPECT_EQ("returned", outcomeWithin([locked] { locked->send(taggedBuffer(16, 1)); }))
        << "the lock was kept after the throw";
}

namespace {

// Buffers for this destination hold the worker that sends them until the gate opens.
constexpr unsigned int kHeld = 70;

// A buffered sender over probe children that share one recorder and hold held buffers at a gate.
struct Rig {
    explicit Rig(int capacity, int children = 1,
                 klNetBufferedSender::Bound bound = klNetBufferedSender::Bound::Buffers) {
        recorder->hook = [gate = gate](const Buffer& buffer) {
            if (buffer->getDestination() == kHeld) {
                gate->pass();
            }
        };
        if (children == 0) {  // as klNetSender::createBundle makes it, over one link
            auto link = std::make_shared<TestLink>();
            link->recorder.hook = [recorder = recorder](const Buffer& b) { recorder->take(b); };
            sender = klNetSender::createBundle({link}, true, {1});
            return;
        }
        std::vector<std::shared_ptr<klNetSender>> senders;
        for (int i = 0; i < children; ++i) {
            probes.push_back(std::make_shared<ProbeSender>(std::set<unsigned int>{1}));
            probes.back()->recorder = recorder;
            senders.push_back(probes.back());
        }
        sender = klNetBufferedSender::create(senders, capacity, bound);
    }
    ~Rig() { gate->open(); }  // never leave a worker held for the sender's destructor to join
    // Sends a held buffer and returns once held workers number held, this one alone in its batch.
    void hold(int held = 1) {
        sender->send(taggedBuffer(1, kHeld));
        ASSERT_TRUE(gate->waitArrived(held));
    }
    std::vector<Buffer> received() const { return recorder->taken(); }

    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
    std::vector<std::shared_ptr<ProbeSender>> probes;
    std::shared_ptr<klNetSender> sender;
};

}  // namespace

// Buffers count however small, bundled as they wait; children 0 stands for the sender that
// createBundle makes over one link.
TEST(klNetBufferedSender, SendBlocksWhileTheQueueIsFull) {
    const std::tuple<int, int, int> cases[] = {{0, 256, 1}, {-1, 256, 1}, {5, 5, 1}, {-1, 256, 0}};
    for (const auto& [given, capacity, children] : cases) {
        Rig rig(given, children);
        rig.hold();
        ASSERT_EQ("returned", outcomeWithin([s = rig.sender, n = capacity] {
                      for (int i = 0; i < n; ++i) {
                          s->send(taggedBuffer(1, 1));
                      }
                  }));
        Task extra([s = rig.sender] { s->send(taggedBuffer(1, 1)); });
        EXPECT_FALSE(extra.finishedWithin(kQuiet)) << capacity << " queued and one more fitted";
        rig.gate->open();
        EXPECT_TRUE(extra.finishedWithin(kBound));
        EXPECT_EQ("returned", drained(rig.sender));
        std::size_t delivered = 0;  // a bundle of 1-byte buffers takes 25 bytes for each
        for (const auto& buffer : rig.received()) {
            const bool bundle = buffer->getType() == klNetMessageTypeBundle;
            delivered += bundle ? buffer->getDataSize() / 25 : 1;
        }
        EXPECT_EQ(std::size_t(capacity + 2), delivered);
    }
}

TEST(klNetBufferedSender, BatchesEndOnceTheyReach64KiBAndRunsForOneDestinationAreBundled) {
    Rig rig(0);
    EXPECT_EQ("returned", drained(rig.sender));  // idle: at once, after asking the child
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

// Bounded by pool buffers, small buffers packed into one bundle hold one between them, while
// every buffer that waits as it was sent holds one.
TEST(klNetBufferedSender, BoundedByPoolBuffersPackedBuffersRunAheadAndOthersBlock) {
    Rig rig(2, 1, klNetBufferedSender::Bound::PoolBuffers);
    rig.hold();
    Task packed([s = rig.sender] {
        for (int i = 0; i < 1000; ++i) {  // 29000 bytes: one batch, one bundle
            s->send(taggedBuffer(5, 1));
        }
        s->send(taggedBuffer(5, 2));  // a second pool buffer: the bound is reached
    });
    ASSERT_TRUE(packed.finishedWithin(kBound)) << "packed buffers were held back";
    Task blocked([s = rig.sender] { s->send(taggedBuffer(6, 1)); });
    EXPECT_FALSE(blocked.finishedWithin(kQuiet)) << "a third pool buffer fitted";
    rig.gate->open();
    ASSERT_TRUE(blocked.finishedWithin(kBound));
    rig.sender->waitAllDataTransfered();
    std::vector<std::pair<std::size_t, std::size_t>> sizes;  // data size, destination
    for (const auto& buffer : rig.received()) {
        sizes.emplace_back(buffer->getDataSize(), buffer->getDestination());
    }
    EXPECT_EQ((std::vector<std::pair<std::size_t, std::size_t>>{
                  {1, kHeld}, {1000 * 29, 1}, {5, 2}, {6, 1}}),
              sizes);
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
    const auto send = [&] { rig.sender->send(taggedBuffer(5, 1)); };
    EXPECT_EQ("closed", drained(rig.sender));
    EXPECT_EQ("closed closed closed",
              outcome(send) + " " + outcome(send) + " " + drained(rig.sender));
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
    EXPECT_TRUE(releasedWithin(std::move(one.sender)) && releasedWithin(std::move(two.sender)))
        << "did not come apart cleanly";
}

TEST(klNetBufferedSender, AWorkerThatCannotStartIsASystemErrorAfterTheOthersStop) {
    const std::vector<std::shared_ptr<klNetSender>> children = {probe({1}), probe({1})};
    g_threadStartsLeft = 1;  // the second worker cannot start
    EXPECT_THROW(klNetBufferedSender::create(children, 0), std::system_error);
    g_threadStartsLeft = -1;
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
    Watchdog hang([receiver] { receiver->shutdown(); });
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
    sender->waitAllDataTransfered();
    for (const auto& near : nears) {  // the workers are idle now: everything is on the wire
        near->send(bufferFor(kCount));
    }
    ASSERT_TRUE(reading.finishedWithin(kBound));
    EXPECT_NO_THROW(reading.get()) << "not every link's stream was closed";
    EXPECT_EQ(0, *garbled);
    EXPECT_EQ(0, std::count_if(seen->begin(), seen->end(), [](int n) { return n != 1; }))
        << "buffers missing or delivered twice";
    sender->shutdown();
    EXPECT_TRUE(releasedWithin(std::move(sender)));
}
