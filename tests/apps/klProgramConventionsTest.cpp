// Every program's command line follows the same conventions (help, version, a bad option, the "="
// form, an option after the command, none of CLI11's own texts), one table row per program; and
// klnetctl lists a node's servers from a stand-in for the service's HTTP endpoint.
#include <support/klNetProcessTestSupport.h>

#include <poll.h>
#include <sys/socket.h>

#include <regex>

using namespace kltest;

namespace {

struct Program {
    std::string name;
    // Beyond --help, -h, --version, an unknown option and a flag given a value: the "=" form and
    // an option after the command, each with a value that names the option in its error.
    std::vector<Step> runs;
};

void PrintTo(const Program& program, std::ostream* out) {
    *out << program.name;
}

std::string bad(const std::string& program, const std::string& what) {
    return program + ": " + what + " \\(see --help\\)\n";
}

class klProgramConventionsTest : public ::testing::TestWithParam<Program> {};

TEST_P(klProgramConventionsTest, HelpVersionAndOneErrorLine) {
    const std::string& name = GetParam().name;
    std::vector<Step> runs = {{"--help", 0, "Usage: " + name + " [\\s\\S]+", ""},
                              {"-h", 0, "Usage: " + name + " [\\s\\S]+", ""},
                              {"--version", 0, name + " 10\\.0\n", ""},
                              {"--bogus", 2, "", bad(name, "unknown option '--bogus'")},
                              {"--version=1", 2, "", bad(name, "--version takes no value")}};
    runs.insert(runs.end(), GetParam().runs.begin(), GetParam().runs.end());
    for (Step& run : runs) {
        run.command = name + " " + run.command;
    }
    runSteps(runs);
}

std::vector<Program> programs() {
    std::vector<Program> all = {
        {"klnetctl",
         {{"--port=0 status", 2, "",
           bad("klnetctl", "--port: '0' is not an integer from 1 to 65535")},
          {"status --timeout", 2, "", bad("klnetctl", "--timeout needs a value")},
          {"start --booking=b -ta -Z --port 0", 2, "",
           bad("klnetctl", "--port: '0' is not an integer from 1 to 65535")},
          {"stop-booking", 2, "", bad("klnetctl", "ID is missing")},
          {"--port 1 status --port 2", 2, "", bad("klnetctl", "--port given more than once")},
          {"start -tax", 2, "", bad("klnetctl", "unknown option '-tax'")},
          {"restart", 2, "", bad("klnetctl", "unknown command 'restart'")}}},
        {"klClusterRender",
         {{"--width=0", 2, "",
           bad("klClusterRender", "--width: '0' is not an integer from 1 to 65536")},
          {"--output", 2, "", bad("klClusterRender", "--output needs a value")},
          {"--nodes=a,b --servers 1", 2, "",
           bad("klClusterRender", "--servers 1 leaves nodes without work \\(2 nodes\\)")},
          {"--slurm --nodes=a", 2, "",
           bad("klClusterRender",
               "--slurm takes the nodes of the allocation: not with --nodes or --nodes-file")},
          {"--key-file=k --slurm", 2, "",
           bad("klClusterRender", "--slurm makes a key of its own: not with --key-file")},
          // Found before a service of its own starts, let alone a server renders.
          {"--output /nonexistent/dir/x.png", 2, "",
           bad("klClusterRender",
               "--output: cannot write '/nonexistent/dir/x\\.png': No such file or directory")},
          {"--output=/", 2, "",
           bad("klClusterRender", "--output: cannot write '/': Is a directory")}}},
        // The service's launch arguments stay as they are: -ta, and -socketpipe=PATH followed by
        // the extra argument, whatever it looks like.
        {"KALDClusterServer",
         {{"-Z -P -ta", 2, "",
           bad("KALDClusterServer",
               "no socket pipe: give -socketpipe=PATH or set KALD_LOCAL_SERVICE")},
          {"-socketpipe=", 2, "", bad("KALDClusterServer", "-socketpipe= needs a path")},
          {"-socketpipe=/nonexistent/pipe --help", 1, "",
           "KALDClusterServer: Unable to connect to named pipe\\. 2:No such file or directory\n"},
          {"-socketpipe=/nonexistent/pipe x y", 2, "",
           bad("KALDClusterServer", "unexpected argument 'y'")},
          {"-socketpipe /nonexistent/pipe", 2, "",
           bad("KALDClusterServer", "unknown option '-socketpipe'")}}},
        {"klNetDemo",
         {{"--node=0", 2, "", bad("klNetDemo", "--node: '0' is not an integer from 1 to 65535")}}},
        {"KALDClusterService",
         {{"--port=65536", 2, "",
           bad("KALDClusterService", "--port: '65536' is not an integer from 0 to 65535")},
          {"--request-timeout", 2, "",
           bad("KALDClusterService", "--request-timeout needs a value")},
          {"--listen=localhost", 2, "",
           bad("KALDClusterService",
               "--listen: 'localhost' is not a numeric IPv4 or IPv6 address")},
          {"--max-servers 1 --max-servers=2", 2, "",
           bad("KALDClusterService", "--max-servers given more than once")},
          {"--node-name=no/de", 2, "",
           bad("KALDClusterService", "--node-name: 'no/de' is not a host name or address")},
          {"--node-name=node:70000", 2, "",
           bad("KALDClusterService", "--node-name: the port of 'node:70000' is not 1 to 65535")},
          {"--metrics=::1:8890", 2, "",
           bad("KALDClusterService",
               "--metrics: '::1:8890' is not \\[ADDRESS:\\]PORT \\(a "
               "numeric address, IPv6 in brackets\\)")}}},
        {"klNetLinkBench",
         {{"0", 2, "", bad("klNetLinkBench", "ROUNDS: '0' is not an integer from 1 to 1000")}}},
        {"klNetPipelineBench",
         {{"0", 2, "", bad("klNetPipelineBench", "ROUNDS: '0' is not an integer from 1 to 1000")}}},
        {"klNetPeerBench",
         {{"1 0", 2, "", bad("klNetPeerBench", "SCALE: '0' is not a number from 0.001 to 100")}}},
        {"klServiceBench",
         {{"3 0", 2, "", bad("klServiceBench", "ROUNDS: '0' is not an integer from 1 to 1000")}}},
        {"klNetSerialBench",
         {{"--benchmark_filter", 2, "",
           bad("klNetSerialBench", "--benchmark_filter needs a value")}}},
        {"klNetCodecBench",
         {{"--rounds=0", 2, "",
           bad("klNetCodecBench", "--rounds: '0' is not an integer from 1 to 100")}}},
        {"klFarmBench",
         {{"rtt a b c 0", 2, "",
           bad("klFarmBench", "TRIPS: '0' is not an integer from 5 to 10000000")},
          {"stripe a b c --bogus", 2, "", bad("klFarmBench", "unknown option '--bogus'")}}}};
    // Only the programs of this build (the benchmarks are optional).
    const std::string built = " " KL_PROGRAMS " ";
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&](const Program& p) {
                                 return built.find(" " + p.name + " ") == std::string::npos;
                             }),
              all.end());
    return all;
}

