// Sealed links end to end on loopback, through a forwarder in the middle that can change a byte
// on its way or keep what the client said: the handshake proves the key both ways, refuses a
// wrong key, a service without one, a replayed handshake, a changed handshake byte (each with
// its own message on both sides) and a name the service does not answer to, and a changed byte
// in either direction after it ends the link with the authentication error and delivers nothing.
// Also: the bounds of the accepting side's parser, the hand-off's frame reserve, key files.
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include <klNetBase/link/klNetNodeNames.h>

#include <sys/stat.h>

#include <atomic>

using namespace kltest;

namespace {

klNetFarmKey keyOf(std::uint8_t fill) {
    std::array<std::uint8_t, klNetFarmKey::kSize> bytes;
    bytes.fill(fill);
    return klNetFarmKey(bytes);
}

// Forwards raw bytes between a client's connection and a server's, in both directions, until
// either end closes. The byte at flipAt[d] of direction d (0: client to server) is inverted;
// what the client sent is kept.
class Forwarder {
public:
    Forwarder(long flipToServer, long flipToClient) {
        auto [client, middleA] = connectedPair();
        auto [middleB, server] = connectedPair();
        clientEnd = client;
        serverEnd = server;
        m_toServer = std::make_unique<Task>(
            [=, sent = m_sent] { copy(middleA, middleB, flipToServer, sent); });
        m_toClient = std::make_unique<Task>([=] { copy(middleB, middleA, flipToClient, nullptr); });
    }
    ~Forwarder() {
        clientEnd->shutdown();
        serverEnd->shutdown();
        EXPECT_TRUE(m_toServer->finishedWithin(kBound) && m_toClient->finishedWithin(kBound));
    }
    std::shared_ptr<klSocketLink> clientEnd, serverEnd;
    // What the client sent, as the server got it.
    std::shared_ptr<Bytes> m_sent = std::make_shared<Bytes>();

private:
    static void copy(std::shared_ptr<klSocketLink> from, std::shared_ptr<klSocketLink> to,
                     long flipAt, std::shared_ptr<Bytes> kept) {
        unsigned char chunk[65536];
        for (long offset = 0;;) {
            const ssize_t n = ::recv(from->getDescriptor(), chunk, sizeof(chunk), 0);
            if (n <= 0) {
                break;
            }
            if (flipAt >= offset && flipAt < offset + n) {
                chunk[flipAt - offset] ^= 0xFF;
            }
            if (kept) {
                kept->insert(kept->end(), chunk, chunk + n);
            }
            offset += n;
            if (::send(to->getDescriptor(), chunk, std::size_t(n), MSG_NOSIGNAL) != n) {
                break;
            }
        }
        from->shutdown();
        to->shutdown();
    }
    std::unique_ptr<Task> m_toServer, m_toClient;
};

const std::string kNode = "node1:8889";

klNetNodeNames namesOf(std::initializer_list<std::pair<const char*, int>> names) {
    klNetNodeNames set;
    for (const auto& [host, port] : names) {
        set.add(host, port);
    }
    return set;
}

// Runs the accepting side's handshake, for a service answering to names, on a thread of its own;
// "returned" when it sealed.
std::future<std::string> acceptOn(std::shared_ptr<klSocketLink> link, const klNetFarmKey& key,
                                  klNetNodeNames names = namesOf({{"node1", 8889}})) {
    return std::async(std::launch::async, [link, key, names] {
        return outcome([&] {
            std::uint32_t greeting = 0;
            link->recv(&greeting, sizeof(greeting));
            try {
                klNetFarmSealer(key).accept(*link, names);
            } catch (...) {
                link->shutdown();  // as the service closes a refused connection
                throw;
            }
        });
    });
}

// Byte counts of each side's handshake with kNode dialed; the client's flags and name-length
// bytes, the server's flags byte and its verdict.
constexpr long kClientHandshake = 4 + 8 + 32 + 1 + 1 + 10 + 32 + 32;
constexpr long kServerHandshake = 4 + 8 + 32 + 1 + 1 + 1 + 32;
constexpr long kClientFlags = 4 + 8 + 32, kClientName = kClientFlags + 2;
constexpr long kServerFlags = 4 + 8 + 32, kServerVerdict = kServerFlags + 1;

TEST(klNetFarmSealer, SealedBuffersTravelBothWaysAndAChangedByteIsCaughtEitherWay) {
    const klNetFarmKey key = keyOf(7);
    const Bytes payload = pattern(100000);
    const std::string changed =
        "Sealed frame failed authentication: the connection was changed on its way";
    // No change, then a byte of the first frame changed on its way to the server, to the client,
    // then the client's first frame sent back to it (each direction is keyed apart).
    for (const auto& [toServer, toClient, reflect] : {std::tuple<long, long, bool>{-1, -1, false},
                                                      {kClientHandshake + 40, -1, false},
                                                      {-1, kServerHandshake + 40, false},
                                                      {-1, -1, true}}) {
        SCOPED_TRACE(std::to_string(toServer) + " " + std::to_string(toClient));
        Forwarder path(toServer, toClient);
        auto accepted = acceptOn(path.serverEnd, key);
        klNetFarmSealer(key).connect(*path.clientEnd, kNode, 10.0);
        ASSERT_EQ("returned", accepted.get());
        ASSERT_TRUE(path.clientEnd->isSealed() && path.serverEnd->isSealed());

        Buffer buffer;
        path.clientEnd->send(bufferWith(payload));
        if (reflect) {
            std::uint32_t size = 0;
            path.serverEnd->recv(&size, sizeof(size));
            Bytes frame(size);
            path.serverEnd->recv(frame.data(), size);
            path.serverEnd->send(&size, sizeof(size));
            path.serverEnd->send(frame.data(), size);
            EXPECT_EQ(changed, outcome([&] { path.clientEnd->recv(buffer); }));
            continue;
        }
        const std::string atServer = outcome([&] { path.serverEnd->recv(buffer); });
        if (toServer >= 0) {
            EXPECT_EQ(changed, atServer);
            continue;
        }
        EXPECT_EQ(payload, payloadOf(*buffer));
        path.serverEnd->send(bufferWith(payload));
        EXPECT_EQ(toClient >= 0 ? changed : "returned",
                  outcome([&] { path.clientEnd->recv(buffer); }));
    }
}

TEST(klNetFarmSealer, WithoutTheKeyNothingIsSealed) {
    {  // another key
        auto [client, server] = connectedPair();
        auto accepted = acceptOn(server, keyOf(2));
        EXPECT_EQ("The service at node1:8889 refused the farm key: it holds another key",
                  outcome([&] { klNetFarmSealer(keyOf(1)).connect(*client, kNode, 10.0); }));
        EXPECT_EQ("Peer does not hold the farm key", accepted.get());
    }
    // A service without a key echoes the greeting, then reads the client's opening as a request:
    // one that answers it (as the service does: an error frame), one that waits for more.
    for (const bool answers : {true, false}) {
        auto [client, server] = connectedPair();
        auto echo = std::async(std::launch::async, [answers, server = server] {
            std::uint32_t greeting = 0;
            server->recv(&greeting, sizeof(greeting));
            server->send(&greeting, sizeof(greeting));
            if (answers) {
                server->send(pattern(40).data(), 40);
            }
        });
        const auto start = Clock::now();
        EXPECT_EQ(
            "The service at node1:8889 has no farm key: it answered the sealed greeting "
            "unsealed",
            outcome(
                [&] { klNetFarmSealer(keyOf(1)).connect(*client, kNode, answers ? 30.0 : 0.5); }));
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));  // not the 30 s time-out
        echo.get();
    }
    {  // a recorded handshake replayed to the service
        Forwarder recorder(-1, -1);
        auto accepted = acceptOn(recorder.serverEnd, keyOf(3));
        klNetFarmSealer(keyOf(3)).connect(*recorder.clientEnd, kNode, 10.0);
        ASSERT_EQ("returned", accepted.get());
        auto [attacker, server] = connectedPair();
        auto replayed = acceptOn(server, keyOf(3));
        attacker->send(recorder.m_sent->data(), std::size_t(kClientHandshake));
        EXPECT_EQ("Peer does not hold the farm key", replayed.get());
    }
}

