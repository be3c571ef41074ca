// Links: the link base and its cipher hook, socket addresses, socket and listening links on real
// sockets, and an echoed exchange over loopback.
#include <support/klNetSocketTestSupport.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/un.h>
#include <random>
#include <stdexcept>

using namespace kltest;

namespace {

const std::string kHeader = "05000000 44332211 6655 02 07 BBAA9988 FFEEDDCC";  // bytes 0..19
const Bytes kFrame = hex(kHeader + "0201 0403 6162636465");
constexpr int kExchangeBuffers = 2000;

klSocketAddress loopback(int port, const std::string& host = "127.0.0.1") {
    return klSocketAddress(host, std::to_string(port));
}

template <class T>
T option(int fd, int level, int name) {
    T value{};
    socklen_t length = sizeof(value);
    ::getsockopt(fd, level, name, &value, &length);
    return value;
}

long recvTimeoutMs(klSocketLink& link) {
    const auto value = option<timeval>(link.getDescriptor(), SOL_SOCKET, SO_RCVTIMEO);
    return value.tv_sec * 1000 + value.tv_usec / 1000;
}

// Buffer i of the exchange, the same each time: random header fields and a random size, mostly
// small, now and then up to the capacity, both extremes included.
std::shared_ptr<klNetBuffer> exchangeBuffer(int i) {
    std::mt19937_64 random(i);
    const std::size_t size = i < 2                ? i * klNetBuffer::kCapacity
                             : random() % 16 != 0 ? random() % 4097
                                                  : random() % (klNetBuffer::kCapacity + 1);
    auto buffer = klNetBufferPool::pop();
    std::generate_n(buffer->getBuffer() + 4, 20 + size, std::ref(random));
    buffer->setDataSize(size);
    return buffer;
}

}  // namespace

TEST(klSocketLink, NormalFramingIsOneWriteCompatibilityFramingTwentyHeaderBytesThenPayload) {
    RawPeer peer(SOCK_SEQPACKET);  // keeps the boundaries of the writes
    const auto sample = bufferWith(hex("6162636465"));
    std::memcpy(sample->getBuffer() + 4, kFrame.data() + 4, 20);
    peer.link.send(sample);
    EXPECT_EQ(kFrame, readExactly(peer.raw, 64));
    peer.link.setCompatibilityMode(true);
    peer.link.send(sample);
    EXPECT_EQ(hex(kHeader), readExactly(peer.raw, 64));
    EXPECT_EQ(hex("6162636465"), readExactly(peer.raw, 64));
}

// (A payload of the full capacity travels in the exchange below.)
TEST(klSocketLink, ReceiveRefusesAPayloadBeyondTheCapacityAsOutOfSync) {
    RawPeer peer;
    writeAll(peer.raw, hex("13020200" + std::string(40, '0')));  // 131603 bytes
    std::shared_ptr<klNetBuffer> received;
    KL_EXPECT_THROW_TEXT(peer.link.recv(received), klNetError,
                         "Received invalid buffer size. Possibly stream is out of sync.");
}

TEST(klSocketLink, AcceptingSideLeavesAClientThatDoesNotGreetWithItsBytesUnread) {
    klBoundSocketLink listener(0);
    // Another protocol is refused once four bytes are there; a client that says less is given
    // about two seconds.
    for (const std::string request : {"GET / HTTP/1.0\r\n\r\n", "ab"}) {
        klSocketLink client(loopback(listener.getAddress().getPort()), 5.0);
        client.send(request.data(), request.size());
        const int accepted = klSocketLink(listener).takeDescriptor();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(nullptr, klSocketLink::checkForHPCNetSocket(accepted));
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(waited.count() < 10 && (request.size() >= 4 || waited.count() >= 1.9))
            << waited.count();
        EXPECT_EQ(Bytes(request.begin(), request.end()), readExactly(accepted, request.size()));
        ::close(accepted);
    }
}

