#include <support/klNetPipelineSupport.h>

using namespace kltest;
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

Buffer multicastFrom(unsigned int source) {
    Buffer buffer = taggedBuffer(8, 0);
    buffer->setSource(source);
    return buffer;
}

}  // namespace

TEST(klNetSender, CreateReturnsTheArgumentWhereAWrapperWouldAddNothing) {
    auto link = std::make_shared<TestLink>(), link2 = std::make_shared<TestLink>();
    const auto leaf = klNetLinkSender::create(link, {1}), leaf2 = klNetLinkSender::create(link2);
    EXPECT_EQ(leaf, klNetMultiSender::create({leaf}));
    EXPECT_EQ(leaf, klNetBalancedSender::create({leaf}));
    EXPECT_TRUE(is<klNetMultiSender>(klNetMultiSender::create({leaf, leaf2})));
    EXPECT_TRUE(is<klNetBalancedSender>(klNetBalancedSender::create({leaf, leaf2})));
    const auto buffered = klNetBufferedSender::create(leaf, 0);
    EXPECT_EQ(buffered, klNetLockedSender::create(buffered));
    const auto locked = klNetLockedSender::create(leaf);
    EXPECT_TRUE(is<klNetLockedSender>(locked));
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
    const Buffer fromThree = multicastFrom(3), fromNobody = multicastFrom(0);
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
    Task next([locked] { locked->send(taggedBuffer(16, 1)); });
    EXPECT_TRUE(next.finishedWithin(kBound)) << "the lock was kept after the throw";
}