// One byte of the handshake changed on its way: each side says what it saw, and neither seals.
TEST(klNetFarmSealer, AChangedHandshakeByteIsNamedOnBothSides) {
    const std::string keyRefused =
        "The service at node1:8889 refused the farm key: it holds another key";
    const std::string cipherRefused =
        "The service at node1:8889 refused the cipher choice: the handshake was changed on its "
        "way";
    const std::string cipherChanged =
        "Peer's handshake was changed on its way: the cipher choice differs";
    const struct {
        long toServer, toClient;
        std::string client, service;
    } cases[] = {
        {kClientFlags, -1, cipherRefused, cipherChanged},
        {-1, kServerFlags, cipherRefused, cipherChanged},
        {kClientName + 3, -1, keyRefused, "Peer's handshake names no valid node"},
        {kClientHandshake - 33, -1, keyRefused, "Peer does not hold the farm key"},
        {kClientHandshake - 1, -1, cipherRefused, cipherChanged},
        {-1, kServerVerdict, "The service at node1:8889 proved another farm key", "returned"},
        {-1, kServerHandshake - 1, "The service at node1:8889 proved another farm key", "returned"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.toServer) + " " + std::to_string(test.toClient));
        Forwarder path(test.toServer, test.toClient);
        auto accepted = acceptOn(path.serverEnd, keyOf(4));
        EXPECT_EQ(test.client, outcome([&] {
                      klNetFarmSealer(keyOf(4)).connect(*path.clientEnd, kNode, 10.0);
                  }));
        EXPECT_EQ(test.service, accepted.get());
        EXPECT_FALSE(path.clientEnd->isSealed());
    }
}

