// The service daemon end to end: the real KALDClusterService and the real render server, driven
// with raw requests so that every field is the test's own, and hostile clients against it; then
// the daemon and its command-line client klnetctl as the user meets them: exact output, exit
// statuses, signals, and the error lines for every way a request can fail; and the render
// protocol and the render server on its own.
#include <support/klNetProcessTestSupport.h>

#include <klRenderProtocol.h>
#include <klServiceClient.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>
#include <future>
#include <optional>
#include <regex>
#include <set>
#include <sstream>

using namespace kltest;

namespace {

constexpr std::uint32_t kConnect = klNetService::kConnectServer;
constexpr std::uint32_t kStopServer = klNetService::kStopServer;
constexpr std::uint32_t kStopBooking = klNetService::kStopServerByBookingId;

// Writes a start request with the fields a client of that version sends: the display flag from
// 9.0 on, the booking id from 9.2 on, the stereo flag from 10.0 on.
void writeStart(klNetStream& stream, const std::string& version, const std::string& booking = "") {
    const double number = std::atof(version.c_str());
    stream << std::uint32_t(klNetService::kStartServer) << std::string() << version
           << std::string();
    if (number >= 9.0) {
        stream << std::uint8_t(0);
    }
    stream << std::uint8_t(0) << std::uint8_t(0) << std::uint8_t(0);
    if (number >= 9.2) {
        stream << booking;
    }
    if (number >= 10.0) {
        stream << std::uint8_t(0);
    }
    stream.flush();
}

// Starts a server; returns its id and leaves the stream connected to it.
std::uint32_t startServer(klNetStream& stream, const std::string& booking = "",
                          const std::string& version = "10.0") {
    writeStart(stream, version, booking);
    stream.recvResult();
    std::uint32_t id = 0;
    std::uint64_t freeMemory = 0;
    std::int32_t count = 0;
    stream >> id >> freeMemory >> count;
    EXPECT_TRUE(freeMemory > 0 && count > 0);
    return id;
}

// One request whose answer is a bare result: "" for success, else the error text.
template <class... Fields>
std::string request(const ServiceDaemon& service, std::uint32_t code, const Fields&... fields) {
    auto stream = service.connect();
    ((*stream << code) << ... << fields) << klNetStream::flush;
    const std::string result = outcome([&] { stream->recvResult(); });
    return result == "returned" ? "" : result;
}

// The whole text of a file; empty when there is none.
std::string fileText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

klNetServiceStatus status(const ServiceDaemon& service) {
    return klServiceClient("127.0.0.1", service.port()).status();
}

// A region rendered through a stream handed to a server equals the same region rendered here.
void expectRenders(klNetStream& stream) {
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 16;
    region.height = 16;
    EXPECT_EQ(klRenderPixels(region), klRenderClient::render(stream, region, {}));
}

TEST(klNetServiceTest, StartHandsTheClientToANewServerForEveryVersionItReads) {
    ServiceDaemon service;
    std::uint32_t expectedId = 1;
    // Service-pack names are below 9.0; "SR2" has no service pack: version 0.
    for (const char* version :
         {"SR1", "SR1.SP3", "SR1-SP3", "SR1 SP3", "SR2", "9.1", "9.2", "10.0"}) {
        SCOPED_TRACE(version);
        auto stream = service.connect();
        EXPECT_EQ(expectedId++, startServer(*stream, version + std::string("-booking"), version));
        expectRenders(*stream);
    }
    auto stream = service.connect();
    writeStart(*stream, "11.0");
    EXPECT_EQ("Incompatible versions: KALDClusterService 10.0 request from 11.0",
              outcome([&] { stream->recvResult(); }));
    const klNetServiceStatus record = status(service);
    EXPECT_EQ(8, record.getNumberOfClusterServers());
    EXPECT_EQ((std::vector<std::string>{"", "", "", "", "", "", "9.2-booking", "10.0-booking"}),
              record.getBookingIds());
}

TEST(klNetServiceTest, StoppedServersLeaveTheTableOnlyAfterStopServerOrStart) {
    ServiceDaemon service;
    std::vector<std::unique_ptr<klNetStream>> clients;
    for (const char* booking : {"shared", "shared", "other"}) {
        clients.push_back(service.connect());
        startServer(*clients.back(), booking);
    }
    EXPECT_EQ("", request(service, kStopBooking, "nobody"));
    EXPECT_EQ(3, status(service).getNumberOfClusterServers());
    EXPECT_EQ("", request(service, kStopBooking, "shared"));
    EXPECT_EQ(std::vector<std::string>{"other"}, status(service).getBookingIds());
    // Stopped by booking id: no longer counted, and gone from the table once it has ended.
    EXPECT_TRUE(waitUntil([&] { return request(service, kConnect, 1u) == "Unknown server:1"; }));
    EXPECT_EQ("", request(service, kStopServer, 3u));
    // The table is cleared just after the answer.
    EXPECT_TRUE(waitUntil([&] { return request(service, kConnect, 3u) == "Unknown server:3"; }));
    EXPECT_EQ("Unknown server:3", request(service, kStopServer, 3u));
    EXPECT_EQ("Unknown server:7", request(service, kStopServer, 7u));
    EXPECT_EQ(0, status(service).getNumberOfClusterServers());
    EXPECT_EQ("Unknown service command", request(service, 0));
    EXPECT_EQ("Unknown service command", request(service, 8));

    // Ids are never reused; a second connection reaches a running server.
    auto first = service.connect();
    EXPECT_EQ(4u, startServer(*first));
    expectRenders(*klServiceClient("127.0.0.1", service.port()).connectServer(4));
    expectRenders(*first);
}

// An echo server for relays: takes connections one after the other, sends back the first buffer
// of each (at once, or only once the other end has finished sending) and holds it until the
// other end closes; counts the connections it took.
class EchoListener {
public:
    explicit EchoListener(bool answerAtEnd = false)
        : m_task([listener = m_listener, count = m_count, answerAtEnd] {
              for (;;) {
                  auto link =
                      klSocketLink::checkForHPCNetSocket(klSocketLink(*listener).takeDescriptor());
                  ++*count;
                  Buffer buffer;
                  outcome([&] {
                      link->recv(buffer);
                      for (char next = 0;
                           answerAtEnd && ::recv(link->getDescriptor(), &next, 1, 0) > 0;) {
                      }
                      link->send(buffer);
                      link->recv(buffer);
                  });
              }
          }) {}
    ~EchoListener() {
        m_listener->shutdown();
        EXPECT_TRUE(m_task.finishedWithin(kBound));
    }
    std::uint32_t port() const { return std::uint32_t(m_listener->getAddress().getPort()); }
    int connections() const { return *m_count; }

private:
    std::shared_ptr<klBoundSocketLink> m_listener = std::make_shared<klBoundSocketLink>(0);
    std::shared_ptr<std::atomic<int>> m_count = std::make_shared<std::atomic<int>>(0);
    Task m_task;
};

std::string echoedThrough(klNetStream& relay) {
    relay << std::string("through the relay") << klNetStream::flush;
    std::string echoed;
    relay >> echoed;
    return echoed;
}

TEST(klNetServiceTest, RelaysOnlyToAllowedTargetsFewAtOnceAndNotWhenIdle) {
    EchoListener echo;
    const auto relayTo = [&](const ServiceDaemon& service) {
        return klServiceClient("127.0.0.1", service.port()).relay("127.0.0.1", echo.port());
    };
    const std::pair<std::vector<std::string>, std::string> refusals[] = {
        {{}, "Relaying is not enabled on this service"},
        {{"--relay-to", "10.0.0.0/8"}, "Relaying to 127.0.0.1 is not allowed"}};
    for (const auto& [options, refusal] : refusals) {
        ServiceDaemon service(options);
        EXPECT_EQ(refusal, outcome([&] { relayTo(service); }));
    }

    ServiceDaemon service(
        {"--relay-to", "127.0.0.1", "--max-relays", "1", "--relay-idle-timeout", "0.5"});
    const auto first = relayTo(service);
    EXPECT_EQ("through the relay", echoedThrough(*first));
    EXPECT_EQ("Too many relays (1)", outcome([&] { relayTo(service); }));
    // Idle, the relay is closed, and its place is free again.
    EXPECT_EQ("closed", outcome([&] { first->recvResult(); }));
    // Its place frees once both its threads have ended, just after the close.
    std::shared_ptr<klNetStream> again;
    EXPECT_TRUE(
        waitUntil([&] { return outcome([&] { again = relayTo(service); }) == "returned"; }));
    EXPECT_EQ("through the relay", echoedThrough(*again));
    // Refused relays opened no connection.
    EXPECT_EQ(2, echo.connections());
}

// A relay runs both ways before the client hears success, or the client hears why it cannot
// (here no address space is left for the threads' stacks) and the relay's place is given back.
// A client that has finished sending still hears the rest of what the far end says.
TEST(klNetServiceTest, ARelayRunsUntilBothSidesEndOrSaysWhyItCannotStart) {
    EchoListener echo, atEnd(true);  // each serves one connection at a time
    ServiceDaemon service({"--relay-to", "127.0.0.1", "--max-relays", "2"});
    const klServiceClient client("127.0.0.1", service.port());
    [[maybe_unused]] const std::size_t idle = procEntries(service.pid(), "task");
    const auto first = client.relay("127.0.0.1", echo.port());
#ifndef __SANITIZE_ADDRESS__  // the sanitizers' allocator cannot run within an address-space limit
    const auto threads = [&] { return procEntries(service.pid(), "task"); };
    ASSERT_TRUE(waitUntil([&] { return threads() == idle + 2; }));  // the relay's two
    // The request's own thread runs before the limit is set.
    auto stream = service.connect();
    ASSERT_TRUE(waitUntil([&] { return threads() == idle + 3; }));
    rlimit limit{};
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_AS, nullptr, &limit));
    const rlimit unlimited = limit;
    std::size_t pages = 0;
    std::ifstream("/proc/" + std::to_string(service.pid()) + "/statm") >> pages;
    limit.rlim_cur = pages * std::size_t(::sysconf(_SC_PAGESIZE)) + 1024 * 1024;
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_AS, &limit, nullptr));
    *stream << std::uint32_t(klNetService::kConnectService) << std::string("127.0.0.1")
            << atEnd.port() << klNetStream::flush;
    const std::string answer = outcome([&] { stream->recvResult(); });
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_AS, &unlimited, nullptr));
    EXPECT_EQ("Unable to start the relay: Resource temporarily unavailable", answer);
