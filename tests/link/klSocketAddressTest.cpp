#include <support/klNetTestSupport.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <stdexcept>

TEST(klSocketAddress, SplitsServerAndPortTexts) {
    const struct {
        const char* text;
        const char* server;
        int port;
    } cases[] = {
        {"render7", "render7", 8889},
        {"  render7:9000  ", "render7", 9000},
        {"  render7  ", "render7", 8889},
        {"render7:", "render7", 8889},
        {"10.1.2.3:80", "10.1.2.3", 80},
        {"render7:99999", "render7", 99999},
        {"[::1]:9000", "::1", 9000},
        {"[::1]", "::1", 8889},
        {" [fe80::1%eth0]:7 ", "fe80::1%eth0", 7},
        // Texts that fit neither pattern stay whole with the default port.
        {"fe80::1", "fe80::1", 8889},
        {":99999", ":99999", 8889},
        {"a:b:1", "a:b:1", 8889},
    };
    for (const auto& c : cases) {
        std::string server = "stale";
        int port = -5;
        klSocketAddress::splitServerAndPort(c.text, server, port, 8889);
        EXPECT_EQ(c.server, server) << c.text;
        EXPECT_EQ(c.port, port) << c.text;
        EXPECT_EQ(c.server, klSocketAddress::parseServer(c.text)) << c.text;
        EXPECT_EQ(c.port, klSocketAddress::parsePort(c.text, 8889)) << c.text;
    }
    std::string server;
    int port = 0;
    EXPECT_THROW(klSocketAddress::splitServerAndPort("render7:99999999999", server, port, 1),
                 std::out_of_range);
    EXPECT_THROW(klSocketAddress::parsePort("[::1]:123456789012", 1), std::out_of_range);
    EXPECT_THROW(klSocketAddress("127.0.0.1:99999999999", 1), std::out_of_range);
}

TEST(klSocketAddress, ResolvesNumericTextsLocalNamesAndTheWildcard) {
    const klSocketAddress v6("::1", "9000");
    EXPECT_EQ(AF_INET6, v6.getFamily());
    EXPECT_EQ(int(sizeof(sockaddr_in6)), v6.getSockAddrSize());
    EXPECT_EQ(9000, v6.getPort());
    EXPECT_EQ("::1", v6.getName());
    const klSocketAddress v4("127.0.0.1:4567", 8889);
    EXPECT_EQ(AF_INET, v4.getFamily());
    EXPECT_EQ(int(sizeof(sockaddr_in)), v4.getSockAddrSize());
    EXPECT_EQ(4567, v4.getPort());
    EXPECT_EQ("127.0.0.1", v4.getName());
    EXPECT_EQ(AF_INET6, klSocketAddress("[::1]", 8889).getFamily());
    EXPECT_EQ("127.0.0.1", klSocketAddress("localhost", 1).getName());
    // The wildcard resolves to both families; the IPv4 one is taken.
    const klSocketAddress wildcard("", "0");
    EXPECT_EQ("0.0.0.0", wildcard.getName());
    EXPECT_EQ(0, wildcard.getPort());
}

TEST(klSocketAddress, SystemAddressesAndFailureTexts) {
    sockaddr_in6 mapped{};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = htons(77);
    ASSERT_EQ(1, ::inet_pton(AF_INET6, "::ffff:10.1.2.3", &mapped.sin6_addr));
    const klSocketAddress peer(reinterpret_cast<const sockaddr*>(&mapped));
    EXPECT_EQ(AF_INET6, peer.getFamily());
    EXPECT_EQ("10.1.2.3", peer.getName());
    EXPECT_EQ(77, peer.getPort());
    ASSERT_EQ(1, ::inet_pton(AF_INET6, "fe80::ffff:1", &mapped.sin6_addr));
    EXPECT_EQ("fe80::ffff:1",
              klSocketAddress(reinterpret_cast<const sockaddr*>(&mapped)).getName());

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