// The service accepts the names it answers to only, and tells a refused client one of its own.
TEST(klNetFarmSealer, AHandshakeForAnotherNodeOrPortIsRefused) {
    const klNetNodeNames names = namesOf({{"node1", 8889}, {"10.0.0.1", 8889}, {"::1", 8889}});
    const struct {
        std::string dialed, client;
    } cases[] = {
        {"node1:8889", "returned"},
        {"NODE1:8889", "returned"},
        {"[::1]:8889", "returned"},
        {"node1:8890",
         "The service at node1:8890 answers to node1:8889, not to node1:8890: the "
         "connection went to another node"},
        {"node2:8889",
         "The service at node2:8889 answers to node1:8889, not to node2:8889: the "
         "connection went to another node"},
        {"10.0.0.1:9",
         "The service at 10.0.0.1:9 answers to 10.0.0.1:8889, not to 10.0.0.1:9: "
         "the connection went to another node"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.dialed);
        auto [client, server] = connectedPair();
        auto accepted = acceptOn(server, keyOf(5), names);
        EXPECT_EQ(test.client,
                  outcome([&] { klNetFarmSealer(keyOf(5)).connect(*client, test.dialed, 10.0); }));
        EXPECT_EQ(test.client == "returned" ? "returned"
                                            : "handshake named " + test.dialed +
                                                  ", which this service does not answer to",
                  accepted.get());
    }
    auto [client, server] = connectedPair();
    auto accepted = acceptOn(server, keyOf(5), klNetNodeNames());
    EXPECT_EQ(
        "The service at node1:8889 does not answer to that name: the connection went to "
        "another node",
        outcome([&] { klNetFarmSealer(keyOf(5)).connect(*client, kNode, 10.0); }));
}

// What the accepting side asks for, given the client's bytes so far: bad bytes are refused before
// it waits for more, and a name never makes it ask for more than the name's length says.
TEST(klNetFarmSealer, TheAcceptingSideRefusesAnOpeningBeforeWaitingForMore) {
    const auto opening = [](std::size_t nameSize, const std::string& name) {
        std::string bytes = "KLSEAL02" + std::string(33, '\x11');
        return bytes + char(nameSize) + name;
    };
    const struct {
        std::string received, missing;
    } cases[] = {
        {"", "42"},
        {"KLSEAL0", "35"},
        {"KLSEAL01", "Peer does not speak this sealed handshake"},
        {"X", "Peer does not speak this sealed handshake"},
        {opening(10, ""), "74"},
        {opening(10, "node1"), "69"},
        {opening(255, ""), "319"},
        {opening(0, ""), "Peer's handshake names no valid node"},
        {opening(10, "no de"), "Peer's handshake names no valid node"},
        {opening(10, "n\n"), "Peer's handshake names no valid node"},
        {opening(5, "node1") + std::string(64, 'm'), "0"},
    };
    klNetFarmSealer sealer(keyOf(6));
    const klNetNodeNames names = namesOf({{"node1", 1}});
    for (const auto& test : cases) {
        SCOPED_TRACE(test.received);
        const auto acceptance = sealer.startAccept(names);
        std::string missing;
        const std::string how =
            outcome([&] { missing = std::to_string(acceptance->missing(test.received)); });
        EXPECT_EQ(test.missing, how == "returned" ? missing : how);
    }
}