TEST(klSocketLink, ConnectingSideGreetsAndRefusesAWrongAnswer) {
    for (const char* answer : {"B64A0506", "B54A0506"}) {  // 101010102, 101010101
        RawPeer peer;
        writeAll(peer.raw, hex(answer));
        const bool right = answer[1] == '6';
        EXPECT_EQ(right ? "returned" : "Unexpected respnse from server",
                  outcome([&] { peer.link.signalHPCNetSocket(); }));
        EXPECT_EQ(hex("B64A0506"), readExactly(peer.raw, 4));
        // The time-out for the answer is lifted after a right one and stays after a wrong one.
        EXPECT_EQ(right ? 0 : 30000, recvTimeoutMs(peer.link));
    }
}

TEST(klSocketLink, ShutdownFromAnotherThreadWakesBlockedRecvSendAndAccept) {
    RawPeer peer;  // the far end neither sends nor reads
    std::shared_ptr<klNetBuffer> in;
    const auto out = bufferWith(pattern(klNetBuffer::kCapacity));
    auto receiving = startBlocked([&] { peer.link.recv(in); }, {SYS_recvfrom});
    auto sending = startBlocked(
        [&] {
            for (int i = 0; i < 100000; ++i) {  // until the socket buffers are full
                peer.link.send(out);
            }
        },
        {SYS_sendto});
    peer.link.shutdown();
    EXPECT_EQ(std::future_status::ready, sending.wait_for(std::chrono::seconds(10)));
    ::shutdown(peer.raw, SHUT_RDWR);  // frees a send that slept on, so that the test ends
    EXPECT_EQ("closed", receiving.get());
    EXPECT_EQ("closed", sending.get());
    EXPECT_EQ("closed", outcome([&] { peer.link.checkAlive(); }));

    klBoundSocketLink listener(0);
    auto accepting = startBlocked([&] { klSocketLink next(listener); }, {SYS_poll, SYS_ppoll});
    const std::size_t open = openDescriptors().size();
    listener.shutdown();
    EXPECT_EQ("closed", accepting.get());
    EXPECT_EQ("closed", outcome([&] { klSocketLink next(listener); }));
    EXPECT_EQ(open - 1, openDescriptors().size()) << "the port is freed at once";
}

TEST(klSocketLink, ATimeoutKeepsTheLinkAPeerLeavingShutsItAndNothingRaisesSigpipe) {
    RawPeer peer;
    std::shared_ptr<klNetBuffer> received;
    peer.link.setRecvTimeout(0.2);
    ASSERT_EQ(200, recvTimeoutMs(peer.link));
    // Its text says how long it waited, for the user who reads it.
    KL_EXPECT_THROW_TEXT(
        peer.link.recv(received), klConnectionTimeout,
        "recv error: Connected party did not properly respond after a period of time (0.2 s).");
    writeAll(peer.raw, kFrame);
    EXPECT_EQ("returned", outcome([&] { peer.link.recv(received); }));
    EXPECT_EQ(kFrame, wireOf(*received));
    // The peer leaves after 10 of 1000 payload bytes.
    writeAll(peer.raw, hex("E8030000" + std::string(40, '0') + std::string(20, '1')));
    ::close(peer.raw);
    peer.raw = -1;
    EXPECT_EQ("closed", outcome([&] { peer.link.recv(received); }));
    EXPECT_EQ(klInvalidSocket, peer.link.getDescriptor());

    // SIGPIPE's default action ends the process: a signal would end this test.
    ASSERT_NE(SIG_ERR, ::signal(SIGPIPE, SIG_DFL));
    RawPeer gone;
    ::close(gone.raw);
    gone.raw = -1;
    EXPECT_EQ("closed", outcome([&] { gone.link.send(bufferWith(kFrame)); }));
    EXPECT_EQ("closed", outcome([&] { gone.link.send("x", 1); }));
}

