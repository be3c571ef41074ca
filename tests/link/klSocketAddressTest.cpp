#include <support/klNetTestSupport.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/un.h>

#include <stdexcept>

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
