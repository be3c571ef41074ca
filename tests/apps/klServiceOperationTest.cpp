// The daemon as an operator runs it: a drain lets a render in progress finish while new starts are
// refused, health and readiness follow it; a reload applies a changed allow-list without touching
// the server running and refuses a bad configuration; the configuration file is checked, and the
// command line overrides it.
#include <service/klNetServiceTestSupport.h>

using namespace kltest;

namespace {

// The HTTP status of an answer ("HTTP/1.1 503 ...": 503).
int httpStatus(const std::string& answer) {
    return answer.size() > 12 ? std::atoi(answer.c_str() + 9) : 0;
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

}  // namespace

TEST(klServiceOperationTest, ADrainLetsTheRenderInProgressFinishRefusesStartsAndThenStops) {
    // The endpoint on IPv6 loopback.
    ServiceDaemon service({"--metrics", "[::1]:0", "--drain-timeout", "60", "--idle-exit", "0.5"});
    const int metricsPort = metricsPortOf(service);
    const auto get = [&](const char* path) { return httpGet(metricsPort, path, "::1"); };
    ASSERT_NE(0, metricsPort);
    EXPECT_EQ(200, httpStatus(get("/ready")));

    auto client = service.connect();
    startServer(*client, "frame-1");
    ::kill(service.pid(), SIGTERM);
    EXPECT_TRUE(waitUntil([&] { return httpStatus(get("/ready")) == 503; }));
    EXPECT_NE(std::string::npos, get("/ready").find("not ready: draining"));
    EXPECT_EQ(200, httpStatus(get("/healthz")));
    EXPECT_NE(std::string::npos, get("/metrics").find("\nklnet_draining 1\n"));
    EXPECT_EQ("The service is draining: no new servers are started", startResult(service, "10.0"));

    // The render in progress goes on, and the service waits for it.
    expectRenders(*client);
    EXPECT_EQ(ChildProcess::kStillRunning, service.exitStatus(0.0));
    EXPECT_EQ(1, status(service).getNumberOfClusterServers());
    // Its client gone, the server ends after its idle time, and the service with it.
    client.reset();
    EXPECT_EQ(0, service.exitStatus(30.0));
}

TEST(klServiceOperationTest, AReloadAppliesTheAllowListLeavesTheServerAloneAndRefusesBadFiles) {
    const TempDir dir("reload");
    const std::string config = dir.path("service.conf"), log = dir.path("service.log");
    writeFile(config, "allow = [\"127.0.0.1\"]\nmax-servers = 4\n");
    // The command line overrides the file: one server at most.
    ServiceDaemon service({"--config", config, "--log-file", log, "--max-servers", "1"});
    auto client = service.connect();
    startServer(*client, "frame-1");
    const std::vector<pid_t> servers = childrenOf(service.pid());
    ASSERT_EQ(1u, servers.size());
    EXPECT_EQ("Too many servers running (1)", startResult(service, "10.0"));

    // One reload to a list without this peer (after logrotate moved the log away), one refused
    // as bad (the list stays), one back to this peer.
    std::filesystem::rename(log, log + ".1");
    const struct {
        const char* file;
        const char* logged;
        bool allowed;
    } reloads[] = {
        {"allow = [\"127.0.0.2\"]\n", "allow changed from 127.0.0.1 to 127.0.0.2", false},
        {"allow = [\"127.0.0.2\"]\nmax-relays = x\n",
         "Reload refused, the configuration stays as it was: --max-relays: 'x' is not an "
         "integer",
         false},
        {"allow = [\"127.0.0.1\"]\n", "allow changed from 127.0.0.2 to 127.0.0.1", true},
    };
    for (const auto& reload : reloads) {
        SCOPED_TRACE(reload.file);
        writeFile(config, reload.file);
        ::kill(service.pid(), SIGHUP);
        EXPECT_TRUE(waitUntil([&] {
            return fileText(log).find(reload.logged) != std::string::npos;
        })) << fileText(log);
        const std::string answer = outcome([&] { status(service); });
        EXPECT_EQ(reload.allowed, answer == "returned") << answer;
    }
    // The server started before it all still renders for its client.
    expectRenders(*client);
    EXPECT_EQ(servers, childrenOf(service.pid()));
}

// --check-config reads the command line, the file and the key, and says what is wrong in one line.
TEST(klServiceOperationTest, CheckConfigNamesWhatIsWrong) {
    const TempDir dir("check-config");
    const std::string config = dir.path("service.conf");
    const struct {
        std::string file, arguments;
        int status;
        std::string err;
    } cases[] = {
        {"max-servers = 8\nallow = [\"10.0.0.0/8\", \"::1\"]\nno-console = true\n", "", 0, ""},
        {"max-servers = many\n", "", 2,
         "--max-servers: 'many' is not an integer from 0 to 1000000"},
        // The command line wins over the file, even over a bad value in it.
        {"max-servers = many\n", "--max-servers 3", 0, ""},
        {"bogus = 1\n", "", 2, "the configuration file has an unknown option 'bogus'"},
        {"metrics = \"localhost:8890\"\n", "", 2,
         "--metrics: 'localhost:8890' is not \\[ADDRESS:\\]PORT \\(a numeric address, IPv6 in "
         "brackets\\)"},
        {"key-file = \"" + dir.path("missing.key") + "\"\n", "", 2,
         "Key file '.*missing.key' cannot be read: .*"},
        {"", "--config " + dir.path("none.conf"), 2, "--config: cannot read '.*none.conf'"},
    };
    for (const auto& c : cases) {
        writeFile(config, c.file);
        runSteps(
            {{"KALDClusterService --check-config --config " + config + " " + c.arguments, c.status,
              c.status == 0 ? "KALDClusterService: configuration good \\(.*\\)\n" : "",
              c.status == 0 ? "" : "KALDClusterService: " + c.err + " \\(see --help\\)\n"}});
    }
}
