// The service daemon end to end: the real KALDClusterService and the real render server, driven
// with raw requests so that every field is the test's own: starts for every client version,
// stops, relays, sealed clients, limits, logs and metrics, the servers' environment, and hostile
// clients against it.
#include "klNetServiceTestSupport.h"

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>

using namespace kltest;

namespace {

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
    EXPECT_EQ("Incompatible versions: KALDClusterService 10.0 request from 11.0",
              startResult(service, "11.0"));
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
    EXPECT_EQ("Unknown service command", request(service, klNetService::kLastCommand + 1));

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
    EXPECT_EQ("closed", resultOf(*first));
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
    // The request's own thread runs before the limit is set: it starts once the command is there.
    auto stream = service.connect();
    *stream << std::uint32_t(klNetService::kConnectService) << klNetStream::flush;
    ASSERT_TRUE(waitUntil([&] { return threads() == idle + 3; }));
    rlimit limit{};
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_AS, nullptr, &limit));
    const rlimit unlimited = limit;
    std::size_t pages = 0;
    std::ifstream("/proc/" + std::to_string(service.pid()) + "/statm") >> pages;
    limit.rlim_cur = pages * std::size_t(::sysconf(_SC_PAGESIZE)) + 1024 * 1024;
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_AS, &limit, nullptr));
    *stream << std::string("127.0.0.1") << atEnd.port() << klNetStream::flush;
    const std::string answer = resultOf(*stream);
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
    EXPECT_EQ("closed", resultOf(*relay));
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
        EXPECT_EQ("Invalid version text " + shown, startResult(service, version));
    }
    EXPECT_EQ(0, status(service).getNumberOfClusterServers());
    EXPECT_FALSE(std::filesystem::exists(planted));
    const std::string text = fileText(log);
    EXPECT_NE(std::string::npos,
              text.find("Failed to start server: Invalid version text \"99\\nFAKE line\" in "));
    EXPECT_EQ(std::string::npos, text.find("\nFAKE"));
}