#endif
    EXPECT_EQ("through the relay", echoedThrough(*first));
    const auto relay = client.relay("127.0.0.1", atEnd.port());
    *relay << std::string("through the relay") << klNetStream::flush;
    const auto link = std::dynamic_pointer_cast<klSocketLink>(relay->getFirstLink());
    ASSERT_EQ(0, ::shutdown(link->getDescriptor(), SHUT_WR));
    std::string echoed;
    *relay >> echoed;
    EXPECT_EQ("through the relay", echoed);
    EXPECT_EQ("closed", outcome([&] { relay->recvResult(); }));
}

// The service installed as .../KALDFarm-10.0/bin looks for other versions' servers by putting
// the version into that path: a version text that is not a plain name must select nothing.
TEST(klNetServiceTest, VersionTextsThatAreNotPlainNamesStartNothing) {
    const TempDir root("versions", programDir());
    const std::string bin = root.path("KALDFarm-10.0/bin");
    std::filesystem::create_directories(bin);
    std::filesystem::create_hard_link(programDir() + "/KALDClusterService",
                                      bin + "/KALDClusterService");
    const std::string planted = root.path("planted-ran");
    root.addProgram("evil/bin/KALDClusterServer", "touch " + planted);
    const std::string log = root.path("service.log");
    ServiceDaemon service({"--log-file", log}, bin);

    const std::pair<std::string, std::string> cases[] = {
        {"10.0/../evil", "\"10.0/../evil\""},
        {"10.0/../../evil", "\"10.0/../../evil\""},
        {"9..2", "\"9..2\""},
        {"SR1 SP 3", "\"SR1 SP 3\""},
        {"99\nFAKE line", "\"99\\nFAKE line\""},
        {std::string(40, '9'), "\"" + std::string(32, '9') + "...\""}};
    for (const auto& [version, shown] : cases) {
        auto stream = service.connect();
        writeStart(*stream, version);
        EXPECT_EQ("Invalid version text " + shown, outcome([&] { stream->recvResult(); }));
    }
    EXPECT_EQ(0, status(service).getNumberOfClusterServers());
    EXPECT_FALSE(std::filesystem::exists(planted));
    const std::string text = fileText(log);
    EXPECT_NE(std::string::npos,
              text.find("Failed to start server: Invalid version text \"99\\nFAKE line\"\n"));
    EXPECT_EQ(std::string::npos, text.find("\nFAKE"));
}

