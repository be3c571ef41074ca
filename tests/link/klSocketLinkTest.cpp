// Socket and listening links on real loopback sockets. The program is also the far end of the
// two-process exchange: "--link-peer <port> <host> <normal|compatibility>" connects, greets and
// echoes every buffer until the connection closes.
#include <support/klNetSocketTestSupport.h>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

using kltest::Bytes;
using kltest::hex;
using kltest::outcome;
using kltest::wireOf;
using kltest::operator+;

extern char** environ;

namespace {

const Bytes kHeader = hex("05000000 44332211 6655 02 07 BBAA9988 FFEEDDCC 0201 0403");
const Bytes kPayload = {'a', 'b', 'c', 'd', 'e'};
const Bytes kFrame = kHeader + kPayload;
const Bytes kCompatibilityFrame = Bytes(kHeader.begin(), kHeader.begin() + 20) + kPayload;

// A buffer whose wire bytes are kFrame.
std::shared_ptr<klNetBuffer> sampleBuffer() {
    auto buffer = kltest::bufferWith(kPayload);
    std::memcpy(buffer->getBuffer() + 4, kHeader.data() + 4, 20);
    return buffer;
}

klSocketAddress loopback(int port, const char* host = "127.0.0.1") {
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

// The text of a failed connect; "" when it succeeded and the link went into kept.
std::string connectFailure(int port, double timeout,
                           std::vector<std::unique_ptr<klSocketLink>>& kept) {
    try {
        kept.push_back(std::make_unique<klSocketLink>(loopback(port), timeout));
        return "";
    } catch (const klNetError& error) {
        return error.what();
    }
}

// Connects to a listener of backlog 1 that never accepts until a connect times out: the kernel
// drops the SYNs it has no room for.
std::string fillAcceptQueue(int port, double timeout,
                            std::vector<std::unique_ptr<klSocketLink>>& kept) {
    for (int attempt = 0; attempt < 16; ++attempt) {
        const std::string failure = connectFailure(port, timeout, kept);
        if (!failure.empty()) {
            return failure;
        }
    }
    ADD_FAILURE() << "the accept queue never filled";
    return "";
}

}  // namespace

TEST(klSocketLink, NormalFramingIsOneWriteCompatibilityFramingTwentyHeaderBytesThenPayload) {
    kltest::RawPeer peer;
    peer.link.send(sampleBuffer());
    EXPECT_EQ(kFrame, kltest::readExactly(peer.raw, kFrame.size()));
    peer.link.setCompatibilityMode(true);
    peer.link.send(sampleBuffer());
    EXPECT_EQ(kCompatibilityFrame, kltest::readExactly(peer.raw, kCompatibilityFrame.size()));

    // A packet socket keeps the boundaries of the writes.
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
    klSocketLink packets(ends[0]);
    unsigned char message[64];
    packets.send(sampleBuffer());
    EXPECT_EQ(29, ::recv(ends[1], message, sizeof(message), 0));
    packets.setCompatibilityMode(true);
    packets.send(sampleBuffer());
    EXPECT_EQ(20, ::recv(ends[1], message, sizeof(message), 0));
    EXPECT_EQ(5, ::recv(ends[1], message, sizeof(message), 0));
    ::close(ends[1]);
}

TEST(klSocketLink, ReceiveFramesByTheSizeFieldAndRefusesSizesBeyondTheCapacity) {
    kltest::RawPeer peer;
    std::shared_ptr<klNetBuffer> received;
    kltest::writeAll(peer.raw, kFrame);
    peer.link.recv(received);
    EXPECT_EQ(kFrame, wireOf(*received));

    // The older framing leaves message id and count 0 whatever the pool buffer held before.
    kltest::dirtyFreeBuffers();
    peer.link.setCompatibilityMode(true);
    kltest::writeAll(peer.raw, kCompatibilityFrame);
    peer.link.recv(received);
    Bytes expected = kFrame;
    std::fill_n(expected.begin() + 20, 4, 0);
    EXPECT_EQ(expected, wireOf(*received));
    peer.link.setCompatibilityMode(false);

    const Bytes full = hex("12020200") + Bytes(20, 0) + kltest::pattern(131602);
    std::thread writer([&] { kltest::writeAll(peer.raw, full + hex("13020200") + Bytes(20, 0)); });
    peer.link.recv(received);
    EXPECT_EQ(full, wireOf(*received));
    KL_EXPECT_THROW_TEXT(peer.link.recv(received), klNetError,
                         "Received invalid buffer size. Possibly stream is out of sync.");
    ::shutdown(peer.raw, SHUT_RDWR);  // ends the writer also when framing went wrong
    writer.join();
}

TEST(klSocketLink, AcceptingSideAnswersBothGreetingsAndLeavesOtherClientsUnread) {
    klBoundSocketLink listener(0);
    const int port = listener.getAddress().getPort();
    for (const char* greeting : {"B54A0506", "B64A0506"}) {  // 101010101, 101010102
        const int raw = kltest::rawConnect(port);
        kltest::writeAll(raw, hex(greeting));
        const auto link =
            klSocketLink::checkForHPCNetSocket(klSocketLink(listener).takeDescriptor());
        ASSERT_NE(nullptr, link);
        const bool compatibility = greeting[1] == '5';
        EXPECT_EQ(compatibility, link->getCompatibilityMode());
        EXPECT_EQ(hex(greeting), kltest::readExactly(raw, 4));
        link->send(sampleBuffer());
        const Bytes& frame = compatibility ? kCompatibilityFrame : kFrame;
        EXPECT_EQ(frame, kltest::readExactly(raw, frame.size()));
        ::close(raw);
    }
    // Another protocol is refused once four bytes are there; a client that says less is given
    // about two seconds. Either way the caller keeps the descriptor with the bytes unread.
    for (const std::string request : {"GET / HTTP/1.0\r\n\r\n", "ab"}) {
        const int raw = kltest::rawConnect(port);
        kltest::writeAll(raw, Bytes(request.begin(), request.end()));
        const int accepted = klSocketLink(listener).takeDescriptor();
        const auto start = kltest::Clock::now();
        EXPECT_EQ(nullptr, klSocketLink::checkForHPCNetSocket(accepted));
        const std::chrono::duration<double> waited = kltest::Clock::now() - start;
        EXPECT_TRUE(request.size() >= 4 || (waited.count() >= 1.9 && waited.count() < 10))
            << waited.count();
        EXPECT_EQ(Bytes(request.begin(), request.end()),
                  kltest::readExactly(accepted, request.size()));
        ::close(accepted);
        ::close(raw);
    }
}

TEST(klSocketLink, ConnectingSideGreetsAndRefusesAWrongAnswer) {
    int port = 0;
    const int server = kltest::rawSocket(port, 4);
    for (const char* answer : {"B64A0506", "B54A0506"}) {
        klSocketLink link(loopback(port), 5.0);
        const int raw = ::accept(server, nullptr, nullptr);
        auto greeted = std::async(std::launch::async,
                                  [&] { return outcome([&] { link.signalHPCNetSocket(); }); });
        EXPECT_EQ(hex("B64A0506"), kltest::readExactly(raw, 4));
        kltest::writeAll(raw, hex(answer));
        const bool right = answer[1] == '6';
        EXPECT_EQ(right ? "returned" : "Unexpected respnse from server", greeted.get());
        // The time-out for the answer is lifted after a right one and stays after a wrong one.
        EXPECT_EQ(right ? 0 : 30000, recvTimeoutMs(link));
        ::close(raw);
    }
    ::close(server);
}

TEST(klSocketLink, ConnectAndBindFailuresNameTheirCause) {
    std::vector<std::unique_ptr<klSocketLink>> kept;
    int port = 0;
    const int refusing = kltest::rawSocket(port);  // bound, not listening
    EXPECT_EQ("Unable to connect to '127.0.0.1' port:" + std::to_string(port) +
                  ". 111:Connection refused",
              connectFailure(port, 5.0, kept));
    ::close(refusing);
    const int full = kltest::rawSocket(port, 1);
    EXPECT_EQ("Unable to connect to '127.0.0.1' port:" + std::to_string(port) +
                  ". connect timed out after 0 seconds.",
              fillAcceptQueue(port, 0.7, kept));
    ::close(full);

    klBoundSocketLink holder(0);
    port = holder.getAddress().getPort();
    const std::set<int> before = kltest::openDescriptors();
    KL_EXPECT_THROW_TEXT(
        klBoundSocketLink{port}, klNetError,
        "Unable to bind to port " + std::to_string(port) + ". 98:Address already in use");
    EXPECT_EQ(before, kltest::openDescriptors());
}

TEST(klBoundSocketLink, AcceptsIpv4AndIpv6ClientsAsBlockingUndelayedLingeringLinks) {
    for (const char* host : {"127.0.0.1", "::1"}) {
        kltest::LinkPair pair(host);
        EXPECT_EQ(AF_INET6, pair.listener.getAddress().getFamily());
        EXPECT_EQ(host, pair.accepted.getPeerAddress().getName());
        EXPECT_EQ(std::string(host) + "->" + host, pair.accepted.getLinkName());
        EXPECT_EQ(std::string(host) + "->" + host, pair.connected.getLinkName());
        for (klSocketLink* link : {&pair.connected, &pair.accepted}) {
            const int fd = link->getDescriptor();
            EXPECT_EQ(0, ::fcntl(fd, F_GETFL) & O_NONBLOCK) << host;
            EXPECT_EQ(1, option<int>(fd, IPPROTO_TCP, TCP_NODELAY)) << host;
            const auto lingering = option<linger>(fd, SOL_SOCKET, SO_LINGER);
            EXPECT_TRUE(lingering.l_onoff == 1 && lingering.l_linger == 1) << host;
        }
        pair.connected.send(sampleBuffer());
        std::shared_ptr<klNetBuffer> received;
        pair.accepted.recv(received);
        EXPECT_EQ(kFrame, wireOf(*received));
    }
}

TEST(klSocketLink, ShutdownFromAnotherThreadWakesBlockedRecvSendAndAccept) {
    kltest::LinkPair pair;
    // The far end neither sends nor reads: the receive waits, the send fills the socket buffers
    // and waits too, until one shutdown wakes both.
    auto receiving = kltest::startBlocked(
        [&] {
            std::shared_ptr<klNetBuffer> buffer;
            pair.connected.recv(buffer);
        },
        {SYS_recvfrom});
    auto sending = kltest::startBlocked(
        [&] {
            const auto big = kltest::bufferWith(kltest::pattern(klNetBuffer::kCapacity));
            for (int i = 0; i < 100000; ++i) {
                pair.connected.send(big);
            }
        },
        {SYS_sendto});
    pair.connected.shutdown();
    EXPECT_EQ("closed", receiving.get());
    EXPECT_EQ("closed", sending.get());
    EXPECT_EQ("closed", outcome([&] { pair.connected.checkAlive(); }));

    klBoundSocketLink idle(0);
    const int port = idle.getAddress().getPort();
    auto accepting = kltest::startBlocked([&] { klSocketLink next(idle); }, {SYS_poll, SYS_ppoll});
    idle.shutdown();
    EXPECT_EQ("closed", accepting.get());
    EXPECT_EQ("closed", outcome([&] { klSocketLink next(idle); }));
    klBoundSocketLink again(port);  // the port was freed at once
}

TEST(klSocketLink, PeerFailuresAreConnectionClosedAndATimeoutKeepsTheLink) {
    // SIGPIPE's default action ends the process: a signal would end this test.
    ASSERT_NE(SIG_ERR, ::signal(SIGPIPE, SIG_DFL));
    kltest::LinkPair gone;
    ::close(gone.accepted.takeDescriptor());
    const auto big = kltest::bufferWith(kltest::pattern(65536));
    std::string result = "returned";
    for (int i = 0; i < 1000 && result == "returned"; ++i) {
        result = outcome([&] { gone.connected.send(big); });
    }
    EXPECT_EQ("closed", result);
    EXPECT_EQ("closed", outcome([&] { gone.connected.send("x", 1); }));

    // The peer leaves after 10 of 1000 payload bytes.
    kltest::RawPeer peer;
    kltest::writeAll(peer.raw, hex("E8030000") + Bytes(20, 0) + Bytes(10, 1));
    ::close(peer.raw);
    peer.raw = -1;
    std::shared_ptr<klNetBuffer> received;
    EXPECT_EQ("closed", outcome([&] { peer.link.recv(received); }));
    EXPECT_EQ(klInvalidSocket, peer.link.getDescriptor());
    EXPECT_EQ("closed", outcome([&] { peer.link.checkAlive(); }));

    kltest::LinkPair pair;
    pair.accepted.setRecvTimeout(0.2);
    ASSERT_EQ(200, recvTimeoutMs(pair.accepted));
    EXPECT_EQ("timeout", outcome([&] { pair.accepted.recv(received); }));
    pair.connected.send(sampleBuffer());
    EXPECT_EQ("returned", outcome([&] { pair.accepted.recv(received); }));
    EXPECT_EQ(kFrame, wireOf(*received));
}

TEST(klSocketLink, ThousandCyclesLeakNoDescriptorsAndAllAreCloseOnExec) {
    const auto closeOnExec = [](int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; };
    const std::set<int> before = kltest::openDescriptors();
    {
        klBoundSocketLink listener(0);
        const int port = listener.getAddress().getPort();
        std::set<int> own = kltest::openDescriptors();
        for (int fd : before) {
            own.erase(fd);
        }
        ASSERT_EQ(2u, own.size()) << "a listening socket and its shutdown event";
        for (int fd : own) {
            char target[64] = {};
            ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1);
            EXPECT_TRUE(fd == listener.getDescriptor() || std::strstr(target, "eventfd")) << target;
            EXPECT_TRUE(closeOnExec(fd)) << target;
        }
        int refusedPort = 0;
        int fullPort = 0;
        const int refusing = kltest::rawSocket(refusedPort);
        const int full = kltest::rawSocket(fullPort, 1);
        std::vector<std::unique_ptr<klSocketLink>> kept;
        fillAcceptQueue(fullPort, 0.1, kept);
        for (int i = 0; i < 1000; ++i) {
            if (i % 4 == 1) {
                EXPECT_NE(std::string::npos, connectFailure(refusedPort, 1.0, kept).find(" 111:"));
            } else if (i % 500 == 2) {
                EXPECT_NE(std::string::npos,
                          connectFailure(fullPort, 0.1, kept).find(" timed out"));
            } else {
                klSocketLink connected(loopback(port), 5.0);
                klSocketLink accepted(listener);
                ASSERT_TRUE(closeOnExec(connected.getDescriptor()) &&
                            closeOnExec(accepted.getDescriptor()));
                if (i % 3 == 0) {
                    accepted.shutdown();
                }
                if (i % 100 == 7) {
                    klBoundSocketLink(0).shutdown();
                }
            }
        }
        kept.clear();
        ::close(refusing);
        ::close(full);
    }
    EXPECT_EQ(before, kltest::openDescriptors());
}

