// Bulk data striped over two shaped links between two network namespaces of a farm: a balanced
// sender of buffered senders on one side, a multi-link receiver with unbundling and re-sorting on
// the other. Every byte arrives once and in order, and both links carry their share.
#include <klNetNamespace.h>
#include <support/klNetProcessTestSupport.h>

#include <linux/tcp.h>  // tcp_info with the byte counts
#include <netinet/in.h>

using namespace kltest;

namespace {

std::string shell(const std::string& farm, const std::string& command) {
    return "KLFARM_NAME=" + farm + " KLFARM_BIN=" + programDir() + " " KL_FARM_SCRIPT " " + command;
}

// A farm of one node with two links, made for each test and removed after it.
class StripeFarm : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0 || std::system("ip netns list >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "needs root and 'ip netns'";
        }
        ASSERT_EQ(0, std::system(shell(m_name, "up 1 --links 2 --rate 1gbit").c_str()));
        m_up = true;
    }
    void TearDown() override {
        if (m_up) {
            EXPECT_EQ(0, std::system(shell(m_name, "down").c_str()));
        }
    }
    const std::string& name() const { return m_name; }

private:
    std::string m_name = "stripe" + std::to_string(::getpid());
    bool m_up = false;
};

// The data from byte from on: each byte differs from its neighbours, and no block equals another.
void fill(Bytes& chunk, std::uint64_t from) {
    for (std::size_t i = 0; i < chunk.size(); ++i) {
        chunk[i] = static_cast<unsigned char>(((from + i) * 0x9E3779B1u) >> 24 ^ (from + i) >> 17);
    }
}

std::uint64_t bytesReceived(const klSocketLink& link) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    EXPECT_EQ(0, ::getsockopt(link.getDescriptor(), IPPROTO_TCP, TCP_INFO, &info, &size));
    return info.tcpi_bytes_received;
}

}  // namespace

TEST_F(StripeFarm, TwoLinksThroughABalancedSenderOfBufferedSendersDeliverEveryByteInOrder) {
    const std::string node = "klfarm-" + name() + "-node1";
    const std::vector<std::string> addresses{"10.231.1.2", "10.231.1.6"};
    std::unique_ptr<klBoundSocketLink> listener;
    {
        klNetNamespace inside(node);
        listener = std::make_unique<klBoundSocketLink>(0);
    }
    std::vector<std::shared_ptr<klNetLink>> nears, fars;
    std::vector<std::shared_ptr<klSocketLink>> farSockets;
    for (const auto& address : addresses) {
        {
            klNetNamespace inside("klfarm-" + name() + "-client");
            nears.push_back(std::make_shared<klSocketLink>(
                klSocketAddress(address, listener->getAddress().getPort()), 10.0));
        }
        farSockets.push_back(std::make_shared<klSocketLink>(*listener));
        fars.push_back(farSockets.back());
    }
    std::vector<std::shared_ptr<klNetSender>> perLink;
    for (const auto& near : nears) {
        perLink.push_back(klNetBufferedSender::create(klNetLinkSender::create(near), 0));
    }
    auto sending = std::make_shared<klNetStream>();
    sending->setSender(klNetBalancedSender::create(perLink));
    klNetStream receiving;
    receiving.setReceiver(klNetSortReceiver::create(
        klNetUnbundleReceiver::create(klNetMultiLinkReceiver::create(fars))));

    // 48 MiB in chunks of up to 300 KB, then 70000 small flushed ones: those are bundled per link,
    // and their 16-bit sequence numbers wrap around while the two links overtake each other.
    std::vector<std::size_t> sizes;
    std::uint64_t total = 0;
    for (std::size_t size = 1; total < (48u << 20); size = size * 3 % 300007 + 1) {
        sizes.push_back(std::min<std::size_t>(size, (48u << 20) - total));
        total += sizes.back();
    }
    const std::size_t bulk = sizes.size();
    for (std::size_t i = 0; i < 70000; ++i) {
        sizes.push_back(1 + i * 7919 % 150);
        total += sizes.back();
    }
    Task writing([sending, sizes, bulk] {
        Bytes chunk;
        for (std::size_t i = 0, written = 0; i < sizes.size(); written += sizes[i++]) {
            chunk.resize(sizes[i]);
            fill(chunk, written);
            sending->putBytes(chunk.data(), chunk.size());
            if (i >= bulk) {
                sending->flush();
            }
        }
        sending->waitAllDataTransfered();
    });
    // Everything is read even after a difference, so that the writer never stalls.
    Watchdog hang([&] { receiving.shutdown(); }, std::chrono::seconds(60));
    Bytes chunk(100003), expected(chunk.size());
    std::uint64_t differs = total;
    for (std::uint64_t done = 0; done < total; done += chunk.size()) {
        chunk.resize(std::size_t(std::min<std::uint64_t>(chunk.size(), total - done)));
        expected.resize(chunk.size());
        receiving.getBytes(chunk.data(), chunk.size());
        fill(expected, done);
        differs = chunk != expected ? std::min(differs, done) : differs;
    }
    EXPECT_EQ(total, differs) << "the chunk from byte " << differs << " differs";
    ASSERT_TRUE(writing.finishedWithin(kBound));
    writing.get();
    // Round robin over buffered senders gives each link about half of the bytes.
    for (const auto& far : farSockets) {
        EXPECT_GT(bytesReceived(*far), total / 3) << "a link carried too little";
    }
    sending->shutdown();
}