TEST(klNetServiceTest, ConcurrentStartsStayWithinTheServerLimit) {
    ServiceDaemon service({"--max-servers", "2"});
    std::vector<std::future<std::string>> starts;
    for (int i = 0; i < 8; ++i) {
        starts.push_back(std::async(std::launch::async, [&] {
            auto stream = service.connect();
            writeStart(*stream, "10.0");
            return outcome([&] { stream->recvResult(); });
        }));
    }
    std::multiset<std::string> outcomes;
    for (auto& start : starts) {
        outcomes.insert(start.get());
    }
    EXPECT_EQ(2u, outcomes.count("returned"));
    EXPECT_EQ(6u, outcomes.count("Too many servers running (2)"));
}

// A client that trickles its request holds its place only until the request time-out, and
// clients beyond the request limit wait for a place instead of being turned away.
TEST(klNetServiceTest, SlowClientsEndAtTheDeadlineAndBurstsWaitTheirTurn) {
    ServiceDaemon service({"--max-requests", "2", "--request-timeout", "1"});
    auto trickle = std::async(std::launch::async, [&] {
        klSocketLink link(klSocketAddress("127.0.0.1", service.port()), 10.0);
        // The greeting, then a buffer header of zeros, a byte every 100 ms.
        const Bytes greeting = hex("C6A40506");
        return outcome([&] {
            for (std::size_t i = 0;; ++i) {
                const Bytes::value_type byte = i < greeting.size() ? greeting[i] : 0;
                link.send(&byte, 1);
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        });
    });
    std::vector<std::future<std::string>> clients;
    for (int i = 0; i < 30; ++i) {
        clients.push_back(std::async(std::launch::async, [&] {
            return outcome([&] {
                for (int n = 0; n < 3; ++n) {
                    status(service);
                }
            });
        }));
    }
    for (auto& client : clients) {
        EXPECT_EQ("returned", client.get());
    }
    ASSERT_EQ(std::future_status::ready, trickle.wait_for(kBound));
    EXPECT_EQ("closed", trickle.get());
}

// With a farm key the service serves sealed clients only, hands them to its servers sealed (they
// hold no key), and relays between sealed links.
TEST(klNetServiceTest, AKeyedServiceServesSealedClientsOnlyThroughHandOffAndRelay) {
    const TempDir dir("sealed");
    const std::string key = dir.path("farm.key"), other = dir.path("other.key");
    klNetFarmKey::generate(key);
    klNetFarmKey::generate(other);
    const std::string log = dir.path("service.log");
    ServiceDaemon target({"--key-file", key});
    ServiceDaemon service({"--key-file", key, "--log-file", log, "--relay-to", "127.0.0.1"});
    const auto sealed = [&](const std::string& path) {
        klServiceClient client("127.0.0.1", service.port());
        client.setSealer(std::make_shared<klNetFarmSealer>(klNetFarmKey::load(path)));
        return client;
    };

    EXPECT_EQ("Connection closed", outcome([&] { status(service); }));
    EXPECT_EQ("The service refused the farm key: it holds another key",
              outcome([&] { sealed(other).status(); }));
    EXPECT_NE(std::string::npos,
              fileText(log).find("Refused connection from 127.0.0.1: not sealed\n"));

    const klServiceClient client = sealed(key);
    const auto started = client.startServer({});
    expectRenders(*started.stream);
    expectRenders(*client.connectServer(started.serverId));
    // Through this service to the other one, sealed on both legs.
    auto relayed = client.relay("127.0.0.1", std::uint32_t(target.port()));
    *relayed << std::uint32_t(klNetService::kGetStatus) << klNetStream::flush;
    relayed->recvResult();
    klNetServiceStatus record;
    record.getValue(*relayed);
    EXPECT_EQ("10.0", record.getVersion());
}

// The daemon in a program directory of the test's own (hard-linked, so that it looks for its
// server beside itself there), with a stand-in render server script.
TEST(klNetServiceTest, ServersThatNeverTakeTheirSocket) {
    for (const std::string script : {"exit 3", "exec sleep 60"}) {
        const TempDir dir("fake", programDir());
        std::filesystem::create_hard_link(programDir() + "/KALDClusterService",
                                          dir.path("KALDClusterService"));
        dir.addProgram("KALDClusterServer", script);
        ServiceDaemon service({}, dir.path());
        auto stream = service.connect();
        writeStart(*stream, "10.0", "slow");
        if (script == "exit 3") {
            EXPECT_EQ("Failed to connect started server", outcome([&] { stream->recvResult(); }));
            continue;
        }
        // The start request waits for the server to open its pipe; stopping it ends the wait.
        EXPECT_TRUE(waitUntil([&] { return status(service).getNumberOfClusterServers() != 0; }));
        EXPECT_EQ("", request(service, kStopBooking, "slow"));
        EXPECT_EQ("Server manually aborted", outcome([&] { stream->recvResult(); }));
    }
}

TEST(klNetServiceTest, HostileClientsNeitherKnockItOverNorLeak) {
    ServiceDaemon service({"--request-timeout", "1", "--max-requests", "64"});
    status(service);
    const std::size_t descriptors = procEntries(service.pid(), "fd");
    const std::size_t threads = procEntries(service.pid(), "task");
    const std::uint64_t resident = residentBytes(service.pid());
    const klSocketAddress address("127.0.0.1", service.port());

    for (int i = 0; i < 1000; ++i) {  // port scans: connect and close
        klSocketLink scan(address, 10.0);
    }
    {  // 200 clients at once that connect and then say nothing
        std::vector<std::unique_ptr<klSocketLink>> idle;
        for (int i = 0; i < 200; ++i) {
            idle.push_back(std::make_unique<klSocketLink>(address, 10.0));
        }
    }
    const Bytes hostile[] = {
        pattern(5000),                               // random bytes, no greeting
        hex("C6 A4 05 06 ff ff ff 7f"),              // greeting, then an absurd frame
        hex("C6 A4 05 06 10 00 00 00 00 00 00 00"),  // greeting, truncated frame
    };
    for (const auto& bytes : hostile) {
        klSocketLink link(address, 10.0);
        link.send(bytes.data(), bytes.size());
    }
    // A string field that claims 4 GiB is refused before anything is allocated for it.
    EXPECT_EQ("String field too long (4294967295 bytes, at most 65536)",
              request(service, kStopBooking, 0xFFFFFFFFu, std::string(100, 'x')));

    // Every request thread ends by the request time-out; the service answers and holds no more
    // descriptors or memory than before.
    // (The first count may still hold the closing connection of the status request.)
    EXPECT_TRUE(waitUntil([&] { return procEntries(service.pid(), "fd") <= descriptors; }));
    EXPECT_TRUE(waitUntil([&] { return procEntries(service.pid(), "task") <= threads; }));
    EXPECT_EQ(0, status(service).getNumberOfClusterServers());
    EXPECT_LT(residentBytes(service.pid()), resident + 64 * 1024 * 1024);
}

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

// One GET over a plain socket; the whole answer, headers and body.
std::string httpGet(int port, const std::string& path) {
    klSocketLink link(klSocketAddress("127.0.0.1", port), 10.0);
    link.setRecvTimeout(10.0);
    const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
    link.send(request.data(), request.size());
    std::string answer;
    char chunk[4096];
    for (ssize_t n; (n = ::recv(link.getDescriptor(), chunk, sizeof(chunk), 0)) > 0;) {
        answer.append(chunk, std::size_t(n));
    }
    return answer;
}

// Under systemd, standard error is the journal's stream: lines carry their priority, not a time.
TEST(klNetServiceTest, LogsRequestsAndServerEndsForTheJournalAndServesMetricsAndServers) {
    const TempDir dir("journal");
    const std::string log = dir.path("service.log");
    std::ofstream(log).close();
    struct stat file {};
    ASSERT_EQ(0, ::stat(log.c_str(), &file));
    ::setenv("JOURNAL_STREAM",
             (std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino)).c_str(), 1);
    ServiceDaemon service({"--log-file", log, "--metrics", "0"});
    ::unsetenv("JOURNAL_STREAM");
    const std::string metricsLine = service.readLine();
    ASSERT_EQ(0u, metricsLine.find("metrics on port ")) << metricsLine;
    const int metricsPort = std::stoi(metricsLine.substr(16));

    auto first = service.connect();
    auto second = service.connect();
    startServer(*first, "b1");
    startServer(*second, "b2");
    const std::string servers = httpGet(metricsPort, "/servers");
    const std::regex entry(
        "\\{\"bookingId\":\"b2\",\"client\":\"127.0.0.1\",\"pid\":(\\d+),"
        "\"serverId\":2,\"started\":\"[-0-9T:]+Z\",\"state\":\"running\"\\}");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(servers, found, entry)) << servers;
    EXPECT_NE(std::string::npos, servers.find("\"bookingId\":\"b1\"")) << servers;

    EXPECT_EQ("", request(service, kStopServer, 1u));
    ::kill(std::stoi(found[1]), SIGKILL);
    EXPECT_TRUE(waitUntil([&] {
        const std::string text = fileText(log);
        return text.find("signal 9") != std::string::npos &&
               text.find("exited with status") != std::string::npos;
    }));
    const std::string metrics = httpGet(metricsPort, "/metrics");
    for (const char* line :
         {"klnet_requests_total{command=\"start-server\",outcome=\"succeeded\"} 2\n",
          "klnet_requests_total{command=\"stop-server\",outcome=\"succeeded\"} 1\n",
          "klnet_servers_started_total 2\n", "klnet_handoffs_total 2\n",
          "klnet_servers_running 0\n"}) {
        EXPECT_NE(std::string::npos, metrics.find(line)) << line << metrics;
    }
    const std::string text = fileText(log);
    for (const char* line :
         {"<6>127\\.0\\.0\\.1 start-server: server 1 started \\(booking \"b1\", process \\d+\\)\n",
          "<6>127\\.0\\.0\\.1 stop-server: server 1 stopped\n",
          "<6>Server 1 \\(process \\d+, booking \"b1\"\\) exited with status 0\n",
          "<4>Server 2 \\(process \\d+, booking \"b2\"\\) was killed by signal 9\n"}) {
        EXPECT_TRUE(std::regex_search(text, std::regex(line))) << line << text;
    }
    EXPECT_FALSE(std::regex_search(text, std::regex("(^|\n)\\d"))) << "no time stamps: " << text;
}

