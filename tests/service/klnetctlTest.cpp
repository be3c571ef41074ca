// The daemon and its command-line client klnetctl as the user meets them: exact output, exit
// statuses, signals and the error line for every way a request can fail; and what is left
// running when a client, a server or the service itself dies, freezes or runs out of
// descriptors.
#include "klNetServiceTestSupport.h"

#include <sys/resource.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>

using namespace kltest;

namespace {

// The service's descriptor limit lowered until idle clients use it up: it says so once, keeps
// the waiting connections queued, and answers again once descriptors are free.
TEST(klNetServiceTest, RunningOutOfDescriptorsIsLoggedOnceAndOutlived) {
#ifdef __SANITIZE_ADDRESS__
    // UndefinedBehaviorSanitizer tests whether memory is readable through a pipe of its own: a
    // process out of descriptors fails those tests and is reported, and stopped, for them.
    GTEST_SKIP() << "the sanitizers need descriptors of their own";
#endif
    const TempDir dir("descriptors");
    const std::string log = dir.path("service.log");
    ServiceDaemon service({"--log-file", log, "--request-timeout", "60"});
    status(service);
    const rlim_t open = procEntries(service.pid(), "fd");
    const rlimit limit{open + 3, open + 3};
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_NOFILE, &limit, nullptr));
    const std::string shortage =
        "ERROR Unable to accept incomming connection\\. 24:Too many open files \\(retrying\\)\n";
    {
        std::vector<std::unique_ptr<klSocketLink>> idle;
        for (int i = 0; i < 10; ++i) {
            idle.push_back(
                std::make_unique<klSocketLink>(klSocketAddress("127.0.0.1", service.port()), 10.0));
        }
        EXPECT_TRUE(waitUntil(
            [&] { return fileText(log).find("Too many open files") != std::string::npos; }));
    }
    EXPECT_EQ("returned", outcome([&] { status(service); })) << fileText(log);
    // One line for each shortage, however often it retried, and one when it ended.
    const std::string text = fileText(log);
    const auto count = [&text](const std::string& line) {
        const std::regex pattern(line);
        return std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), {});
    };
    EXPECT_GE(count(shortage), 1) << text;
    EXPECT_EQ(count(shortage), count("INFO Accepting connections again\n")) << text;
}

// ---- klnetctl ----------------------------------------------------------------------------------

// Render servers the daemons started are killed at the end of each test, whatever happened.
class klnetctlTest : public ::testing::Test {
protected:
    // Remembers the processes the daemon started that are still there.
    void rememberServers(const ServiceDaemon& daemon) {
        const std::vector<pid_t> children = childrenOf(daemon.pid());
        m_servers.insert(m_servers.end(), children.begin(), children.end());
    }
    bool serversGone() const {
        return waitUntil(
            [this] { return std::none_of(m_servers.begin(), m_servers.end(), isRunning); });
    }
    void TearDown() override {
        for (pid_t server : m_servers) {
            if (isRunning(server)) {
                ::kill(server, SIGKILL);
            }
        }
    }
    std::vector<pid_t> m_servers;
};

const char* const kStatusIdle =
    "version: 10.0\nrunning: yes\nservers running: 0\nfree memory: \\d+ bytes\ncpu usage: 0%\n"
    "booking ids: \\(none\\)\n";