// After a hand-off's export the old end seals only the frames it reserved; the new holder goes on
// from there, and the peer opens both in turn.
TEST(klNetFarmSealer, AHandedOverSealSendsOnlyTheFramesItReserved) {
    klNetFarmSealer::enableHandOff();
    const auto stateOf = [](char sendKey, char recvKey) {
        std::string state(2 + 32 + 32 + 16, '\0');
        state[0] = 1;  // version; state[1] 0: ChaCha20-Poly1305, which every processor has
        std::fill(state.begin() + 2, state.begin() + 34, sendKey);
        std::fill(state.begin() + 34, state.begin() + 66, recvKey);
        return state;
    };
    const auto old = klNetLinkSeal::restore(stateOf('a', 'b'));
    const auto peer = klNetLinkSeal::restore(stateOf('b', 'a'));
    const auto newHolder = klNetLinkSeal::restore(old->exportState(1));
    const unsigned char clear[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    unsigned char sealed[8 + 16], opened[8];
    const auto sendOpen = [&](klNetLinkSeal& sender) {
        sender.seal(clear, sizeof(clear), nullptr, 0, sealed);
        return peer->open(sealed, sizeof(sealed), nullptr, 0, opened);
    };
    EXPECT_TRUE(sendOpen(*old));
    EXPECT_EQ(
        "Sealed link handed over: it may send only the frames it reserved, or it would "
        "reuse the new holder's nonces",
        outcome([&] { sendOpen(*old); }));
    EXPECT_TRUE(sendOpen(*newHolder));
    EXPECT_TRUE(sendOpen(*newHolder));
}

TEST(klNetFarmKey, MadeOnceOwnerOnly) {
    const std::string path = ::testing::TempDir() + "farm-key-" + std::to_string(::getpid());
    ::unlink(path.c_str());
    klNetFarmKey::generate(path);
    struct stat status {};
    ASSERT_EQ(0, ::stat(path.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 07777);
    EXPECT_EQ(32, status.st_size);
    EXPECT_EQ("Key file '" + path + "' exists already",
              outcome([&] { klNetFarmKey::generate(path); }));
    EXPECT_EQ("returned", outcome([&] { klNetFarmKey::load(path); }));
    ::unlink(path.c_str());
}

// A key file as ssh checks a private key: what is there, whose it is, its mode.
struct KeyFileCase {
    const char* name;
    const char* kind;  // "file", "fifo", "link" (to a good key file), "directory"
    mode_t mode;
    uid_t owner;        // 0: the user running the test
    const char* error;  // after "Key file 'PATH' "; "" when the key loads
};

void PrintTo(const KeyFileCase& test, std::ostream* out) {
    *out << test.name;
}

class klNetFarmKeyFile : public ::testing::TestWithParam<KeyFileCase> {};

TEST_P(klNetFarmKeyFile, IsCheckedAsSshChecksAPrivateKey) {
    const KeyFileCase& test = GetParam();
    if (test.owner != 0 && ::geteuid() != 0) {
        GTEST_SKIP() << "giving a file to another user needs root";
    }
    const std::string dir = ::testing::TempDir() + "farm-key-" + std::to_string(::getpid());
    ::mkdir(dir.c_str(), 0700);
    const std::string good = dir + "/good", path = dir + "/key";
    klNetFarmKey::generate(good);
    const std::string kind = test.kind;
    if (kind == "file") {
        klNetFarmKey::generate(path);
    } else if (kind == "fifo") {
        ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    } else if (kind == "link") {
        ASSERT_EQ(0, ::symlink(good.c_str(), path.c_str()));
    } else {
        ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    }
    ::chmod(kind == "link" ? good.c_str() : path.c_str(), test.mode);
    if (test.owner != 0) {
        ASSERT_EQ(0, ::chown(path.c_str(), test.owner, test.owner));
    }
    const std::string expected = *test.error ? "Key file '" + path + "' " + test.error : "returned";
    // Within a bound: a FIFO must not hold the load waiting for a writer.
    EXPECT_EQ(expected, outcomeWithin([&] { klNetFarmKey::load(path); }, std::chrono::seconds(5)));
    ::unlink(path.c_str());
    ::rmdir(path.c_str());
    ::unlink(good.c_str());
    ::rmdir(dir.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, klNetFarmKeyFile,
    ::testing::Values(KeyFileCase{"owner_only", "file", 0600, 0, ""},
                      KeyFileCase{"read_only", "file", 0400, 0, ""},
                      KeyFileCase{"link_to_a_good_file", "link", 0600, 0, ""},
                      KeyFileCase{"owner_executable", "file", 0700, 0,
                                  "is executable (mode 0700): chmod 600 it"},
                      KeyFileCase{"group_executable", "file", 0610, 0,
                                  "is group-executable (mode 0610): chmod 600 it"},
                      KeyFileCase{"group_readable", "file", 0644, 0,
                                  "is readable by group (mode 0644): chmod 600 it"},
                      KeyFileCase{"group_writable", "file", 0620, 0,
                                  "is writable by group (mode 0620): chmod 600 it"},
                      KeyFileCase{"others_readable", "file", 0604, 0,
                                  "is readable by others (mode 0604): chmod 600 it"},
                      KeyFileCase{"others_executable", "file", 0601, 0,
                                  "is executable by others (mode 0601): chmod 600 it"},
                      KeyFileCase{"link_to_a_loose_file", "link", 0640, 0,
                                  "is readable by group (mode 0640): chmod 600 it"},
                      KeyFileCase{"fifo", "fifo", 0600, 0, "is not a regular file"},
                      KeyFileCase{"directory", "directory", 0700, 0, "is not a regular file"},
                      KeyFileCase{"another_users", "file", 0600, 65534, "is owned by uid 65534"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