// ---- klnetctl ----------------------------------------------------------------------------------

bool isGone(pid_t pid) {
    return !isRunning(pid);
}

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
            [this] { return std::all_of(m_servers.begin(), m_servers.end(), isGone); });
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
          "\\{\"bookingId\":\"b\\\\\"2\",\"stopped\":true\\}\n"},
         {"klnetctl --port {port} stop-booking none", 0, "servers of booking \"none\" stopped\n"},
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
              {"klnetctl stop-server", 2, "", "klnetctl: ID is required \\(see --help\\)\n"},
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

int metricsPortOf(ServiceDaemon& service) {
    const std::string line = service.readLine();
    EXPECT_EQ(0u, line.find("metrics on port ")) << line;
    return line.size() > 16 ? std::stoi(line.substr(16)) : 0;
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
    EXPECT_TRUE(waitUntil([&] { return isGone(m_servers[0]); }, std::chrono::seconds(10)));
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

// Servers get a small fixed environment and what the operator names, nothing else of the
// service's; the pipe variable of an old server goes to that server only.
TEST(klNetServiceTest, ServersGetACleanEnvironment) {
    const TempDir dir("environment", programDir());
    std::filesystem::create_hard_link(programDir() + "/KALDClusterService",
                                      dir.path("KALDClusterService"));
    dir.addProgram("KALDClusterServer",
                   "env > \"$(dirname \"$0\")/env.tmp\"\n"
                   "mv \"$(dirname \"$0\")/env.tmp\" \"$(dirname \"$0\")/env\"");
    ::setenv("KLNET_TEST_SECRET", "secret", 1);
    ::setenv("KLNET_TEST_PASSED", "passed", 1);
    ServiceDaemon service(
        {"--server-env", "KLNET_TEST_PASSED", "--server-env", "KLNET_TEST_SET=a=b", "--server-env",
         "KLNET_TEST_UNSET", "--idle-exit", "7"},
        dir.path());
    ::unsetenv("KLNET_TEST_SECRET");
    ::unsetenv("KLNET_TEST_PASSED");

    std::set<std::string> fixed;  // what this environment has of the fixed set
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string name(*entry, std::strcspn(*entry, "="));
        if (name == "PATH" || name == "HOME" || name == "LANG" || name == "TZ" ||
            name.rfind("LC_", 0) == 0) {
            fixed.insert(std::string(*entry));
        }
    }
    const std::string runtime = klSocketPipe::getDirectory();
    for (const char* version : {"8.5", "10.0", "8.5"}) {
        SCOPED_TRACE(version);
        auto stream = service.connect();
        writeStart(*stream, version);
        EXPECT_EQ("Failed to connect started server", outcome([&] { stream->recvResult(); }));
        std::set<std::string> variables;
        std::ifstream file(dir.path("env"));
        for (std::string line; std::getline(file, line);) {
            const std::string name = line.substr(0, line.find('='));
            // What the shell adds itself.
            if (name != "PWD" && name != "SHLVL" && name != "_" && name != "OLDPWD") {
                variables.insert(line);
            }
        }
        std::filesystem::remove(dir.path("env"));
        std::set<std::string> expected = fixed;
        expected.insert({"KLNET_LOG_LEVEL=info", "KLNET_TEST_PASSED=passed", "KLNET_TEST_SET=a=b",
                         "KALD_IDLE_EXIT=7", "XDG_RUNTIME_DIR=" + runtime});
        const auto pipe = std::find_if(variables.begin(), variables.end(), [&](const auto& v) {
            return v.rfind("KALD_LOCAL_SERVICE=" + runtime + "/kaldService-{", 0) == 0;
        });
        if (std::string(version) == "8.5") {
            ASSERT_NE(variables.end(), pipe);
            expected.insert(*pipe);
        }
        EXPECT_EQ(expected, variables);
    }
}

