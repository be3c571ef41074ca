// The socket hand-off pipe: sockets handed to another process, waits that time out, shutdown,
// refused peers, and nothing left behind in either process.
#include <support/klNetProcessTestSupport.h>

#include <sys/stat.h>
#include <sys/un.h>

#include <regex>

using namespace kltest;

namespace {

// The child: takes sockets from the pipe until the service closes it, answers each client with
// its process id, and exits 0 if it ends with the descriptors it started with.
int runPipeServer(const char* name) {
    const auto before = openDescriptors();
    std::string ended;
    {
        klSocketPipe pipe{std::string(name)};
        while ((ended = outcome([&] {
                    klSocketLink link(pipe, 10.0);
                    const std::uint32_t pid = std::uint32_t(::getpid());
                    link.send(&pid, sizeof(pid));
                })) == "returned") {
        }
    }
    return ended != "closed" ? 4 : openDescriptors() == before ? 0 : 3;
}

TEST(klSocketPipeTest, HandsClientSocketsToAnotherProcessAndLeavesNothingBehind) {
    const auto before = openDescriptors();
    auto pipe = std::make_unique<klSocketPipe>();
    const std::string name = pipe->getName();
    struct stat file {};
    ASSERT_EQ(0, ::stat(name.c_str(), &file));
    EXPECT_EQ(S_IFSOCK | 0600u, file.st_mode);
    {
        ChildProcess child("/proc/self/exe", {"--pipe-server", name});
        for (int client = 0; client < 2; ++client) {
            auto [near, far] = connectedPair();
            far->sendDescriptor(*pipe, 10.0);
            EXPECT_EQ(std::uint32_t(child.pid()), pipe->getPeerProcessId());
            far.reset();  // the service lets go of its copy; the connection stays up
            std::uint32_t answeredBy = 0;
            near->recv(&answeredBy, sizeof(answeredBy));
            EXPECT_EQ(std::uint32_t(child.pid()), answeredBy);
        }
        pipe.reset();
        EXPECT_EQ(0, child.exitStatus(30.0)) << "the server saw no close, or leaked a descriptor";
    }
    EXPECT_NE(0, ::access(name.c_str(), F_OK)) << "socket file left behind";
    EXPECT_EQ(before, openDescriptors());
}

TEST(klSocketPipeTest, NameIsARandomGuidInTheRuntimeDirectory) {
    klSocketPipe a, b;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string dir = runtime != nullptr && runtime[0] == '/' ? runtime : "/tmp";
    const std::regex form(
        "/kaldService-\\{[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}\\}");
    ASSERT_EQ(dir, a.getName().substr(0, dir.size()));
    EXPECT_TRUE(std::regex_match(a.getName().substr(dir.size()), form)) << a.getName();
    EXPECT_NE(a.getName(), b.getName());
}

TEST(klSocketPipeTest, TimedOutWaitsLeaveTheReadForALaterArrival) {
    klSocketPipe service;
    EXPECT_EQ("timeout", outcome([&] { service.sendSocket(0, 0.01); })) << "no server yet";
    klSocketPipe server{service.getName()};
    EXPECT_EQ("timeout", outcome([&] { server.recvSocket(0.01); }));

    auto [near, far] = connectedPair();
    auto handed = std::async(std::launch::async, [&] { far->sendDescriptor(service, 10.0); });
    klSocketLink received(server, 10.0);
    handed.get();
    EXPECT_EQ(std::uint32_t(::getpid()), service.getPeerProcessId());
    // The late arrival is the client's connection itself.
    const std::uint32_t sent = 0x6C617465;
    received.send(&sent, sizeof(sent));
    std::uint32_t got = 0;
    near->recv(&got, sizeof(got));
    EXPECT_EQ(sent, got);
}

TEST(klSocketPipeTest, ShutdownWakesAWaitingCallAndServiceCloseEndsTheServer) {
    klSocketPipe lonely;
    auto waitingSend = startBlocked([&] { lonely.sendSocket(0, -1.0); }, {SYS_poll});
    lonely.shutdown();
    EXPECT_EQ("closed", waitingSend.get());
    EXPECT_EQ("closed", outcome([&] { lonely.sendSocket(0, 1.0); }));

    auto service = std::make_unique<klSocketPipe>();
    klSocketPipe server{service->getName()};
    auto waitingRecv = startBlocked([&] { server.recvSocket(-1.0); }, {SYS_poll});
    server.shutdown();
    EXPECT_EQ("closed", waitingRecv.get());
    EXPECT_EQ("closed", outcome([&] { server.recvSocket(1.0); }));

    klSocketPipe server2{service->getName()};
    auto served = startBlocked([&] { server2.recvSocket(-1.0); }, {SYS_poll});
    service.reset();
    EXPECT_EQ("closed", served.get()) << "the server must see the service go";
}

TEST(klSocketPipeTest, OpeningFailsWithTheSystemsReasonAndLeavesNothingOpen) {
    klSocketPipe service;
    const std::string missing = service.getName() + "-missing";
    const auto before = openDescriptors();
    EXPECT_EQ("Unable to connect to named pipe. 2:No such file or directory",
              outcome([&] { klSocketPipe{missing}; }));
    EXPECT_EQ(before, openDescriptors());

    // A socket file nobody listens on refuses: retried ten times, 200 ms apart.
    const std::string idle = service.getName() + "-idle";
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, idle.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("Unable to connect to named pipe. 111:Connection refused",
              outcome([&] { klSocketPipe{idle}; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1800));
    ::close(fd);
    ::unlink(idle.c_str());
}

TEST(klSocketPipeTest, PeerOfAnotherUserIsRefused) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "needs root to run a peer under another user id";
    }
    klSocketPipe service;
    // Past the file mode, so that the service's own check is what refuses.
    ASSERT_EQ(0, ::chmod(service.getName().c_str(), 0666));
    ChildProcess stranger("/proc/self/exe", {"--pipe-stranger", service.getName()});
    EXPECT_EQ("Unable to connect pipe", outcome([&] { service.sendSocket(0, 10.0); }));
    EXPECT_EQ(0, stranger.exitStatus(30.0)) << "the stranger must see its connection dropped";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--pipe-server") {
        return runPipeServer(argv[2]);
    }
    if (argc == 3 && std::string(argv[1]) == "--pipe-stranger") {
        if (::setuid(65534) != 0) {
            return 4;
        }
        klSocketPipe stranger{std::string(argv[2])};
        // Dropped before or after it could say who it is.
        const std::string how = outcome([&] { stranger.recvSocket(10.0); });
        return how == "closed" || how == "Unable to send process id" ? 0 : 5;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
