// The options of the service for a program that starts one of its own: --listen keeps it on one
// address, --key-file - takes a key made for the run on standard input, and --stop-on-stdin-close
// ends it, servers and all, once the starter's pipe closes, however the starter ended.
#include <support/klNetProcessTestSupport.h>

#include <klServiceClient.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include <array>
#include <random>

using namespace kltest;

namespace {

std::array<std::uint8_t, klNetFarmKey::kSize> randomKey() {
    std::random_device random;
    std::array<std::uint8_t, klNetFarmKey::kSize> bytes;
    for (auto& byte : bytes) {
        byte = std::uint8_t(random());
    }
    return bytes;
}

}  // namespace

TEST(klServiceLifetimeTest, KeyOnStdinOneAddressAndTheEndOfStdinStopsServiceAndServers) {
    ChildProcess service(programDir() + "/KALDClusterService",
                         {"--port", "0", "--no-console", "--log-level", "warning", "--listen",
                          "127.0.0.1", "--key-file", "-", "--stop-on-stdin-close"},
                         false, true);
    const auto key = randomKey();
    service.writeIn(key.data(), key.size());
    const std::string line = service.readLine(20.0);
    ASSERT_EQ(0u, line.find("listening on port ")) << line;
    const int port = std::stoi(line.substr(18));
    const auto sealer = std::make_shared<klNetFarmSealer>(klNetFarmKey(key));

    // Without the run's key: refused. On another local address: nothing listens.
    klServiceClient plain("127.0.0.1", port);
    EXPECT_THROW(plain.status(), klServiceConnectError);
    for (const char* host : {"127.0.0.2", "::1"}) {
        klServiceClient elsewhere(host, port);
        elsewhere.setSealer(sealer);
        EXPECT_THROW(elsewhere.status(), klServiceConnectError) << host;
    }
    klServiceClient keyed("127.0.0.1", port);
    keyed.setSealer(sealer);
    klServiceClient::StartRequest request;
    request.bookingId = "lifetime";
    const auto started = keyed.startServer(request);
    std::vector<pid_t> servers;
    ASSERT_TRUE(waitUntil([&] { return !(servers = childrenOf(service.pid())).empty(); }));

    // Input bytes after the key are dropped; only the end stops it.
    service.writeIn("more", 4);
    EXPECT_EQ(1, keyed.status().getNumberOfClusterServers());
    service.closeIn();
    EXPECT_EQ(0, service.exitStatus(20.0));
    for (const pid_t server : servers) {
        EXPECT_TRUE(waitUntil([&] { return !isRunning(server); })) << "server " << server;
    }
}

TEST(klServiceLifetimeTest, AShortKeyOnStdinEndsTheServiceWithOneLine) {
    ChildProcess service(programDir() + "/KALDClusterService",
                         {"--port", "0", "--no-console", "--key-file", "-"}, true, true);
    service.writeIn("0123456789", 10);
    service.closeIn();
    const auto outcome = service.finish(20.0);
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ("KALDClusterService: Standard input ended before 32 bytes of key\n", outcome.err);
}
