// Sealed links end to end on loopback, through a forwarder in the middle that can change a byte
// on its way or keep what the client said: the handshake proves the key both ways, refuses a
// wrong key, a service without one and a replayed handshake, and a changed byte in either
// direction ends the link with the authentication error and delivers nothing.
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

// Runs the accepting side's handshake on a thread of its own; "returned" when it sealed.
std::future<std::string> acceptOn(std::shared_ptr<klSocketLink> link, const klNetFarmKey& key) {
    return std::async(std::launch::async, [link, key] {
        return outcome([&] {
            std::uint32_t greeting = 0;
            link->recv(&greeting, sizeof(greeting));
            klNetFarmSealer(key).accept(*link, klNetNodeNames());
        });
    });
}

constexpr long kClientHandshake = 4 + 32 + 1 + 32;
constexpr long kServerHandshake = 4 + 8 + 32 + 1 + 32;

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
        klNetFarmSealer(key).connect(*path.clientEnd, 10.0);
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
        EXPECT_EQ("The service refused the farm key: it holds another key",
                  outcome([&] { klNetFarmSealer(keyOf(1)).connect(*client, 10.0); }));
        EXPECT_EQ("Peer does not hold the farm key", accepted.get());
    }
    {  // a service without a key echoes the greeting and waits for a request
        auto [client, server] = connectedPair();
        std::uint32_t greeting = 0;
        auto echo = std::async(std::launch::async, [&, server = server] {
            server->recv(&greeting, sizeof(greeting));
            server->send(&greeting, sizeof(greeting));
        });
        EXPECT_EQ("The service has no farm key: it answered the sealed greeting unsealed",
                  outcome([&] { klNetFarmSealer(keyOf(1)).connect(*client, 0.5); }));
        echo.get();
    }
    {  // a recorded handshake replayed to the service
        Forwarder recorder(-1, -1);
        auto accepted = acceptOn(recorder.serverEnd, keyOf(3));
        klNetFarmSealer(keyOf(3)).connect(*recorder.clientEnd, 10.0);
        ASSERT_EQ("returned", accepted.get());
        auto [attacker, server] = connectedPair();
        auto replayed = acceptOn(server, keyOf(3));
        attacker->send(recorder.m_sent->data(), std::size_t(kClientHandshake));
        EXPECT_EQ("Peer does not hold the farm key", replayed.get());
    }
}

TEST(klNetFarmKey, MadeOnceOwnerOnlyAndRefusedWhenOthersMayReadIt) {
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
    ::chmod(path.c_str(), 0640);
    EXPECT_EQ("Key file '" + path + "' is readable by group or others (mode 0640): chmod 600 it",
              outcome([&] { klNetFarmKey::load(path); }));
    ::unlink(path.c_str());
}

}  // namespace