// A service killed with SIGKILL: its server, its client still connected, notices the pipe's other
// end gone and ends; the next service removes the hand-off socket it left, and only that.
TEST_F(klnetctlTest, AKilledServiceLeavesNothingBehind) {
    const TempDir runtime("runtime");
    // The services of this test keep their hand-off sockets there.
    struct RuntimeDirectory {
        explicit RuntimeDirectory(const std::string& path) {
            if (const char* old = std::getenv("XDG_RUNTIME_DIR")) {
                previous = old;
            }
            ::setenv("XDG_RUNTIME_DIR", path.c_str(), 1);
        }
        ~RuntimeDirectory() {
            previous ? ::setenv("XDG_RUNTIME_DIR", previous->c_str(), 1)
                     : ::unsetenv("XDG_RUNTIME_DIR");
        }
        std::optional<std::string> previous;
    };
    std::optional<RuntimeDirectory> runtimeDirectory(std::in_place, runtime.path());
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
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(runtime.path())) {
        kept.insert(entry.path());
    }

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
    EXPECT_EQ(std::ptrdiff_t(kept.size()) + 1,
              std::distance(std::filesystem::directory_iterator(runtime.path()),
                            std::filesystem::directory_iterator()))
        << "the killed service's hand-off socket stays";

    const std::string log = runtime.path("service.log");
    {
        ServiceDaemon next({"--log-file", log});
        runtimeDirectory.reset();
        kept.insert(log);
        std::set<std::string> left;
        for (const auto& entry : std::filesystem::directory_iterator(runtime.path())) {
            left.insert(entry.path());
        }
        EXPECT_EQ(kept, left);
    }
    const std::string text = fileText(log);
    EXPECT_NE(std::string::npos,
              text.find("INFO Removed 1 stale hand-off socket of an earlier service from " +
                        runtime.path() + "\n"))
        << text;
    ::close(live);
}

}  // namespace

