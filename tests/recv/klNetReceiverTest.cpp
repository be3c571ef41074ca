#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <poll.h>

using namespace kltest;
using Links = std::vector<std::shared_ptr<klNetLink>>;

namespace {

// A buffer whose sequence says which it is.
Buffer numbered(unsigned int sequence) {
    Buffer buffer = taggedBuffer(1 + sequence * 97 % 3000, 1, static_cast<unsigned char>(sequence));
    buffer->setSequence(sequence);
    return buffer;
}

}  // namespace

TEST(klNetReceiver, OneLinkGivesALinkReceiverAndShutdownReachesEveryLink) {
    auto link = std::make_shared<TestLink>(), other = std::make_shared<TestLink>();
    const Buffer first = taggedBuffer(3, 1);
    for (const Buffer& buffer : {first, taggedBuffer(4, 1), taggedBuffer(5, 1)}) {
        link->script.push(buffer);
    }
    Links one{link}, two{link, other}, none;
    const auto receiver = klNetMultiLinkReceiver::create(one);
    ASSERT_TRUE(std::dynamic_pointer_cast<klNetLinkReceiver>(receiver));
    std::queue<Buffer> queue;
    receiver->recvAvailable(queue);  // exactly one each time, appended
    receiver->recvAvailable(queue);
    EXPECT_EQ(1u, link->script.size());
    ASSERT_EQ(2u, queue.size());
    EXPECT_EQ(first, queue.front());
    const auto multi = klNetMultiLinkReceiver::create(two);
    ASSERT_TRUE(std::dynamic_pointer_cast<klNetMultiLinkReceiver>(multi));
    EXPECT_EQ(two, multi->getLinks());
    multi->shutdown();
    EXPECT_EQ(1, link->shutdowns);
    EXPECT_EQ(1, other->shutdowns);
    KL_EXPECT_THROW_TEXT(multi->addToRecvQueue(first), klNetError,
                         "Adding buffer to queue not supported by this receiver");
    Buffer got;
    KL_EXPECT_THROW_TEXT(klNetMultiLinkReceiver::create(none)->recv(got), klNetError,
                         "klNetMultiLinkReceiver: no link to receive from");
}

TEST(klNetMultiLinkReceiver, HandsOutWhatAnyLinkBringsAndKeepsItAcrossAVanishedPeer) {
    std::shared_ptr<klNetLink> nears[3];
    Links fars(3);
    for (int i = 0; i < 3; ++i) {
        std::tie(nears[i], fars[i]) = connectedPair();
    }
    const auto receiver = klNetMultiLinkReceiver::create(fars);
    Watchdog hang([&] { receiver->shutdown(); });
    // Waits until every far end listed has something to report (data or hang-up).
    const auto waitReadable = [&](std::initializer_list<int> which) {
        for (int i : which) {
            pollfd wanted{int(fars[i]->getRecvHandle()), POLLIN, 0};
            ASSERT_EQ(1, ::poll(&wanted, 1, 20000)) << "link " << i;
        }
    };

    // A poll pass lasts 4 seconds: what one link brings must not wait for the silent others.
    const Buffer lone = numbered(5);
    nears[1]->send(lone);
    std::queue<Buffer> queue;
    {
        Watchdog pass([&] { receiver->shutdown(); }, std::chrono::seconds(3));
        receiver->recvAvailable(queue);
    }
    ASSERT_EQ(1u, queue.size());
    EXPECT_EQ(5u, queue.front()->getSequence());
    EXPECT_EQ(payloadOf(*lone), payloadOf(*queue.front()));
    queue.pop();

    // One pass over two ready links hands over both, in link order.
    nears[2]->send(numbered(77));
    nears[0]->send(numbered(78));
    waitReadable({0, 2});
    receiver->recvAvailable(queue);
    ASSERT_EQ(2u, queue.size());
    EXPECT_EQ(78u, queue.front()->getSequence());
    EXPECT_EQ(77u, queue.back()->getSequence());

    // A vanished peer ends recv, but what was read in the same pass stays pending.
    nears[0]->send(numbered(5));
    nears[1].reset();  // closes the connection
    waitReadable({0, 1});
    Buffer got;
    KL_EXPECT_THROW_TEXT(receiver->recv(got), klConnectionClosed, "Connection closed");
    receiver->recv(got);
    ASSERT_TRUE(got);
    EXPECT_EQ(5u, got->getSequence());
}

TEST(klNetMultiLinkReceiver, ASilentlyVanishedPeerIsFoundByTheAliveCheckOfAQuietPass) {
    const auto healthy = connectedPair();
    auto vanished = std::make_shared<TestLink>();  // never readable
    vanished->vanished = true;
    Links links{healthy.second, vanished};
    const auto receiver = klNetMultiLinkReceiver::create(links);
    const auto start = Clock::now();
    Task recv([receiver] {
        Buffer got;
        receiver->recv(got);
    });
    ASSERT_TRUE(recv.finishedWithin(kBound));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(3500));
    KL_EXPECT_THROW_TEXT(recv.get(), klConnectionClosed, "Connection closed");
}