TEST_F(klnetctlTest, DrivesTheServiceThroughEveryCommand) {
    ServiceDaemon daemon;
    runSteps({{"klnetctl --port {port} status", 0, kStatusIdle},
              {"klnetctl --port {port} start --booking b1 -ta --extra -x", 0,
               "server id: 1\nfree memory: [1-9]\\d* bytes\nservers running: 1\n"},
              {"klnetctl --port={port} start --json --server-version=9.2 --booking b\"2", 0,
               "\\{\"serverId\":2,\"freeMemory\":[1-9]\\d*,\"serverCount\":2\\}\n"},
              {"klnetctl --port {port} status --json", 0,
               "\\{\"version\":\"10.0\",\"running\":true,\"serverCount\":2,\"freeMemory\":"
               "\\d+,\"cpuUsage\":0.0,\"bookingIds\":\\[\"b1\",\"b\\\\\"2\"\\]\\}\n"}},
             daemon.port());
    rememberServers(daemon);
    ASSERT_EQ(2u, m_servers.size());
    runSteps(
        {{"klnetctl --port {port} stop-server 1", 0, "server 1 stopped\n"},
         // A stopped server leaves the table at once.
         {"klnetctl --port {port} stop-server 1 --json", 1,
          "\\{\"error\":\"Unknown server:1\"\\}\n", "klnetctl: service error: Unknown server:1\n"},
         {"klnetctl --port {port} --json stop-booking b\"2", 0,
          "\\{\"bookingId\":\"b\\\\\"2\",\"stopped\":1\\}\n"},
         {"klnetctl --port {port} stop-booking none", 0, "0 servers of booking \"none\" stopped\n"},
         {"klnetctl --port {port} status", 0, kStatusIdle},
         {"klnetctl --port {port} stop-service", 0, "service stopping\n"}},
        daemon.port());
    EXPECT_EQ(0, daemon.exitStatus(30.0));
    EXPECT_TRUE(serversGone());
}

// SIGTERM ends the daemon of every other test.
TEST_F(klnetctlTest, SigintStopsTheServiceAndItsServers) {
    const TempDir dir("klNetServiceTest");
    const std::string log = dir.path("service.log");
    {
        // Repeated --allow ranges add up: the second one lets loopback in.
        ServiceDaemon daemon(
            {"--log-file", log, "--allow", "192.0.2.0/24", "--allow", "127.0.0.0/8"});
        runSteps({{"klnetctl --port {port} start", 0, "server id: 1\n[\\s\\S]*"}}, daemon.port());
        rememberServers(daemon);
        EXPECT_EQ(1u, m_servers.size());
        ::kill(daemon.pid(), SIGINT);
        EXPECT_EQ(0, daemon.exitStatus(30.0));
        EXPECT_TRUE(serversGone());
    }
    const std::string text = fileText(log);
    EXPECT_TRUE(std::regex_search(
        text,
        std::regex("listening on port [\\s\\S]*INFO Signal 2 received: stopping\n[\\s\\S]*INFO "
                   "Stopped\n")))
        << text;
}

TEST_F(klnetctlTest, ReportsEveryFailureWithOneLineAndItsExitStatus) {
    {
        ServiceDaemon daemon({"--allow", "192.0.2.0/24"});
        runSteps({{"klnetctl --port {port} status", 1, "",
                   "klnetctl: cannot connect to 127.0.0.1:{port}: Connection closed\n"}},
                 daemon.port());
    }
    // A listener that never accepts: connections complete, but nobody answers the greeting.
    klBoundSocketLink silent(0);
    const std::string silentPort = std::to_string(silent.getAddress().getPort());
    const PortSocket refused;  // bound, not listening: refuses, and the port stays taken
    runSteps({{"klnetctl --port {port} status", 1, "",
               "klnetctl: cannot connect to 127.0.0.1:{port}: 111:Connection refused\n"},
              {"klnetctl --port " + silentPort + " --timeout 0.5 stop-service", 1, "",
               "klnetctl: no answer from 127.0.0.1:" + silentPort + " within 0.5 s\n"},
              {"klnetctl --port " + silentPort + " --json --timeout 0.5 status", 1,
               "\\{\"error\":\"no answer from 127.0.0.1:" + silentPort + " within 0.5 s\"\\}\n",
               "klnetctl: no answer from 127.0.0.1:" + silentPort + " within 0.5 s\n"},
              {"klnetctl stop-server -1", 2, "",
               "klnetctl: ID: '-1' is not an integer from 0 to 4294967295 \\(see --help\\)\n"},
              {"klnetctl stop-server", 2, "", "klnetctl: ID is missing \\(see --help\\)\n"},
              {"klnetctl start -x", 2, "", "klnetctl: unknown option '-x' \\(see --help\\)\n"},
              {"klnetctl start --version 9.2", 0, "klnetctl 10\\.0\n"},
              {"klnetctl --timeout 0 status", 2, "",
               "klnetctl: --timeout: '0' is not a number above 0 and at most 86400 \\(see "
               "--help\\)\n"},
              {"klnetctl", 2, "", "klnetctl: no command given \\(see --help\\)\n"},
              {"klnetctl --help", 0, "Usage: klnetctl [\\s\\S]*stop-service[\\s\\S]*", ""},
              {"KALDClusterService --port {port} --no-console", 1, "",
               "KALDClusterService: Unable to bind to port {port}\\. 98:Address already in use\n"},
              {"KALDClusterService --allow 10.0.0.0/33", 2, "",
               "KALDClusterService: --allow: '10.0.0.0/33' is not an address range \\(ADDRESS or "
               "ADDRESS/BITS\\) \\(see --help\\)\n"},
              {"KALDClusterService --server-env 1X=2", 2, "",
               "KALDClusterService: --server-env: '1X=2' is not NAME or NAME=VALUE \\(see "
               "--help\\)\n"}},
             refused.port);
}

