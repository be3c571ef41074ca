#include <support/klNetPipelineSupport.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/recv/klNetLinkReceiver.h>
#include <klNetBase/recv/klNetMultiLinkReceiver.h>

#include <gtest/gtest.h>

#include <poll.h>

using Buffer = std::shared_ptr<klNetBuffer>;
using Links = std::vector<std::shared_ptr<klNetLink>>;
using kltest::kBound;
using kltest::taggedBuffer;
using kltest::Task;
using kltest::TestLink;

namespace {

// Three loopback connections; the receiver reads their far ends.
struct Connections {
    Connections() {
        for (int i = 0; i < 3; ++i) {
            pairs.push_back(kltest::connectedPair());
            fars.push_back(pairs.back().far);
        }
        receiver = klNetMultiLinkReceiver::create(fars);
    }
    // Waits until every far end listed has something to report (data or hang-up).
    void waitReadable(std::initializer_list<int> which) {
        for (int i : which) {
            pollfd wanted{int(fars[i]->getRecvHandle()), POLLIN, 0};
            ASSERT_EQ(1, ::poll(&wanted, 1, 20000)) << "link " << i;
        }
    }
    std::vector<kltest::SocketPair> pairs;
    Links fars;
    std::shared_ptr<klNetReceiver> receiver;
};

// A buffer naming the link (source) and its place on the link (sequence).
Buffer numbered(unsigned int link, unsigned int index) {
    Buffer buffer = taggedBuffer(1 + index * 97 % 3000, 1, static_cast<unsigned char>(index));
    buffer->setSource(link);
    buffer->setSequence(index);
    return buffer;
}

std::pair<std::size_t, std::size_t> numberOf(const Buffer& buffer) {
    return {buffer->getSource(), buffer->getSequence()};
}

}  // namespace

TEST(klNetReceiver, LinkReceiverPassesToItsLinkAndTheDefaultsHold) {
    auto link = std::make_shared<TestLink>("alpha");
    link->readable = false;
    link->setNodeAffinity(2);
    const Buffer first = taggedBuffer(3, 1), second = taggedBuffer(4, 1);
    link->script.push(first);
    link->script.push(second);
    Links one{link};
    const auto receiver = klNetMultiLinkReceiver::create(one);
    ASSERT_TRUE(std::dynamic_pointer_cast<klNetLinkReceiver>(receiver));
    Buffer got;
    receiver->recv(got);
    EXPECT_EQ(first, got);
    std::queue<Buffer> queue;
    queue.push(got);
    receiver->recvAvailable(queue);  // exactly one more, appended
    ASSERT_EQ(2u, queue.size());
    EXPECT_EQ(second, queue.back());
    EXPECT_FALSE(receiver->isReadable());
    EXPECT_EQ("alpha", receiver->getLinkName());
    EXPECT_EQ(2, receiver->getNodeAffinity());
    EXPECT_EQ(Links{link}, receiver->getLinks());
    KL_EXPECT_THROW_TEXT(receiver->recv(got), klConnectionClosed, "Connection closed");
    receiver->shutdown();
    EXPECT_EQ(1, link->shutdowns);

    auto other = std::make_shared<TestLink>("beta");
    other->setNodeAffinity(4);
    Links two{link, other}, none;
    const auto multi = klNetMultiLinkReceiver::create(two);
    ASSERT_TRUE(std::dynamic_pointer_cast<klNetMultiLinkReceiver>(multi));
    EXPECT_EQ(-1, multi->getNodeAffinity());
    EXPECT_EQ("unknown", multi->getLinkName());
    EXPECT_TRUE(multi->isReadable());
    EXPECT_EQ(two, multi->getLinks());
    multi->shutdown();
    EXPECT_EQ(2, link->shutdowns);
    EXPECT_EQ(1, other->shutdowns);
    for (const auto& stage : {receiver, multi}) {
        KL_EXPECT_THROW_TEXT(stage->addToRecvQueue(first), klNetError,
                             "Adding buffer to queue not supported by this receiver");
    }
    const auto empty = klNetMultiLinkReceiver::create(none);
    ASSERT_TRUE(std::dynamic_pointer_cast<klNetMultiLinkReceiver>(empty));
    EXPECT_THROW(empty->recv(got), klNetError);
}