TEST(klNetServiceTest, ConcurrentStartsStayWithinTheServerLimit) {
    ServiceDaemon service({"--max-servers", "2"});
    std::vector<std::future<std::string>> starts;
    for (int i = 0; i < 8; ++i) {
        starts.push_back(
            std::async(std::launch::async, [&] { return startResult(service, "10.0"); }));
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
    EXPECT_EQ("The service at 127.0.0.1:" + std::to_string(service.port()) +
                  " refused the farm key: it holds another key",
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

// A plain TCP forwarder, as a machine on the path could run one: takes one connection on an
// ephemeral loopback port and carries its bytes to and from the port target() gives until either
// side ends; the byte at offset flipAt of what goes back to the client is inverted.
class OneForward {
public:
    explicit OneForward(std::function<int()> target, long flipAt = -1)
        : m_listener(std::make_shared<klBoundSocketLink>(klSocketAddress("127.0.0.1", 0))),
          m_port(m_listener->getAddress().getPort()),
          m_task([listener = m_listener, target, flipAt] {
              klSocketLink client(*listener);
              klSocketLink service(klSocketAddress("127.0.0.1", target()), 10.0);
              pollfd ends[2] = {{client.getDescriptor(), POLLIN, 0},
                                {service.getDescriptor(), POLLIN, 0}};
              char chunk[4096];
              for (long back = 0; ::poll(ends, 2, 20000) > 0;) {
                  const int from = (ends[0].revents != 0) ? 0 : 1;
                  const ssize_t n = ::recv(ends[from].fd, chunk, sizeof(chunk), 0);
                  if (n <= 0) {
                      break;
                  }
                  if (from == 1 && flipAt >= back && flipAt < back + n) {
                      chunk[flipAt - back] ^= 0xFF;
                  }
                  back += from == 1 ? n : 0;
                  if (::send(ends[1 - from].fd, chunk, std::size_t(n), MSG_NOSIGNAL) != n) {
                      break;
                  }
              }
          }) {}
    ~OneForward() {
        m_listener->shutdown();
        EXPECT_TRUE(m_task.finishedWithin(kBound));
    }
    int port() const { return m_port; }

private:
    std::shared_ptr<klBoundSocketLink> m_listener;
    int m_port;
    Task m_task;
};

// A sealed answer changed on its way is named as such, not as the service's error.
TEST(klNetServiceTest, ATamperedSealedAnswerIsNamedAsSuch) {
    const TempDir dir("tampered");
    const std::string key = dir.path("farm.key");
    klNetFarmKey::generate(key);
    std::atomic<int> servicePort{0};
    // Past the service's handshake (hello 45 bytes, verdict 2, proof 32): its first sealed frame.
    OneForward forward([&servicePort] { return servicePort.load(); }, 45 + 2 + 32 + 30);
    const std::string forwardPort = std::to_string(forward.port());
    ServiceDaemon service({"--key-file", key, "--node-name", "127.0.0.1:" + forwardPort});
    servicePort = service.port();
    runSteps({{"klnetctl --port {port} --key-file " + key + " status", 1, "",
               "klnetctl: the answer from 127.0.0.1:{port} was tampered with: Sealed frame failed "
               "authentication: the connection was changed on its way\n"}},
             forward.port());
}

// A sealed request carried by a forwarder to another keyed service (another port of this host,
// as it would be another node) is refused there, with the names on both sides, and runs nothing:
// a stop-service meant for one service stops neither.
TEST(klNetServiceTest, ASealedRequestForwardedToAnotherServiceIsRefused) {
    const TempDir dir("forward");
    const std::string key = dir.path("farm.key"), log = dir.path("service.log");
    klNetFarmKey::generate(key);
    ServiceDaemon meant({"--key-file", key});
    ServiceDaemon reached({"--key-file", key, "--log-file", log});
    const std::string meantName = "127.0.0.1:" + std::to_string(meant.port());
    const std::string reachedName = "127.0.0.1:" + std::to_string(reached.port());
    const auto sealer = std::make_shared<klNetFarmSealer>(klNetFarmKey::load(key));
    // The client meant the first service, or dialed the forwarder's own address.
    for (const bool named : {true, false}) {
        OneForward forward([&reached] { return reached.port(); });
        klServiceClient client("127.0.0.1", forward.port());
        client.setSealer(sealer);
        const std::string dialed =
            named ? meantName : "127.0.0.1:" + std::to_string(forward.port());
        if (named) {
            client.setNodeName(meantName);
        }
        EXPECT_EQ("The service at " + dialed + " answers to " + reachedName + ", not to " + dialed +
                      ": the connection went to another node",
                  outcome([&] { client.stopService(); }));
        EXPECT_TRUE(waitUntil([&] {
            return fileText(log).find("Refused connection from 127.0.0.1: handshake named " +
                                      dialed + ", which this service does not answer to\n") !=
                   std::string::npos;
        }));
    }
    for (ServiceDaemon* service : {&meant, &reached}) {
        klServiceClient client("127.0.0.1", service->port());
        client.setSealer(sealer);
        EXPECT_EQ("10.0", client.status().getVersion());
        EXPECT_EQ(ChildProcess::kStillRunning, service->exitStatus(0.0));
    }
}

// A keyed service answers to this host's names and its --node-name aliases, with its port; a
// keyed client against a service without a key learns so at once, not after its time-out.
TEST(klNetServiceTest, ASealedServiceAnswersToItsOwnNamesOnly) {
    const TempDir dir("names");
    const std::string key = dir.path("farm.key");
    klNetFarmKey::generate(key);
    ServiceDaemon service(
        {"--key-file", key, "--node-name", "gateway", "--node-name", "gateway2:7000"});
    const std::string port = std::to_string(service.port());
    char host[256] = {};
    ::gethostname(host, sizeof(host) - 1);
    const auto sealer = std::make_shared<klNetFarmSealer>(klNetFarmKey::load(key));
    const struct {
        std::string host, name, outcome;  // name: "" for the host as dialed
    } cases[] = {
        {"127.0.0.1", "", "returned"},
        {"localhost", "", "returned"},
        {host, "", "returned"},
        {"127.0.0.1", "gateway:" + port, "returned"},
        {"127.0.0.1", "GATEWAY2:7000", "returned"},
        {"127.0.0.1", "gateway:7000",
         "The service at gateway:7000 answers to gateway:" + port +
             ", not to gateway:7000: the connection went to another node"},
        {"127.0.0.1", "127.0.0.1:1",
         "The service at 127.0.0.1:1 answers to 127.0.0.1:" + port +
             ", not to 127.0.0.1:1: the connection went to another node"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.host + " " + test.name);
        klServiceClient client(test.host, service.port());
        client.setSealer(sealer);
        if (!test.name.empty()) {
            client.setNodeName(test.name);
        }
        EXPECT_EQ(test.outcome, outcome([&] { client.status(); }));
    }

    ServiceDaemon plain;
    klServiceClient client("127.0.0.1", plain.port());
    client.setSealer(sealer);
    client.setRecvTimeout(30.0);
    const auto start = Clock::now();
    EXPECT_EQ("The service at 127.0.0.1:" + std::to_string(plain.port()) +
                  " has no farm key: it answered the sealed greeting unsealed",
              outcome([&] { client.status(); }));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));  // not its 10 s request time-out
}

// Stand-in servers that end at once or never open their pipe.
TEST(klNetServiceTest, ServersThatNeverTakeTheirSocket) {
    for (const std::string script : {"exit 3", "exec sleep 60"}) {
        const TempDir dir("fake", programDir());
        linkServiceWithServer(dir, script);
        ServiceDaemon service({}, dir.path());
        auto stream = service.connect();
        writeStart(*stream, "10.0", "slow");
        if (script == "exit 3") {
            EXPECT_EQ("Failed to connect started server", resultOf(*stream));
            continue;
        }
        // The start request waits for the server to open its pipe; stopping it ends the wait.
        EXPECT_TRUE(waitUntil([&] { return status(service).getNumberOfClusterServers() != 0; }));
        EXPECT_EQ("", request(service, kStopBooking, "slow"));
        EXPECT_EQ("Server manually aborted", resultOf(*stream));
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

// Under systemd, standard error is the journal's stream: lines carry their priority, not a time.
TEST(klNetServiceTest, LogsRequestsAndServerEndsForTheJournalAndServesMetricsAndServers) {
    const TempDir dir("journal");
    const std::string log = dir.path("service.log");
    std::ofstream(log).close();
    struct stat file {};
    ASSERT_EQ(0, ::stat(log.c_str(), &file));
    std::optional<ScopedEnv> journal(
        std::in_place, "JOURNAL_STREAM",
        (std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino)).c_str());
    ServiceDaemon service({"--log-file", log, "--metrics", "0"});
    journal.reset();
    const int metricsPort = metricsPortOf(service);
    ASSERT_NE(0, metricsPort);

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
          "klnet_servers_running 0\n", "klnet_server_exits_total{outcome=\"killed\"} 1\n",
          "klnet_server_exits_total{outcome=\"exited\"} 1\n",
          "klnet_request_duration_seconds_count{command=\"start-server\"} 2\n",
          "klnet_server_start_duration_seconds_count 2\n"}) {
        EXPECT_NE(std::string::npos, metrics.find(line)) << line << metrics;
    }
    const std::string text = fileText(log);
    for (const char* line :
         {"<6>127\\.0\\.0\\.1 start-server: server 1 started \\(booking \"b1\", process \\d+\\) "
          "in \\d+ ms\n",
          "<6>127\\.0\\.0\\.1 stop-server: server 1 stopped in \\d+ ms\n",
          "<6>Server 1 \\(process \\d+, booking \"b1\"\\) exited with status 0\n",
          "<4>Server 2 \\(process \\d+, booking \"b2\"\\) was killed by signal 9\n"}) {
        EXPECT_TRUE(std::regex_search(text, std::regex(line))) << line << text;
    }
    EXPECT_FALSE(std::regex_search(text, std::regex("(^|\n)\\d"))) << "no time stamps: " << text;
}