// ---- servers that outlive nothing ------------------------------------------------------------

// What /servers says of server id: "running", "stopping", or "" when it is not listed.
std::string serverState(int metricsPort, unsigned id) {
    const std::string servers = httpGet(metricsPort, "/servers");
    std::smatch state;
    const std::regex entry("\"serverId\":" + std::to_string(id) +
                           ",\"started\":\"[^\"]*\",\"state\":\"(\\w+)\"");
    return std::regex_search(servers, state, entry) ? state[1].str() : "";
}

// A client killed in the middle of its session (a child mode of this test, --hold-server): its
// server ends after the idle time and frees its slot; a server whose client is still connected,
// idle or not, is never ended for it.
TEST_F(klnetctlTest, ServersOfClientsThatDiedEndAndFreeTheirSlots) {
    ServiceDaemon service({"--idle-exit", "1", "--max-servers", "2"});
    auto live = service.connect();
    startServer(*live, "live");
    ChildProcess client("/proc/self/exe", {"--hold-server", std::to_string(service.port())});
    ASSERT_EQ("rendered", client.readLine(30.0));
    rememberServers(service);
    ASSERT_EQ(2u, m_servers.size());
    EXPECT_EQ("Too many servers running (2)",
              outcome([&] { startServer(*service.connect(), "third"); }));

    ::kill(client.pid(), SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return status(service).getNumberOfClusterServers() == 1; },
                          std::chrono::seconds(10)));
    EXPECT_EQ(std::vector<std::string>{"live"}, status(service).getBookingIds());
    auto next = service.connect();
    startServer(*next, "next");
    // The live client's server has been idle for longer than the idle time, but not without a
    // client: it still serves.
    expectRenders(*live);
    EXPECT_EQ(2, status(service).getNumberOfClusterServers());
}

// A server frozen with SIGSTOP ignores its closed pipe and SIGTERM: it is killed in the
// background, shown as stopping until then, and nobody waits for it.
TEST_F(klnetctlTest, AFrozenServerIsKilledInTheBackground) {
    ServiceDaemon service({"--metrics", "0"});
    const int metricsPort = metricsPortOf(service);
    auto frozen = service.connect();
    startServer(*frozen, "frozen");
    rememberServers(service);
    ASSERT_EQ(1u, m_servers.size());
    ASSERT_EQ(0, ::kill(m_servers[0], SIGSTOP));

    const auto stopped = Clock::now();
    EXPECT_EQ("", request(service, kStopBooking, "frozen"));
    auto next = service.connect();
    EXPECT_EQ(2u, startServer(*next, "next"));
    // Well below the 3 s the frozen server has to end on its own.
    EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(2));
    EXPECT_EQ("stopping", serverState(metricsPort, 1));
    EXPECT_EQ(1, status(service).getNumberOfClusterServers());
    // SIGTERM after 3 s, SIGKILL 3 s later.
    EXPECT_TRUE(waitUntil([&] { return !isRunning(m_servers[0]); }, std::chrono::seconds(10)));
    EXPECT_TRUE(waitUntil([&] { return serverState(metricsPort, 1).empty(); }));
    EXPECT_EQ("running", serverState(metricsPort, 2));
    expectRenders(*next);
}