INSTANTIATE_TEST_SUITE_P(Programs, klProgramConventionsTest, ::testing::ValuesIn(programs()),
                         [](const ::testing::TestParamInfo<Program>& info) {
                             return info.param.name;
                         });

// ---- klnetctl servers ----

// A stand-in for the service's HTTP endpoint on a loopback port: answers each of `requests`
// connections with the body as JSON, and keeps the first request line it got.
class FakeEndpoint {
public:
    FakeEndpoint(std::string body, int requests)
        : m_task([this, body, requests] {
              for (int i = 0; i < requests; ++i) {
                  pollfd wait{m_listener.socket.getDescriptor(), POLLIN, 0};
                  ASSERT_EQ(1, ::poll(&wait, 1, 20000));
                  const int fd = ::accept4(wait.fd, nullptr, nullptr, SOCK_CLOEXEC);
                  std::string request;
                  char chunk[512];
                  ssize_t n;
                  while (request.find("\r\n\r\n") == std::string::npos &&
                         (n = ::recv(fd, chunk, sizeof(chunk), 0)) > 0) {
                      request.append(chunk, std::size_t(n));
                  }
                  if (i == 0) {
                      m_requestLine = request.substr(0, request.find("\r\n"));
                  }
                  const std::string answer =
                      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
                  writeAll(fd, Bytes(answer.begin(), answer.end()));
                  ::close(fd);
              }
          }) {}
    ~FakeEndpoint() { EXPECT_TRUE(m_task.finishedWithin(kBound)); }
    int port() const { return m_listener.port; }
    // Once every request is answered.
    std::string requestLine() const { return m_task.finishedWithin(kBound) ? m_requestLine : ""; }

private:
    PortSocket m_listener{16};
    std::string m_requestLine;
    Task m_task;
};

TEST(klnetctlServersTest, ListsTheServersFromTheServiceEndpoint) {
    const std::string list =
        "[{\"serverId\":1,\"bookingId\":\"b1\",\"pid\":4242,\"client\":\"127.0.0.1\","
        "\"started\":\"2026-11-25T15:00:00Z\",\"state\":\"running\"},"
        "{\"serverId\":12,\"bookingId\":\"\",\"pid\":77,\"client\":\"::1\","
        "\"started\":\"2026-11-25T15:01:30Z\",\"state\":\"stopping\"}]";
    FakeEndpoint endpoint("{\"servers\":" + list + "}", 2);
    const std::string port = std::to_string(endpoint.port());
    const PortSocket refused;
    const std::string refusedPort = std::to_string(refused.port);
    runSteps({{"klnetctl --metrics-port=" + port + " servers", 0,
               "ID  BOOKING  PID   CLIENT     STARTED               STATE\n"
               "1   b1       4242  127.0.0.1  2026-11-25T15:00:00Z  running\n"
               "12  \"\"       77    ::1        2026-11-25T15:01:30Z  stopping\n",
               ""},
              {"klnetctl servers --json --metrics-port " + port, 0,
               std::regex_replace("{\"servers\":" + list + ",\"draining\":false}\n",
                                  std::regex("[\\[\\]{}]"), "\\$&"),
               ""},
              {"klnetctl --metrics-port " + refusedPort + " servers", 1, "",
               "klnetctl: cannot get http://127\\.0\\.0\\.1:" + refusedPort +
                   "/servers: .+ \\(the service must run with --metrics for this\\)\n"}});
    EXPECT_EQ("GET /servers HTTP/1.1", endpoint.requestLine());
}

}  // namespace