// ---- the render protocol and the render server ----------------------------------------------

// The render protocol and the reference render server: frames split into regions render byte for
// byte like the whole, requests are refused with exact texts, and the real KALDClusterServer,
// handed client sockets through a socket pipe, serves them and ends cleanly when stopped.
namespace {

Bytes requestBytes(const klRenderRequest& request) {
    klNetMessage message;
    request.write(message);
    return concatPayloads(message.takeSendBuffers());
}

// What a server makes of these request bytes: "" when it accepts them, else its refusal.
std::string verdictOn(const Bytes& wire) {
    klNetMessage message;
    message.putBytes(wire.data(), wire.size());
    message.setRecvBuffers(message.takeSendBuffers());
    const std::string verdict = outcome([&] { klRenderRequest::read(message).validate(); });
    return verdict == "returned" ? "" : verdict;
}

TEST(klRenderProtocolTest, RequestBytesArePinnedAndSplitFramesEqualTheWhole) {
    klRenderRequest frame = klRenderRequest::defaultFrame(97, 61);
    EXPECT_EQ(hex("4B4C524E 01000000 61000000 3D000000 00000000 00000000 61000000 3D000000"
                  "000000000000E8BF 0000000000000000 0000000000000C40 F4010000 00"
                  "9A9999999999E9BF 2B8716D9CEF7C33F"),
              requestBytes(frame));

    klRenderRequest julia = frame;
    julia.fractal = klRenderFractal::julia;
    julia.centreX = 0.1;
    julia.viewWidth = 0.8;
    julia.maxIterations = 3000;
    for (const klRenderRequest& scene : {frame, julia}) {
        SCOPED_TRACE(int(scene.fractal));
        const Bytes whole = klRenderPixels(scene);
        ASSERT_EQ(97u * 61 * 3, whole.size());
        EXPECT_GT(std::set<Bytes::value_type>(whole.begin(), whole.end()).size(), 100u)
            << "smooth colouring gives many shades";
        // Three uneven regions: a top band, then the rest split left and right.
        const struct {
            std::uint32_t x0, y0, width, height;
        } regions[] = {{0, 0, 97, 20}, {0, 20, 33, 41}, {33, 20, 64, 41}};
        Bytes pieced(whole.size());
        for (const auto& r : regions) {
            klRenderRequest part = scene;
            part.x0 = r.x0, part.y0 = r.y0, part.width = r.width, part.height = r.height;
            const Bytes pixels = klRenderPixels(part);
            for (std::uint32_t row = 0; row < r.height; ++row) {
                std::copy_n(pixels.begin() + row * r.width * 3, r.width * 3,
                            pieced.begin() + ((r.y0 + row) * 97 + r.x0) * 3);
            }
        }
        EXPECT_TRUE(whole == pieced);
    }
    // The frame's centre lies in the Mandelbrot set's main cardioid; its corner far outside.
    const Bytes whole = klRenderPixels(frame);
    EXPECT_EQ(Bytes(3, 0),
              Bytes(whole.begin() + (30 * 97 + 48) * 3, whole.begin() + (30 * 97 + 48) * 3 + 3));
    EXPECT_NE(Bytes(3, 0), Bytes(whole.begin(), whole.begin() + 3));
}

// Each patch (wire offset, bytes there) of a valid request, and what a server says then: "" when
// it accepts the request, else its refusal after "Render request: ".
TEST(klRenderProtocolTest, RefusalsNameTheFirstBadField) {
    const std::string kNaN = "000000000000F87F", kInf = "000000000000F07F";
    const std::pair<std::vector<std::pair<std::size_t, std::string>>, std::string> cases[] = {
        {{{0, "4B4C524F"}}, "not a render request (magic 0x4F524C4B)"},
        {{{4, "02000000"}}, "protocol version 2 not supported (server speaks 1)"},
        {{{12, "00000000"}, {28, "00000000"}}, "frame size 97x0 is empty"},
        {{{24, "00000000"}}, "region 0,0 0x61 is empty"},
        {{{20, "01000000"}}, "region 0,1 97x61 lies outside the 97x61 frame"},
        // x0 + width wraps around in 32 bits.
        {{{16, "FFFFFFFF"}}, "region 4294967295,0 97x61 lies outside the 97x61 frame"},
        {{{8, "00200000"}, {12, "01200000"}, {24, "00200000"}, {28, "01200000"}},
         "region of 67117056 pixels exceeds the limit of 67108864"},
        {{{8, "00200000"}, {12, "00200000"}, {24, "00200000"}, {28, "00200000"}}, ""},
        {{{56, "00000000"}}, "max iterations 0 not in 1..100000"},
        {{{56, "A1860100"}}, "max iterations 100001 not in 1..100000"},
        {{{56, "A0860100"}}, ""},
        {{{48, "0000000000000000"}}, "view width must be finite and above 0"},
        {{{48, "000000000000F0BF"}}, "view width must be finite and above 0"},
        {{{48, kNaN}}, "view width must be finite and above 0"},
        {{{40, kInf}}, "centre must be finite"},
        {{{60, "02"}}, "fractal 2 is neither 0 (Mandelbrot) nor 1 (Julia)"},
        {{{69, kNaN}}, "julia constant must be finite"}};
    for (const auto& [patches, text] : cases) {
        SCOPED_TRACE(text);
        Bytes wire = requestBytes(klRenderRequest::defaultFrame(97, 61));
        for (const auto& [offset, bytes] : patches) {
            const Bytes patch = hex(bytes);
            std::copy(patch.begin(), patch.end(), wire.begin() + std::ptrdiff_t(offset));
        }
        EXPECT_EQ(text.empty() ? "" : "Render request: " + text, verdictOn(wire));
    }
}

// A stand-in server's answer to a region 2 pixels wide and 4 rows high from row 16: success,
// then bands (first row, rows, payload bytes). A band that does not fit the rows still missing
// is refused with its numbers, before a byte of it is stored.
TEST(klRenderProtocolTest, AnswersThatBreakTheProtocolAreRefused) {
    struct Band : klNetMessage {
        klNetMessageType getMessageType() override { return klNetMessageTypeImage; }
    };
    const std::string expected = ", expected row 16 and 1 to 4 rows of 6 bytes";
    const std::pair<std::vector<std::array<std::uint32_t, 3>>, std::string> cases[] = {
        {{{16, 5, 30}}, "band at row 16 with 5 rows and 30 bytes" + expected},
        {{{16, 3, 18}, {19, 2, 12}},
         "band at row 19 with 2 rows and 12 bytes, expected row 19 "
         "and 1 to 1 rows of 6 bytes"},
        {{{16, 2, 18}}, "band at row 16 with 2 rows and 18 bytes" + expected},
        {{{17, 1, 6}}, "band at row 17 with 1 rows and 6 bytes" + expected},
        {{{16, 0, 0}}, "band at row 16 with 0 rows and 0 bytes" + expected}};
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 16, region.width = 2, region.height = 4;
    for (const auto& [bands, text] : cases) {
        SCOPED_TRACE(text);
        auto [client, server] = connectedPair();
        klNetStream answer(server);
        answer.sendSuccess().flush();
        for (const auto& [y, rows, bytes] : bands) {
            Band band;
            band << y << rows;
            band.putValueSize(bytes);
            band.putBytes(Bytes(bytes).data(), bytes);
            answer.sendMessage(band, 0);
        }
        answer.sendSuccess().flush();
        klNetStream stream(client);
        EXPECT_EQ("Render answer: " + text,
                  outcome([&] { klRenderClient::render(stream, region, {}); }));
    }
}

// ---- the real server --------------------------------------------------------------------------

// The server program of this build, started on a pipe of ours with the command line the service
// gives it (or, as for older clients, with the pipe in KALD_LOCAL_SERVICE), and connections
// handed to it.
class ServerUnderTest {
public:
    ServerUnderTest(std::vector<std::string> options, const std::string& extra,
                    bool pipeInEnvironment = false) {
        if (pipeInEnvironment) {
            ::setenv("KALD_LOCAL_SERVICE", pipe.getName().c_str(), 1);
        } else {
            options.push_back("-socketpipe=" + pipe.getName());
        }
        options.push_back(extra);
        server = std::make_unique<ChildProcess>(programDir() + "/KALDClusterServer", options);
        ::unsetenv("KALD_LOCAL_SERVICE");
    }

