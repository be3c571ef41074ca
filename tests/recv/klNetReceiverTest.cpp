// The link receivers: one link, several links polled together, and links read ahead by the
// buffered receiver.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/recv/klNetBufferedReceiver.h>
#include <klNetBase/recv/klNetLinkReceiver.h>

#include <poll.h>

using namespace kltest;
using Links = std::vector<std::shared_ptr<klNetLink>>;

namespace {

// A buffer whose sequence says which it is.
Buffer numbered(unsigned int sequence) {
    return makeBuffer(pattern(1 + sequence * 97 % 3000), klNetMessageTypeMessage, 0, 1, sequence);
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
    EXPECT_EQ(two, multi->getLinks());
    multi->shutdown();
    EXPECT_EQ(1, link->shutdowns);
    EXPECT_EQ(1, other->shutdowns);
    KL_EXPECT_THROW_TEXT(multi->addToRecvQueue(first), klNetError,
                         "Adding buffer to queue not supported by this receiver");
    // Without links nothing can arrive: recv() waits (its thread is left to the end of the test).
    EXPECT_EQ("still running", outcomeWithin(
                                   [r = klNetMultiLinkReceiver::create(none)] {
                                       Buffer got;
                                       r->recv(got);
                                   },
                                   kQuiet));
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
    EXPECT_EQ("closed", outcomeWithin([receiver] {
                  Buffer got;
                  receiver->recv(got);
              }));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(3500));
}

// The buffered receiver over real loopback links.
namespace {

// How recv() ended: the buffer's size and first byte, or the outcome's word.
std::string next(const std::shared_ptr<klNetReceiver>& receiver) {
    std::string seen;
    const std::string how = outcome([&] {
        Buffer buffer;
        receiver->recv(buffer);
        seen = std::to_string(buffer->getDataSize()) + "/" +
               (buffer->getDataSize() ? std::to_string(buffer->getData()[0]) : "-");
    });
    return how == "returned" ? seen : how;
}

}  // namespace

TEST(klNetBufferedReceiver, ReadsLinksAheadInParallelThenHandsOnEachLinksEndAfterItsData) {
    auto [near1, far1] = connectedPair();
    auto [near2, far2] = connectedPair();
    auto receiver = klNetBufferedReceiver::create(
        {klNetLinkReceiver::create(far1), klNetLinkReceiver::create(far2)});
    // While no error is stored, a peer's empty buffer is data, not a wake-up signal.
    near2->send(taggedBuffer(0, 1));
    EXPECT_EQ("0/-", next(receiver));
    // More than the queue holds, so the first link's worker has to wait for the reader.
    constexpr int kCount = 300;
    for (int i = 0; i < kCount; ++i) {
        near1->send(taggedBuffer(100 + std::size_t(i), 1, static_cast<unsigned char>(i)));
    }
    near1->shutdown();
    near2->send(taggedBuffer(7, 1, 200));
    Watchdog hang([receiver] { receiver->shutdown(); });
    std::vector<std::string> fromFirst;
    bool secondSeen = false;
    for (int i = 0; i < kCount + 2; ++i) {
        const std::string got = next(receiver);
        if (got == "7/200") {
            EXPECT_FALSE(secondSeen);
            secondSeen = true;
        } else {
            fromFirst.push_back(got);
        }
    }
    EXPECT_TRUE(secondSeen);
    ASSERT_EQ(std::size_t(kCount + 1), fromFirst.size());
    for (int i = 0; i < kCount; ++i) {  // one link's buffers keep their order
        ASSERT_EQ(std::to_string(100 + i) + "/" + std::to_string(i % 256), fromFirst[i]);
    }
    EXPECT_EQ("closed", fromFirst[kCount]);
    // The second link still delivers after the first has failed.
    near2->send(taggedBuffer(9, 1, 201));
    EXPECT_EQ("9/201", next(receiver));
    near2->shutdown();
    EXPECT_EQ("closed", next(receiver));
    EXPECT_EQ("closed", next(receiver)) << "the reader waited for workers that had ended";
}

TEST(klNetBufferedReceiver, DestructionShutsTheLinksAndJoinsWorkersEvenWithAFullQueue) {
    auto [near, far] = connectedPair();
    auto receiver = klNetBufferedReceiver::create({klNetLinkReceiver::create(far)});
    for (int i = 0; i < 400; ++i)
        near->send(taggedBuffer(10, 1));
    EXPECT_TRUE(releasedWithin(std::move(receiver)));
    Buffer buffer;
    EXPECT_EQ("closed", outcome([&] { far->recv(buffer); }));
}

TEST(klNetBufferedReceiver, ReadsAtMost256BuffersAheadOfItsReader) {
    // A child that always has a buffer, as a peer that floods the connection.
    auto read = std::make_shared<std::atomic<int>>(0);
    auto stop = std::make_shared<std::atomic<bool>>(false);
    auto child = std::make_shared<ScriptedReceiver>();
    child->generator = [read, stop, buffer = taggedBuffer(10, 1)] {
        if (stop->load()) {
            throw klConnectionClosed();
        }
        ++*read;
        return buffer;
    };
    auto receiver = klNetBufferedReceiver::create({child});
    // 256 queued and one more read, waiting for room.
    EXPECT_TRUE(waitUntil([&] { return read->load() == 257; }));
    EXPECT_FALSE(waitUntil([&] { return read->load() > 257; }, kQuiet)) << "read on past 256";
    Buffer got;
    receiver->recv(got);  // takes all 256: the worker reads on
    EXPECT_TRUE(waitUntil([&] { return read->load() > 257; }));
    stop->store(true);
    EXPECT_TRUE(releasedWithin(std::move(receiver)));
}