// Servers get a small fixed environment and what the operator names, nothing else of the
// service's; the pipe variable of an old server goes to that server only.
TEST(klNetServiceTest, ServersGetACleanEnvironment) {
    const TempDir dir("environment", programDir());
    // Without what the shell adds itself.
    linkServiceWithServer(dir,
                          "cd \"$(dirname \"$0\")\"\n"
                          "env | grep -Ev '^(PWD|SHLVL|_|OLDPWD)=' >env.tmp; mv env.tmp env");
    std::optional<ScopedEnv> secret(std::in_place, "KLNET_TEST_SECRET", "secret"),
        passed(std::in_place, "KLNET_TEST_PASSED", "passed");
    ServiceDaemon service(
        {"--server-env", "KLNET_TEST_PASSED", "--server-env", "KLNET_TEST_SET=a=b", "--server-env",
         "KLNET_TEST_UNSET", "--idle-exit", "7"},
        dir.path());
    secret.reset(), passed.reset();

    std::set<std::string> fixed;  // what this environment has of the fixed set
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::regex_search(*entry, std::regex("^(PATH|HOME|LANG|TZ|LC_[^=]*)="))) {
            fixed.insert(*entry);
        }
    }
    const std::string runtime = klSocketPipe::getDirectory();
    for (const char* version : {"8.5", "10.0", "8.5"}) {
        SCOPED_TRACE(version);
        EXPECT_EQ("Failed to connect started server", startResult(service, version));
        const std::set<std::string> variables = linesOf(fileText(dir.path("env")));
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

}  // namespace