    // A client connection, handed over as the service does.
    std::unique_ptr<klNetStream> connect() {
        auto [near, far] = connectedPair(0.0);  // the handed end waits as long as a client may
        far->sendDescriptor(pipe, 10.0);
        near->setRecvTimeout(30.0);
        return std::make_unique<klNetStream>(near);
    }

    std::string startLine(const std::string& rest) const {
        return "KALDClusterServer 10.0 serving pipe " + pipe.getName() + rest;
    }

    klSocketPipe pipe;
    std::unique_ptr<ChildProcess> server;
};

TEST(klRenderServerTest, ServesHandedClientsAndEndsWhenThePipeCloses) {
    // The extra argument may look like an option.
    ServerUnderTest s({"-Z", "-t"}, "-scene x");
    ChildProcess& server = *s.server;
    EXPECT_EQ(s.startLine(" (options: -Z -t; extra argument: '-scene x')"), server.readLine());

    auto client = s.connect();
    // Larger than one band, so the answer comes in several messages.
    klRenderRequest region = klRenderRequest::defaultFrame(1200, 400);
    region.x0 = 100, region.y0 = 20, region.width = 1000, region.height = 300;
    std::vector<std::size_t> progress;
    EXPECT_TRUE(klRenderPixels(region) ==
                klRenderClient::render(*client, region,
                                       [&](std::size_t rows) { progress.push_back(rows); }));
    EXPECT_GT(progress.size(), 1u);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(300u, progress.back());
    const std::string served =
        "request 1 from 127.0.0.1: region 100,20 1000x300 of 1200x400, "
        "Mandelbrot, 500 iterations: 300000 pixels in ";
    EXPECT_EQ(served, server.readLine().substr(0, served.size()));

    // A refused request leaves the connection usable.
    klRenderRequest bad = region;
    bad.maxIterations = 0;
    const std::string refusal = "Render request: max iterations 0 not in 1..100000";
    EXPECT_EQ(refusal, outcome([&] { klRenderClient::render(*client, bad, {}); }));
    EXPECT_EQ("request 2 from 127.0.0.1: refused: " + refusal, server.readLine());
    region.height = 5;
    EXPECT_TRUE(klRenderPixels(region) == klRenderClient::render(*client, region, {}));
    server.readLine();

    // A client that speaks something else gets told, then its connection is closed.
    auto stranger = s.connect();
    *stranger << std::uint32_t(0x50545448) << std::uint32_t(1) << klNetStream::flush;
    EXPECT_EQ("Render request: not a render request (magic 0x50545448)",
              outcome([&] { stranger->recvResult(); }));
    EXPECT_EQ("closed", outcome([&] { stranger->recvResult(); }));
    EXPECT_EQ(
        "connection from 127.0.0.1 ended: Render request: not a render request (magic "
        "0x50545448)",
        server.readLine());

    // The service closing its end stops the server, which shuts its clients' connections.
    s.pipe.shutdown();
    EXPECT_EQ(0, server.exitStatus(30.0));
    EXPECT_EQ("KALDClusterServer stopped", server.readLine());
    EXPECT_EQ("closed", outcome([&] { client->recvResult(); }));
}

TEST(klRenderServerTest, StopSignalEndsTheServerInTheMiddleOfARender) {
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        ServerUnderTest s({}, "", signal == SIGINT);
        ChildProcess& server = *s.server;
        EXPECT_EQ(s.startLine(" (options: none; extra argument: '')"), server.readLine());
        auto client = s.connect();
        const klRenderRequest frame = klRenderRequest::defaultFrame(40, 30);
        EXPECT_TRUE(klRenderPixels(frame) == klRenderClient::render(*client, frame, {}));
        server.readLine();

        // The largest frame inside a Siegel disk of a Julia set: every pixel takes all of its
        // 100000 iterations, hours of work, so only stopping the render lets the server end.
        klRenderRequest endless = klRenderRequest::defaultFrame(8192, 8192);
        endless.fractal = klRenderFractal::julia;
        endless.juliaX = -0.390540870218399, endless.juliaY = -0.586787907346969;
        endless.centreX = -0.3686844, endless.centreY = -0.3377452, endless.viewWidth = 0.05;
        endless.maxIterations = 100000;
        endless.write(*client);
        client->flush();
        client->recvResult();

        ::kill(server.pid(), signal);
        EXPECT_EQ("KALDClusterServer stopping on signal " + std::to_string(signal),
                  server.readLine());
        EXPECT_EQ("KALDClusterServer stopped", server.readLine());
        EXPECT_EQ(0, server.exitStatus(30.0));
        EXPECT_EQ("closed", outcome([&] { client->recvResult(); }));
    }
}

}  // namespace

namespace {

// Child mode of ServersOfClientsThatDiedEndAndFreeTheirSlots: a client that starts a server on
// the service at port, has a region rendered, says "rendered" and waits to be killed.
int holdServer(int port) {
    auto link = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 10.0);
    link->signalHPCNetSocket();
    link->setRecvTimeout(20.0);
    klNetStream stream(link);
    startServer(stream, "killed");
    expectRenders(stream);
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