// Every descriptor is close-on-exec; links are blocking, undelayed and linger a second; failures
// name their cause; nothing stays open afterwards.
TEST(klSocketLink, ThousandCyclesOfConnectsAcceptsAndFailuresLeakNoDescriptors) {
    const std::set<int> before = openDescriptors();
    {
        klBoundSocketLink listener(0);
        const int port = listener.getAddress().getPort();
        const PortSocket refusing, full(1);  // bound, not listening; listening, never accepting
        const int refusedPort = refusing.port, fullPort = full.port;
        const std::string prefix = "Unable to connect to '127.0.0.1' port:";
        std::vector<std::unique_ptr<klSocketLink>> kept;
        const auto connect = [&](int to, double timeout) {
            return outcome(
                [&] { kept.push_back(std::make_unique<klSocketLink>(loopback(to), timeout)); });
        };
        while (kept.size() < 16 && connect(fullPort, 0.7) == "returned") {
        }  // until the kernel drops the SYNs that the queue has no room for
        for (int i = 0; i < 1000; ++i) {
            if (i % 4 == 1) {
                EXPECT_EQ(prefix + std::to_string(refusedPort) + ". 111:Connection refused",
                          connect(refusedPort, 1.0));
            } else if (i % 500 == 2) {
                EXPECT_EQ(
                    prefix + std::to_string(fullPort) + ". connect timed out after 0 seconds.",
                    connect(fullPort, 0.7));
            } else if (i % 100 == 7) {
                klBoundSocketLink(0).shutdown();
                KL_EXPECT_THROW_TEXT(klBoundSocketLink{port}, klNetError,
                                     "Unable to bind to port " + std::to_string(port) +
                                         ". 98:Address already in use");
            } else {
                klSocketLink connected(loopback(port), 5.0);
                klSocketLink accepted(listener);
                for (int fd : openDescriptors()) {  // F_GETFD fails for the closed one
                    ASSERT_TRUE(before.count(fd) || ::fcntl(fd, F_GETFD) != 0) << fd;
                }
                for (const int fd : {connected.getDescriptor(), accepted.getDescriptor()}) {
                    const auto lingering = option<linger>(fd, SOL_SOCKET, SO_LINGER);
                    ASSERT_TRUE((::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0 &&
                                option<int>(fd, IPPROTO_TCP, TCP_NODELAY) == 1 &&
                                lingering.l_onoff == 1 && lingering.l_linger == 1);
                }
                if (i % 3 == 0) {
                    accepted.shutdown();
                }
            }
        }
    }
    EXPECT_EQ(before, openDescriptors());
}

// The far end echoes on a thread of its own; every byte and header field must come back as sent,
// in both framings and over both address families of the one dual-stack listener.
class klSocketLinkExchange : public ::testing::TestWithParam<std::tuple<bool, std::string>> {};

TEST_P(klSocketLinkExchange, EchoedBuffersArriveIntact) {
    const auto [compatibility, host] = GetParam();
    klBoundSocketLink listener(0);
    Task echo(
        [compatibility = compatibility, to = loopback(listener.getAddress().getPort(), host)] {
            klSocketLink link(to, 10.0);
            std::uint32_t greeting = klSocketLink::kCompatibilityGreeting;
            if (compatibility) {  // stays in the normal framing unless the greeting is echoed
                link.send(&greeting, sizeof(greeting));
                link.recv(&greeting, sizeof(greeting));
                link.setCompatibilityMode(greeting == klSocketLink::kCompatibilityGreeting);
            } else {
                link.signalHPCNetSocket();
            }
            link.setRecvTimeout(20.0);  // lifted by the greeting
            for (std::shared_ptr<klNetBuffer> buffer;; link.send(buffer)) {
                link.recv(buffer);
            }
        });
    const std::shared_ptr<klSocketLink> link =
        klSocketLink::checkForHPCNetSocket(klSocketLink(listener).takeDescriptor());
    ASSERT_NE(nullptr, link);
    EXPECT_EQ(host + "->" + host, link->getLinkName());  // IPv4 peers read as plain IPv4
    link->setRecvTimeout(20.0);  // a peer that hangs ends the test, not the run
    Task sending([link] {
        for (int i = 0; i < kExchangeBuffers; ++i) {
            link->send(exchangeBuffer(i));
        }
    });
    int intact = 0;
    for (std::shared_ptr<klNetBuffer> received; intact < kExchangeBuffers; ++intact) {
        Bytes expected = wireOf(*exchangeBuffer(intact));
        std::fill_n(expected.begin() + 20, compatibility ? 4 : 0, 0);
        if (outcome([&] { link->recv(received); }) != "returned" || expected != wireOf(*received)) {
            break;
        }
    }
    link->shutdown();
    EXPECT_EQ(kExchangeBuffers, intact) << "buffers that came back intact";
    ASSERT_TRUE(echo.finishedWithin(kBound) && sending.finishedWithin(kBound));
    EXPECT_EQ("closed", outcome([&] { echo.get(); })) << "the echoing end saw no close";
}

INSTANTIATE_TEST_SUITE_P(FramingsAndFamilies, klSocketLinkExchange,
                         ::testing::Combine(::testing::Bool(),
                                            ::testing::Values(std::string("127.0.0.1"),
                                                              std::string("::1"))));

namespace {

// Shows what the base hands a concrete send.
struct FakeLink final : klNetLink {
    void send(const std::shared_ptr<klNetBuffer>& buffer) override { sent = encryptBuffer(buffer); }
    void recv(std::shared_ptr<klNetBuffer>&) override {}
    void shutdown() override {}
    unsigned int getRecvHandle() override { return 0; }
    void checkAlive() override {}
    std::shared_ptr<klNetBuffer> sent;
};

// XOR with a key that depends on the position in the ciphered region, so that a region that
// starts or ends at the wrong byte, or is ciphered in pieces, shows. Logs its calls.
struct XorCipher final : klNetCipherBase {
    static unsigned char key(std::uint64_t i) { return static_cast<unsigned char>(i * 31 + 7); }
    void encrypt(void* to, const void* from, std::uint64_t n) override { apply('e', to, from, n); }
    void decrypt(void* to, const void* from, std::uint64_t n) override { apply('d', to, from, n); }
    void apply(char what, void* to, const void* from, std::uint64_t n) {
        calls += what + std::to_string(n) + " ";
        for (std::uint64_t i = 0; i < n; ++i) {
            static_cast<unsigned char*>(to)[i] =
                static_cast<const unsigned char*>(from)[i] ^ key(i);
        }
    }
    std::string calls;
};

}  // namespace

TEST(klNetLink, BaseSendsTheCallersBufferRefusesATimeoutAndCopiesKeepIdentifiersAndCipher) {
    FakeLink link;
    KL_EXPECT_THROW_TEXT(link.setRecvTimeout(2.5), klNetError, "Unable to set recv timeout");
    const auto buffer = bufferWith(pattern(10));
    link.send(buffer);
    EXPECT_EQ(buffer, link.sent) << "without a cipher the caller's own buffer goes out";
    link.setId(7);
    link.setRemoteId(9);
    link.setNodeAffinity(1);
    link.setCipher(std::make_shared<XorCipher>());
    FakeLink copy(link), assigned;
    assigned = link;
    for (FakeLink* each : {&copy, &assigned}) {
        EXPECT_EQ(std::make_tuple(7u, 9u, 1),
                  std::make_tuple(each->getId(), each->getRemoteId(), each->getNodeAffinity()));
        each->send(buffer);
        EXPECT_EQ(buffer->getBuffer()[4] ^ XorCipher::key(0), each->sent->getBuffer()[4]);
    }
}

TEST(klNetLink, CipherCoversHeaderBytesFourOnAndThePayloadWithTheSizeInClear) {
    RawPeer peer;
    auto cipher = std::make_shared<XorCipher>();
    peer.link.setCipher(cipher);
    for (std::size_t size : {300u, 0u}) {
        const auto buffer = bufferWith(pattern(size));
        std::memcpy(buffer->getBuffer() + 4, pattern(40).data() + 20, 20);
        const Bytes clear = wireOf(*buffer);
        Bytes ciphered = clear;
        for (std::size_t i = 4; i < ciphered.size(); ++i) {
            ciphered[i] ^= XorCipher::key(i - 4);
        }
        peer.link.send(buffer);
        EXPECT_EQ(clear, wireOf(*buffer)) << "the caller's buffer was changed";
        EXPECT_EQ(ciphered, readExactly(peer.raw, 24 + size)) << size;
        // Echoed back, the bytes are framed by the clear size and deciphered in place.
        writeAll(peer.raw, ciphered);
        std::shared_ptr<klNetBuffer> received;
        peer.link.recv(received);
        EXPECT_EQ(clear, wireOf(*received));
        EXPECT_EQ("e" + std::to_string(20 + size) + " d" + std::to_string(20 + size) + " ",
                  cipher->calls);
        cipher->calls.clear();
    }
}

TEST(klSocketAddress, SplitsServerAndPortTexts) {
    const std::tuple<const char*, const char*, int> cases[] = {
        {"render7", "render7", 8889},
        {"  render7:9000  ", "render7", 9000},
        {"  render7  ", "render7", 8889},
        {"render7:", "render7", 8889},
        {"render7:99999", "render7", 99999},
        {"[::1]:9000", "::1", 9000},
        {"[::1]", "::1", 8889},
        {" [fe80::1%eth0]:7 ", "fe80::1%eth0", 7},
        // Texts that fit neither pattern stay whole with the default port.
        {"fe80::1", "fe80::1", 8889},
        {":99999", ":99999", 8889},
        {"a:b:1", "a:b:1", 8889},
    };
    for (const auto& [text, server, port] : cases) {
        std::string splitServer = "stale";
        int splitPort = -5;
        klSocketAddress::splitServerAndPort(text, splitServer, splitPort, 8889);
        EXPECT_EQ(std::make_tuple(text, std::string(server), port, std::string(server), port),
                  std::make_tuple(text, splitServer, splitPort, klSocketAddress::parseServer(text),
                                  klSocketAddress::parsePort(text, 8889)));
    }
    EXPECT_THROW(klSocketAddress("127.0.0.1:99999999999", 1), std::out_of_range);
}

TEST(klSocketAddress, ResolvesNumericTextsPrefersIpv4AndReadsMappedPeersAsIpv4) {
    const klSocketAddress v6("[::1]:9000", 8889);
    const klSocketAddress v4("127.0.0.1", "4567");
    EXPECT_TRUE(v6.getFamily() == AF_INET6 && v6.getName() == "::1" && v6.getPort() == 9000);
    EXPECT_TRUE(v4.getFamily() == AF_INET && v4.getName() == "127.0.0.1" && v4.getPort() == 4567);
    EXPECT_EQ("127.0.0.1", klSocketAddress("localhost", 1).getName());
    EXPECT_EQ("0.0.0.0", klSocketAddress("", "0").getName());  // the wildcard, of both families
    sockaddr_in6 peer{};
    peer.sin6_family = AF_INET6;
    for (const char* name : {"::ffff:10.1.2.3", "fe80::ffff:1"}) {
        ASSERT_EQ(1, ::inet_pton(AF_INET6, name, &peer.sin6_addr));
        EXPECT_EQ(name[1] == ':' ? "10.1.2.3" : name,
                  klSocketAddress(reinterpret_cast<const sockaddr*>(&peer)).getName());
    }
}

TEST(klSocketAddress, FailuresNameTheirCause) {
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    KL_EXPECT_THROW_TEXT(klSocketAddress(reinterpret_cast<const sockaddr*>(&local)), klNetError,
                         "Protocol not supported");
    // A name with an empty label is refused by the resolver itself, without asking a server.
    KL_EXPECT_THROW_TEXT(klSocketAddress("no..such..host", "80"), klNetError,
                         std::string("Unable to get address info for 'no..such..host' ") +
                             ::gai_strerror(EAI_NONAME));
    KL_EXPECT_THROW_TEXT(
        klSocketAddress("127.0.0.1", "no-such-service"), klNetError,
        std::string("Unable to get address info for '127.0.0.1' ") + ::gai_strerror(EAI_SERVICE));
}