TEST(klNetMultiLinkReceiver, HandsOutWhateverAnyLinkBringsWithoutWaitingForTheOthers) {
    Connections c;
    const Buffer lone = numbered(1, 0);
    c.pairs[1].near->send(lone);
    Task recv([r = c.receiver, lone] {
        Buffer got;
        r->recv(got);
        EXPECT_EQ(numberOf(lone), numberOf(got));
        EXPECT_EQ(kltest::payloadOf(*lone), kltest::payloadOf(*got));
    });
    if (!recv.finishedWithin(std::chrono::seconds(3))) {
        ADD_FAILURE() << "waited for a silent link";
        c.receiver->shutdown();
        recv.finishedWithin(kBound);
        return;
    }

    // Many buffers from every link: all arrive, each link's in its own order.
    constexpr unsigned int kEach = 40;
    for (unsigned int i = 0; i < kEach; ++i) {
        for (unsigned int link = 0; link < 3; ++link) {
            c.pairs[link].near->send(numbered(link, i));
        }
    }
    std::vector<unsigned int> next(3, 0);
    std::queue<Buffer> queue;
    kltest::receiveWithin(c.receiver, [&] {
        while (next[0] + next[1] + next[2] < 3 * kEach) {
            c.receiver->recvAvailable(queue);
            for (; !queue.empty(); queue.pop()) {
                const auto [link, index] = numberOf(queue.front());
                ASSERT_LT(link, 3u);
                EXPECT_EQ(next[link]++, index) << "link " << link;
            }
        }
    });

    // One pass over two ready links hands over both, in link order.
    c.pairs[2].near->send(numbered(2, 77));
    c.pairs[0].near->send(numbered(0, 78));
    c.waitReadable({0, 2});
    kltest::receiveWithin(c.receiver, [&] { c.receiver->recvAvailable(queue); });
    ASSERT_EQ(2u, queue.size());
    EXPECT_EQ(78u, queue.front()->getSequence());
    EXPECT_EQ(77u, queue.back()->getSequence());
}

TEST(klNetMultiLinkReceiver, AVanishedPeerEndsRecvButBuffersAlreadyReadStayPending) {
    Connections c;
    c.pairs[0].near->send(numbered(0, 5));
    c.pairs[1].near.reset();  // closes the connection
    c.waitReadable({0, 1});
    Buffer got;
    kltest::receiveWithin(c.receiver, [&] {
        KL_EXPECT_THROW_TEXT(c.receiver->recv(got), klConnectionClosed, "Connection closed");
        c.receiver->recv(got);
    });
    ASSERT_TRUE(got);
    EXPECT_EQ(std::make_pair(std::size_t(0), std::size_t(5)), numberOf(got));
}

TEST(klNetMultiLinkReceiver, ASilentlyVanishedPeerIsFoundByTheAliveCheckOfAQuietPass) {
    auto healthy = kltest::connectedPair();
    auto vanished = std::make_shared<TestLink>();  // never readable
    vanished->vanished = true;
    Links links{healthy.far, vanished};
    const auto receiver = klNetMultiLinkReceiver::create(links);
    const auto start = kltest::Clock::now();
    Task recv([receiver] {
        Buffer got;
        receiver->recv(got);
    });
    ASSERT_TRUE(recv.finishedWithin(kBound));
    EXPECT_GE(kltest::Clock::now() - start, std::chrono::milliseconds(3500));
    ASSERT_TRUE(recv.error());
    KL_EXPECT_THROW_TEXT(std::rethrow_exception(recv.error()), klConnectionClosed,
                         "Connection closed");
    EXPECT_EQ(1, vanished->aliveChecks);
}