namespace {

constexpr int kExchangeBuffers = 2000;

// Buffer i of the exchange, the same each time: random header fields and a random size, mostly
// small, now and then up to the capacity, both extremes included.
std::shared_ptr<klNetBuffer> exchangeBuffer(int i) {
    std::uint64_t state = 0x9E3779B97F4A7C15ull * std::uint64_t(i + 1);
    const auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        return state ^= state << 17;
    };
    std::size_t size = next() % 16 == 0 ? next() % (klNetBuffer::kCapacity + 1) : next() % 4097;
    size = i == 0 ? 0 : i == 1 ? klNetBuffer::kCapacity : size;
    auto buffer = klNetBufferPool::pop();
    for (std::size_t offset = 4; offset < 24 + size; offset += 8) {
        const std::uint64_t word = next();
        std::memcpy(buffer->getBuffer() + offset, &word,
                    std::min<std::size_t>(8, 24 + size - offset));
    }
    buffer->setDataSize(size);
    return buffer;
}

int runLinkPeer(int port, const char* host, bool compatibility) {
    const std::string result = outcome([&] {
        klSocketLink link(loopback(port, host), 10.0);
        if (compatibility) {
            std::uint32_t greeting = klSocketLink::kCompatibilityGreeting;
            link.send(&greeting, sizeof(greeting));
            link.recv(&greeting, sizeof(greeting));
            if (greeting != klSocketLink::kCompatibilityGreeting) {
                throw klNetError("answered " + std::to_string(greeting));
            }
            link.setCompatibilityMode(true);
        } else {
            link.signalHPCNetSocket();
        }
        for (std::shared_ptr<klNetBuffer> buffer;; link.send(buffer)) {
            link.recv(buffer);
        }
    });
    if (result != "closed") {
        std::fprintf(stderr, "link peer: %s\n", result.c_str());
    }
    return result == "closed" ? 0 : 2;
}

}  // namespace

