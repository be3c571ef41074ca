// The render client and what it leaves behind: however it ends mid-frame (SIGKILL, SIGTERM,
// SIGINT), the service of its own and that service's render servers end with it; and a server
// that stops sending mid-frame ends the render with a line naming it.
#include <support/klNetProcessTestSupport.h>

#include <regex>

using namespace kltest;

namespace {

// A frame that takes well over ten seconds here, so that it is still rendering when the test
// strikes; the run is never awaited to its end.
std::vector<std::string> longFrame(const TempDir& dir, std::vector<std::string> more = {}) {
    std::vector<std::string> args{"--width",      "8000",   "--height", "8000",
                                  "--iterations", "100000", "--output", dir.path("frame.png")};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

// Waits until the client draws its progress, then returns its service and the service's servers.
std::pair<pid_t, std::vector<pid_t>> renderingClient(ChildProcess& client) {
    for (std::string line; (line = client.readLine(30.0)).find("rendering") == std::string::npos;) {
        if (line.empty()) {
            ADD_FAILURE() << "the client did not start rendering";
            return {};
        }
    }
    const std::vector<pid_t> services = childrenOf(client.pid());
    EXPECT_EQ(1u, services.size());
    if (services.size() != 1) {
        return {};
    }
    std::vector<pid_t> servers;
    EXPECT_TRUE(waitUntil([&] { return (servers = childrenOf(services[0])).size() == 2; }));
    return {services[0], servers};
}

struct Ending {
    int signal;
    int status;
    std::string err;  // a regular expression
};

void PrintTo(const Ending& ending, std::ostream* out) {
    *out << ::strsignal(ending.signal);
}

class klClusterRenderEndTest : public ::testing::TestWithParam<Ending> {};

TEST_P(klClusterRenderEndTest, LeavesNoServiceAndNoServerBehind) {
    const TempDir dir("klClusterRenderEnd");
    ChildProcess client(programDir() + "/klClusterRender", longFrame(dir), true);
    const auto [service, servers] = renderingClient(client);
    ASSERT_GT(service, 0);

    ASSERT_EQ(0, ::kill(client.pid(), GetParam().signal));
    EXPECT_EQ(GetParam().status, client.exitStatus(20.0));
    for (const pid_t pid : servers) {
        EXPECT_TRUE(waitUntil([&] { return !isRunning(pid); })) << "server " << pid;
    }
    EXPECT_TRUE(waitUntil([&] { return !isRunning(service); })) << "service " << service;
    const auto outcome = client.finish(10.0);
    EXPECT_TRUE(std::regex_match(outcome.err, std::regex(GetParam().err))) << outcome.err;
    EXPECT_FALSE(std::filesystem::exists(dir.path("frame.png")));
}

INSTANTIATE_TEST_SUITE_P(
    Signals, klClusterRenderEndTest,
    ::testing::Values(
        Ending{SIGKILL, 128 + SIGKILL, ""},
        Ending{SIGTERM, 143, "klClusterRender: interrupted by SIGTERM: stopping the servers\n"},
        Ending{SIGINT, 130, "klClusterRender: interrupted by SIGINT: stopping the servers\n"}));

TEST(klClusterRenderTest, AFrozenServerEndsTheRenderWithALineNamingIt) {
    const TempDir dir("klClusterRenderStall");
    ChildProcess client(programDir() + "/klClusterRender", longFrame(dir, {"--stall-timeout", "2"}),
                        true);
    const auto [service, servers] = renderingClient(client);
    ASSERT_EQ(2u, servers.size());

    ASSERT_EQ(0, ::kill(servers[0], SIGSTOP));
    const auto outcome = client.finish(30.0);
    ::kill(servers[0], SIGCONT);  // whatever became of it, it may end now
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(std::regex_match(outcome.err,
                                 std::regex("klClusterRender: no data from server [12] on node "
                                            "127\\.0\\.0\\.1:[0-9]+ for 2 s\n")))
        << outcome.err;
    EXPECT_TRUE(waitUntil([&] { return !isRunning(service); })) << "service " << service;
}

}  // namespace