// The service's descriptor limit lowered step by step, down to what the accept takes: every start
// that fails says that descriptors ran out, and none claims a missing program.
TEST(klNetServiceTest, StartsThatLackDescriptorsSaySo) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers need descriptors of their own";
#endif
    const TempDir dir("startDescriptors");
    ServiceDaemon service({"--log-file", dir.path("service.log"), "--max-servers", "0"});
    status(service);
    rlimit limit{};
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_NOFILE, nullptr, &limit));
    const rlim_t plenty = limit.rlim_cur;
    std::vector<std::string> failures;
    for (rlim_t spare = 20; spare > 0; --spare) {
        limit.rlim_cur = procEntries(service.pid(), "fd") + spare;
        ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_NOFILE, &limit, nullptr));
        auto stream = service.connect();
        const std::string result = outcome([&] { startServer(*stream); });
        if (result != "returned") {
            failures.push_back(result);
        }
    }
    limit.rlim_cur = plenty;
    ::prlimit(service.pid(), RLIMIT_NOFILE, &limit, nullptr);
    const std::string launch =
        "Error starting process '" + programDir() + "/KALDClusterServer': 24:Too many open files";
    EXPECT_NE(failures.end(), std::find(failures.begin(), failures.end(), launch));
    for (const std::string& failure : failures) {
        EXPECT_NE(std::string::npos, failure.find("24:Too many open files")) << failure;
    }
}

// A service killed with SIGKILL: its server, its client still connected, notices the pipe's other
// end gone and ends; the next service removes the hand-off socket it left, and only that.
TEST_F(klnetctlTest, AKilledServiceLeavesNothingBehind) {
    const TempDir runtime("runtime");
    // The services of this test keep their hand-off sockets there.
    std::optional<ScopedEnv> runtimeDirectory(std::in_place, "XDG_RUNTIME_DIR",
                                              runtime.path().c_str());
    const std::string prefix = runtime.path("kaldService-");
    const std::string guid = "{0123ABCD-0123-4567-89AB-0123456789AB}";
    // Another service's pipe, alive; a file of the same pattern that is no socket; a stale socket
    // of another name.
    const auto bound = [](const std::string& path) {
        const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
        return fd;
    };
    const int live = bound(prefix + guid);
    ASSERT_EQ(0, ::listen(live, 1));
    std::ofstream(prefix + "{1123ABCD-0123-4567-89AB-0123456789AB}").close();
    ::close(bound(prefix + "{0123abcd-0123-4567-89ab-0123456789ab}"));
    std::set<std::string> kept = entriesOf(runtime.path());

    std::unique_ptr<klNetStream> client;
    {
        ServiceDaemon killed;
        client = killed.connect();
        startServer(*client);
        rememberServers(killed);
        ASSERT_EQ(1u, m_servers.size());
        ::kill(killed.pid(), SIGKILL);
        EXPECT_EQ(128 + SIGKILL, killed.exitStatus(10.0));
    }
    EXPECT_TRUE(serversGone());
    EXPECT_EQ("closed", outcome([&] { expectRenders(*client); }));
    EXPECT_EQ(kept.size() + 1, entriesOf(runtime.path()).size())
        << "the killed service's hand-off socket stays";

    const std::string log = runtime.path("service.log");
    {
        ServiceDaemon next({"--log-file", log});
        runtimeDirectory.reset();
        kept.insert(log);
        EXPECT_EQ(kept, entriesOf(runtime.path()));
    }
    const std::string text = fileText(log);
    EXPECT_NE(std::string::npos,
              text.find("INFO Removed 1 stale hand-off socket of an earlier service from " +
                        runtime.path() + "\n"))
        << text;
    ::close(live);
}

// Child mode of ServersOfClientsThatDiedEndAndFreeTheirSlots: a client that starts a server on
// the service at port, has a region rendered, says "rendered" and waits to be killed.
int holdServer(int port) {
    const auto stream = ServiceDaemon::connectTo(port);
    startServer(*stream, "killed");
    expectRenders(*stream);
    std::printf("rendered\n");
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Writes to a client that has gone must not end the test.
    ::signal(SIGPIPE, SIG_IGN);
    if (argc == 3 && std::string(argv[1]) == "--hold-server") {
        return holdServer(std::atoi(argv[2]));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