// The far end is another process that echoes; every byte and header field must come back as
// sent, in both framings and over both address families.
class klSocketLinkExchange : public ::testing::TestWithParam<std::tuple<bool, std::string>> {};

TEST_P(klSocketLinkExchange, EchoedBuffersArriveIntact) {
    const bool compatibility = std::get<0>(GetParam());
    klBoundSocketLink listener(0);
    const std::string port = std::to_string(listener.getAddress().getPort());
    const char* mode = compatibility ? "compatibility" : "normal";
    const char* argv[] = {
        "/proc/self/exe", "--link-peer", port.c_str(), std::get<1>(GetParam()).c_str(), mode,
        nullptr};
    pid_t child = 0;
    ASSERT_EQ(0,
              ::posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ));
    pollfd arrival{listener.getDescriptor(), POLLIN, 0};
    std::unique_ptr<klSocketLink> link;
    if (::poll(&arrival, 1, 20000) == 1) {
        link = klSocketLink::checkForHPCNetSocket(klSocketLink(listener).takeDescriptor());
    }
    std::string failure = link ? "" : "the peer did not connect and greet";
    if (link) {
        EXPECT_EQ(compatibility, link->getCompatibilityMode());
        link->setRecvTimeout(20.0);  // a peer that hangs ends the test, not the run
        auto sending = std::async(std::launch::async, [&] {
            return outcome([&] {
                for (int i = 0; i < kExchangeBuffers; ++i) {
                    link->send(exchangeBuffer(i));
                }
            });
        });
        std::shared_ptr<klNetBuffer> received;
        for (int i = 0; i < kExchangeBuffers && failure.empty(); ++i) {
            Bytes expected = wireOf(*exchangeBuffer(i));
            std::fill_n(expected.begin() + 20, compatibility ? 4 : 0, 0);
            const std::string result = outcome([&] { link->recv(received); });
            if (result != "returned" || expected != wireOf(*received)) {
                failure = "buffer " + std::to_string(i) + ": " + result;
            }
        }
        link->shutdown();
        EXPECT_TRUE(sending.get() == "returned" || !failure.empty());
    }
    EXPECT_EQ("", failure);
    int status = -1;
    for (auto deadline = kltest::Clock::now() + std::chrono::seconds(20);
         ::waitpid(child, &status, WNOHANG) == 0;
         std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
        if (kltest::Clock::now() > deadline) {
            ::kill(child, SIGKILL);
        }
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "peer status " << status;
}

INSTANTIATE_TEST_SUITE_P(FramingsAndFamilies, klSocketLinkExchange,
                         ::testing::Combine(::testing::Bool(),
                                            ::testing::Values(std::string("127.0.0.1"),
                                                              std::string("::1"))),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param) ? "Compatibility"
                                                                        : "Normal") +
                                    (std::get<1>(info.param)[0] == ':' ? "Ipv6" : "Ipv4");
                         });

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--link-peer") {
        return runLinkPeer(std::stoi(argv[2]), argv[3], std::string(argv[4]) == "compatibility");
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
