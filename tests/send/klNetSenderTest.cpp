#include <support/klNetPipelineSupport.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/send/klNetBalancedSender.h>
#include <klNetBase/send/klNetBufferedSender.h>
#include <klNetBase/send/klNetLinkSender.h>
#include <klNetBase/send/klNetLockedSender.h>
#include <klNetBase/send/klNetMultiSender.h>
#include <klNetBase/send/klNetSwitchSender.h>

#include <gtest/gtest.h>

using Buffer = std::shared_ptr<klNetBuffer>;
using Senders = std::vector<std::shared_ptr<klNetSender>>;
using kltest::ProbeSender;
using kltest::taggedBuffer;
using kltest::TestLink;

namespace {

std::shared_ptr<ProbeSender> probe(std::set<unsigned int> destinations, int affinity = -1,
                                   std::uint64_t compressed = 0) {
    return std::make_shared<ProbeSender>(destinations, affinity, compressed);
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
    const auto relocked = klNetLockedSender::create(locked);
    EXPECT_TRUE(is<klNetLockedSender>(locked) && is<klNetLockedSender>(relocked));
    EXPECT_NE(leaf, locked);
    EXPECT_NE(locked, relocked);
    EXPECT_EQ((std::set<unsigned int>{1}), relocked->getDestinations());
    const Buffer through = taggedBuffer(3, 1);
    relocked->send(through);
    EXPECT_EQ(std::vector<Buffer>{through}, link->recorder.taken());

    const auto single = klNetSender::createBundle({link}, false, {4, 5});
    EXPECT_TRUE(is<klNetLinkSender>(single));
    EXPECT_EQ((std::set<unsigned int>{4, 5}), single->getDestinations());
    EXPECT_EQ(std::vector<std::shared_ptr<klNetLink>>{link}, single->getLinks());
    EXPECT_TRUE(is<klNetBalancedSender>(klNetSender::createBundle({link, link2}, false, {})));
    const auto queued = klNetSender::createBundle({link, link2}, true, {1});
    EXPECT_TRUE(is<klNetBufferedSender>(queued));
    EXPECT_EQ((std::vector<std::shared_ptr<klNetLink>>{link, link2}), queued->getLinks());
    EXPECT_EQ((std::set<unsigned int>{1}), queued->getDestinations());
    EXPECT_THROW(klNetSender::createBundle({}, false, {})->send(taggedBuffer(1, 1)), klNetError);
}

TEST(klNetSender, DestinationsAreTheUnionAtConstructionAndEachStageEditsOnlyItsOwn) {
    const auto a = probe({1, 2}), b = probe({2, 3});
    const auto multi = klNetMultiSender::create({a, b});
    EXPECT_EQ((std::set<unsigned int>{1, 2, 3}), multi->getDestinations());
    EXPECT_EQ(multi->getDestinations(), klNetSwitchSender::create(a, b, 1)->getDestinations());
    EXPECT_EQ(a->getDestinations(), klNetLockedSender::create(a)->getDestinations());

    multi->removeDestination(2);
    multi->removeDestination(9);
    EXPECT_FALSE(multi->hasDestination(2));
    EXPECT_TRUE(a->hasDestination(2) && b->hasDestination(2));
    a->removeDestination(1);  // not passed upwards
    EXPECT_EQ((std::set<unsigned int>{1, 3}), multi->getDestinations());
}

TEST(klNetMultiSender, RotatesUnicastsAndNeverSendsAMulticastBackTowardsItsSource) {
    const auto c0 = probe({1, 2}), c1 = probe({2}), c2 = probe({2, 3});
    const auto multi = klNetMultiSender::create({c0, c1, c2});
    std::vector<Buffer> sent;
    for (unsigned int destination : {2, 2, 2, 2, 3, 1, 9}) {
        sent.push_back(taggedBuffer(4, destination));
        multi->send(sent.back());
    }
    // The first unicast goes to position 1; 9 is nobody's and is dropped.
    EXPECT_EQ((std::vector<Buffer>{sent[2], sent[5]}), c0->recorder.taken());
    EXPECT_EQ((std::vector<Buffer>{sent[0], sent[3]}), c1->recorder.taken());
    EXPECT_EQ((std::vector<Buffer>{sent[1], sent[4]}), c2->recorder.taken());

    multi->removeDestination(2);
    multi->send(taggedBuffer(4, 2));  // still served below, but no longer this stage's
    const Buffer fromThree = multicastFrom(3), fromNobody = multicastFrom(0);
    multi->send(fromThree);
    multi->send(fromNobody);
    EXPECT_EQ((std::vector<Buffer>{sent[2], sent[5], fromThree, fromNobody}), c0->recorder.taken());
    EXPECT_EQ((std::vector<Buffer>{sent[0], sent[3], fromThree, fromNobody}), c1->recorder.taken());
    EXPECT_EQ((std::vector<Buffer>{sent[1], sent[4], fromNobody}), c2->recorder.taken());

    // A child's error ends the round: the caller sees it, later children get nothing.
    c1->recorder.setHook([](const Buffer&) { throw klNetError("child down"); });
    KL_EXPECT_THROW_TEXT(multi->send(multicastFrom(7)), klNetError, "child down");
    EXPECT_EQ(5u, c0->recorder.taken().size());
    EXPECT_EQ(3u, c2->recorder.taken().size());
}

TEST(klNetBalancedSender, CyclesThroughItsChildrenWhateverTheDestination) {
    const std::vector<std::shared_ptr<ProbeSender>> children = {probe({1}), probe({2}), probe({})};
    const auto balanced = klNetBalancedSender::create({children[0], children[1], children[2]});
    std::vector<Buffer> sent;
    for (int i = 0; i < 6; ++i) {
        sent.push_back(taggedBuffer(4, 9));
        balanced->send(sent.back());
    }
    std::size_t first = 0;  // where the rotation starts is the stage's own affair
    while (first < 3 && children[first]->recorder.taken().at(0) != sent[0]) {
        ++first;
    }
    ASSERT_LT(first, 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((std::vector<Buffer>{sent[i], sent[i + 3]}),
                  children[(first + i) % 3]->recorder.taken());
    }
}

struct SwitchCase {
    klNetBufferSendMode mode;
    std::size_t size;
    bool first;
};

class klNetSwitchSenderRoute : public ::testing::TestWithParam<SwitchCase> {};

TEST_P(klNetSwitchSenderRoute, ChoosesByModeThenBySizeAboveTheThreshold) {
    const auto first = probe({1}), second = probe({1});
    const Buffer buffer = taggedBuffer(GetParam().size, 1);
    buffer->setSendMode(GetParam().mode);
    klNetSwitchSender::create(first, second, 1024)->send(buffer);
    EXPECT_EQ(std::vector<Buffer>{buffer}, (GetParam().first ? first : second)->recorder.taken());
    EXPECT_TRUE((GetParam().first ? second : first)->recorder.taken().empty());
}

INSTANTIATE_TEST_SUITE_P(Threshold1024, klNetSwitchSenderRoute,
                         ::testing::Values(SwitchCase{klNetSendModeDefault, 1024, false},
                                           SwitchCase{klNetSendModeDefault, 1025, true},
                                           SwitchCase{klNetSendModeDefault, 0, false},
                                           SwitchCase{klNetSendModeFirstStage, 10, true},
                                           SwitchCase{klNetSendModeSecondStage, 100000, false},
                                           SwitchCase{klNetBufferSendMode(7), 100000, false}));

TEST(klNetSender, DefaultsAskEveryChildInOrderAndShutdownReachesEveryLink) {
    const auto a = probe({1}, -1, 5), b = probe({2}, 3, 7), c = probe({3}, 1, 11);
    const auto tree = klNetSwitchSender::create(klNetMultiSender::create({a, b}), c, 10);
    EXPECT_EQ(3, tree->getNodeAffinity());
    EXPECT_EQ(23u, tree->getCompressedBytes());
    tree->resetStatistics();
    tree->waitAllDataTransfered();
    for (const auto& leaf : {a, b, c}) {
        EXPECT_EQ(1, leaf->resets);
    }
    EXPECT_TRUE(0 < a->waitedAt && a->waitedAt < b->waitedAt && b->waitedAt < c->waitedAt);
    const auto childless = klNetBalancedSender::create({});
    EXPECT_EQ(-1, childless->getNodeAffinity());
    EXPECT_EQ(0u, childless->getCompressedBytes());

    std::vector<std::shared_ptr<klNetLink>> links;
    Senders leaves;
    for (int i = 0; i < 4; ++i) {
        links.push_back(std::make_shared<TestLink>());
        leaves.push_back(klNetLinkSender::create(links.back()));
    }
    links[3]->setNodeAffinity(2);
    EXPECT_EQ(2, leaves[3]->getNodeAffinity());
    const auto pipeline = klNetSwitchSender::create(
        klNetMultiSender::create({leaves[0], leaves[1]}),
        klNetLockedSender::create(klNetBalancedSender::create({leaves[2], leaves[3]})), 10);
    EXPECT_EQ(links, pipeline->getLinks());
    pipeline->shutdown();
    for (const auto& link : links) {
        EXPECT_EQ(1, std::static_pointer_cast<TestLink>(link)->shutdowns);
    }
}

TEST(klNetLockedSender, SerialisesConcurrentCallersAndUnlocksWhenTheTargetThrows) {
    auto link = std::make_shared<TestLink>();
    link->recorder.setHook([](const Buffer& buffer) {
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();  // widen the window in which a second caller would show
        }
        if (buffer->getDestination() == 13) {
            throw klNetError("refused");
        }
    });
    const auto locked = klNetLockedSender::create(klNetLinkSender::create(link));
    constexpr int kThreads = 4, kEach = 250;
    std::vector<std::thread> callers;
    for (int t = 0; t < kThreads; ++t) {
        callers.emplace_back([&locked] {
            const Buffer buffer = taggedBuffer(16, 1);
            for (int i = 0; i < kEach; ++i) {
                locked->send(buffer);
            }
        });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(0, link->recorder.overlaps());
    EXPECT_EQ(std::size_t(kThreads * kEach), link->recorder.taken().size());

    KL_EXPECT_THROW_TEXT(locked->send(taggedBuffer(16, 13)), klNetError, "refused");
    kltest::Task next([locked] { locked->send(taggedBuffer(16, 1)); });
    EXPECT_TRUE(next.finishedWithin(kltest::kBound)) << "the lock was kept after the throw";
}
