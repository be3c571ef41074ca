// The service daemon and its command-line client as the user meets them: real processes, exact
// output, exit statuses, signals, and the error lines for every way a request can fail.
#include <support/klNetServiceTestSupport.h>

#include "klServiceClient.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

namespace {

// Runs a program of the build to its end and collects both outputs.
kltest::ChildProcess::Outcome runProgram(const std::vector<std::string>& command) {
    kltest::ChildProcess child(kltest::programDir() + "/" + command[0],
                               {command.begin() + 1, command.end()}, true);
    return child.finish(60.0);
}

// One run of a program and what it must print: out and err are regular expressions matched
// against the whole output, with {port} standing for a port the test made.
struct Step {
    std::vector<std::string> command;
    int status;
    std::string out;
    std::string err;
};

std::string withPort(std::string text, int port) {
    for (std::size_t at; (at = text.find("{port}")) != std::string::npos;) {
        text.replace(at, 6, std::to_string(port));
    }
    return text;
}

void runSteps(const std::vector<Step>& steps, int port) {
    for (const Step& step : steps) {
        std::vector<std::string> command;
        std::string line;
        for (const auto& arg : step.command) {
            command.push_back(withPort(arg, port));
            line += command.back() + " ";
        }
        SCOPED_TRACE(line);
        const auto outcome = runProgram(command);
        EXPECT_EQ(step.status, outcome.status) << outcome.err;
        EXPECT_TRUE(std::regex_match(outcome.out, std::regex(withPort(step.out, port))))
            << outcome.out;
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex(withPort(step.err, port))))
            << outcome.err;
    }
}

// The processes a process started, as far as they are still there.
std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> children;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(parent) + "/task")) {
        std::ifstream list(task.path() / "children");
        for (pid_t child; list >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

bool isGone(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // A zombie has ended; its reaper is not ours.
    return text.empty() || text.find(") Z ") != std::string::npos;
}

// Render servers the daemons started are killed at the end of each test, whatever happened.
class klnetctlTest : public ::testing::Test {
protected:
    void rememberServers(const kltest::ServiceDaemon& daemon) {
        for (pid_t child : childrenOf(daemon.pid())) {
            m_servers.push_back(child);
        }
    }
    bool serversGone(double seconds) const {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(long(seconds * 1000));
        for (;;) {
            if (std::all_of(m_servers.begin(), m_servers.end(), isGone)) {
                return true;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    void TearDown() override {
        for (pid_t server : m_servers) {
            if (!isGone(server)) {
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
    kltest::ServiceDaemon daemon;
    const std::string at[] = {"klnetctl", "--port", "{port}"};
    const auto klnetctl = [&at](std::vector<std::string> args) {
        args.insert(args.begin(), std::begin(at), std::end(at));
        return args;
    };
    runSteps(
        {
            {klnetctl({"status"}), 0, kStatusIdle, ""},
            {klnetctl({"start", "--booking", "b1", "-ta", "--extra", "x y"}), 0,
             "server id: 1\nfree memory: [1-9]\\d* bytes\nservers running: 1\n", ""},
            {klnetctl({"--json", "start", "--version", "9.2", "--booking", "b\"2"}), 0,
             "\\{\"serverId\":2,\"freeMemory\":[1-9]\\d*,\"serverCount\":2\\}\n", ""},
            {klnetctl({"--json", "status"}), 0,
             "\\{\"version\":\"10.0\",\"running\":true,\"servers\":2,\"freeMemory\":\\d+,"
             "\"cpuUsage\":0,\"bookingIds\":\\[\"b1\",\"b\\\\\"2\"\\]\\}\n",
             ""},
        },
        daemon.port());
    rememberServers(daemon);
    ASSERT_EQ(2u, m_servers.size());
    runSteps(
        {
            {klnetctl({"stop-server", "1"}), 0, "server 1 stopped\n", ""},
            // A stopped server leaves the table at once.
            {klnetctl({"stop-server", "1"}), 1, "", "klnetctl: service error: Unknown server:1\n"},
            {klnetctl({"stop-server", "7"}), 1, "", "klnetctl: service error: Unknown server:7\n"},
            {klnetctl({"start", "--version", "10.1"}), 1, "",
             "klnetctl: service error: Incompatible versions: KALDClusterService 10.0 request "
             "from 10.1\n"},
            {klnetctl({"--json", "stop-booking", "b\"2"}), 0,
             "\\{\"bookingId\":\"b\\\\\"2\",\"stopped\":true\\}\n", ""},
            {klnetctl({"stop-booking", "none"}), 0, "servers of booking \"none\" stopped\n", ""},
            {klnetctl({"status"}), 0, kStatusIdle, ""},
            {klnetctl({"stop-service"}), 0, "service stopping\n", ""},
        },
        daemon.port());
    EXPECT_EQ(0, daemon.exitStatus(30.0));
    EXPECT_TRUE(serversGone(10.0));
}

TEST_F(klnetctlTest, SignalsStopTheServiceAndItsServers) {
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        const std::string log =
            ::testing::TempDir() + "klnetctlTest-" + std::to_string(::getpid()) + ".log";
        {
            // Repeated --allow ranges add up: the second one lets loopback in.
            kltest::ServiceDaemon daemon(
                {"--log-file", log, "--allow", "192.0.2.0/24", "--allow", "127.0.0.0/8"});
            runSteps(
                {{{"klnetctl", "--port", "{port}", "start"}, 0, "server id: 1\n[\\s\\S]*", ""}},
                daemon.port());
            rememberServers(daemon);
            EXPECT_EQ(1u, m_servers.size());
            ::kill(daemon.pid(), signal);
            EXPECT_EQ(0, daemon.exitStatus(30.0));
            EXPECT_TRUE(serversGone(10.0));
        }
        std::ifstream file(log);
        std::stringstream text;
        text << file.rdbuf();
        std::remove(log.c_str());
        const std::string expected =
            "INFO Signal " + std::to_string(signal) + " received: stopping\n";
        EXPECT_NE(std::string::npos, text.str().find("listening on port ")) << text.str();
        EXPECT_NE(std::string::npos, text.str().find(expected)) << text.str();
        EXPECT_NE(std::string::npos, text.str().find("INFO Stopped\n")) << text.str();
        m_servers.clear();
    }
}

TEST_F(klnetctlTest, RefusesPeersOutsideTheAllowedRanges) {
    kltest::ServiceDaemon daemon({"--allow", "192.0.2.0/24"});
    runSteps({{{"klnetctl", "--port", "{port}", "status"},
               1,
               "",
               "klnetctl: cannot connect to 127.0.0.1:{port}: Connection closed\n"}},
             daemon.port());
}

TEST_F(klnetctlTest, RelaysAConnectionThatThenCarriesARequest) {
    // Relayed to the service itself: a status request through the relay reaches a second
    // request thread of the same service and its answer comes back the same way.
    kltest::ServiceDaemon daemon;
    const klServiceClient client("127.0.0.1", daemon.port());
    const auto relayed = client.relay("127.0.0.1", std::uint32_t(daemon.port()));
    *relayed << std::uint32_t(6);
    relayed->flush();
    relayed->recvResult();
    klNetServiceStatus status;
    status.getValue(*relayed);
    EXPECT_TRUE(status.getIsRunning());
    EXPECT_EQ("10.0", status.getVersion());
}

// A socket bound to a loopback port without listening: connections to it are refused, and the
// port stays taken while it lives.
class BoundPort {
public:
    BoundPort() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(0, ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), size));
        EXPECT_EQ(0, ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size));
        m_port = ntohs(address.sin_port);
    }
    ~BoundPort() { ::close(m_fd); }
    int port() const { return m_port; }

private:
    int m_fd;
    int m_port = 0;
};

TEST_F(klnetctlTest, ReportsEveryFailureWithOneLineAndItsExitStatus) {
    // A listener that never accepts: connections complete, but nobody answers the greeting.
    klBoundSocketLink silent(0);
    const int silentPort = silent.getAddress().getPort();
    const BoundPort refused;
    const std::string silentText = std::to_string(silentPort);
    runSteps(
        {
            {{"klnetctl", "--port", "{port}", "status"},
             1,
             "",
             "klnetctl: cannot connect to 127.0.0.1:{port}: 111:Connection refused\n"},
            {{"klnetctl", "--port", silentText, "--timeout", "0.5", "stop-service"},
             1,
             "",
             "klnetctl: no answer from 127.0.0.1:" + silentText + " within 0.5 s\n"},
            {{"klnetctl", "--bogus", "status"}, 2, "", "klnetctl: unknown option '--bogus'\n"},
            {{"klnetctl", "stop-server", "-1"}, 2, "", "klnetctl: invalid server id '-1'\n"},
            {{"klnetctl", "stop-server"}, 2, "", "klnetctl: stop-server needs a server id\n"},
            {{"klnetctl", "start", "-x"}, 2, "", "klnetctl: unknown start option '-x'\n"},
            {{"klnetctl", "--timeout", "0", "status"}, 2, "", "klnetctl: invalid timeout '0'\n"},
            {{"klnetctl"}, 2, "", "klnetctl: no command given\n"},
            {{"klnetctl", "--help"}, 0, "Usage: klnetctl [\\s\\S]*stop-service[\\s\\S]*", ""},
            {{"KALDClusterService", "--port", "{port}", "--no-console"},
             1,
             "",
             "KALDClusterService: Unable to bind to port {port}\\. 98:Address already in use\n"},
            {{"KALDClusterService", "--port", "65536"},
             2,
             "",
             "KALDClusterService: invalid value '65536' for --port \\(an integer from 0 to "
             "65535\\)\n"},
            {{"KALDClusterService", "--allow", "10.0.0.0/33"},
             2,
             "",
             "KALDClusterService: Invalid address range '10.0.0.0/33'\n"},
            {{"KALDClusterService", "--request-timeout"},
             2,
             "",
             "KALDClusterService: option --request-timeout needs a value\n"},
            {{"KALDClusterService", "--no-console=1"},
             2,
             "",
             "KALDClusterService: option --no-console takes no value\n"},
            {{"KALDClusterService", "--version"}, 0, "KALDClusterService 10\\.0\n", ""},
        },
        refused.port());
}

}  // namespace
