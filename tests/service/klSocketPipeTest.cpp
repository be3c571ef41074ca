// The socket hand-off pipe: sockets handed to another process, waits that time out, shutdown,
// refused peers, and nothing left behind in either process.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/link/klSocketPipe.h>

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <regex>

extern char** environ;

namespace {

using kltest::outcome;

// The child: takes sockets from the pipe until the service closes it, answers each client with
// its process id, and exits 0 if it ends with the descriptors it started with.
int runPipeServer(const char* name) {
    const auto before = kltest::openDescriptors();
    {
        klSocketPipe pipe{std::string(name)};
        for (;;) {
            try {
                klSocketLink link(pipe, 10.0);
                const std::uint32_t pid = std::uint32_t(::getpid());
                link.send(&pid, sizeof(pid));
            } catch (const klConnectionClosed&) {
                break;
            }
        }
    }
    return kltest::openDescriptors() == before ? 0 : 3;
}

pid_t spawnPipeServer(const std::string& name) {
    const char* argv[] = {"/proc/self/exe", "--pipe-server", name.c_str(), nullptr};
    pid_t child = -1;
    EXPECT_EQ(0, ::posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char**>(argv),
                               environ));
    return child;
}

int exitStatusOf(pid_t child) {
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(klSocketPipeTest, HandsClientSocketsToAnotherProcessAndLeavesNothingBehind) {
    const auto before = kltest::openDescriptors();
    std::string name;
    pid_t child;
    {
        klSocketPipe pipe;
        name = pipe.getName();
        struct stat file {};
        ASSERT_EQ(0, ::stat(name.c_str(), &file));
        EXPECT_EQ(S_IFSOCK | 0600u, file.st_mode);

        child = spawnPipeServer(name);
        for (int client = 0; client < 2; ++client) {
            auto [near, far] = kltest::connectedPair();
            far->sendDescriptor(pipe, 10.0);
            EXPECT_EQ(std::uint32_t(child), pipe.getPeerProcessId());
            far.reset();  // the service lets go of its copy; the connection stays up
            std::uint32_t answeredBy = 0;
            near->setRecvTimeout(10.0);
            near->recv(&answeredBy, sizeof(answeredBy));
            EXPECT_EQ(std::uint32_t(child), answeredBy);
        }
    }
    EXPECT_EQ(0, exitStatusOf(child)) << "the server saw no close, or leaked a descriptor";
    EXPECT_NE(0, ::access(name.c_str(), F_OK)) << "socket file left behind";
    EXPECT_EQ(before, kltest::openDescriptors());
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

    auto [near, far] = kltest::connectedPair();
    auto handed = std::async(std::launch::async, [&] { far->sendDescriptor(service, 10.0); });
    klSocketLink received(server, 10.0);
    handed.get();
    EXPECT_EQ(std::uint32_t(::getpid()), service.getPeerProcessId());
    const char hello[] = "hi";
    received.send(hello, sizeof(hello));
    char got[sizeof(hello)] = {};
    near->setRecvTimeout(10.0);
    near->recv(got, sizeof(got));
    EXPECT_STREQ(hello, got);
}

TEST(klSocketPipeTest, ShutdownWakesAWaitingCallAndServiceCloseEndsTheServer) {
    klSocketPipe lonely;
    auto waitingSend = kltest::startBlocked([&] { lonely.sendSocket(0, -1.0); }, {SYS_poll});
    lonely.shutdown();
    EXPECT_EQ("closed", waitingSend.get());
    EXPECT_EQ("closed", outcome([&] { lonely.sendSocket(0, 1.0); }));

    auto service = std::make_unique<klSocketPipe>();
    klSocketPipe server{service->getName()};
    auto waitingRecv = kltest::startBlocked([&] { server.recvSocket(-1.0); }, {SYS_poll});
    server.shutdown();
    EXPECT_EQ("closed", waitingRecv.get());
    EXPECT_EQ("closed", outcome([&] { server.recvSocket(1.0); }));

    klSocketPipe server2{service->getName()};
    auto served = kltest::startBlocked([&] { server2.recvSocket(-1.0); }, {SYS_poll});
    service.reset();
    EXPECT_EQ("closed", served.get()) << "the server must see the service go";
}

TEST(klSocketPipeTest, OpeningFailsWithTheSystemsReason) {
    klSocketPipe service;
    const std::string missing = service.getName() + "-missing";
    EXPECT_EQ("Unable to connect to named pipe. 2:No such file or directory",
              outcome([&] { klSocketPipe{missing}; }));

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
    const std::string name = service.getName();
    const char* argv[] = {"/proc/self/exe", "--pipe-stranger", name.c_str(), nullptr};
    pid_t child = -1;
    ASSERT_EQ(0, ::posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char**>(argv),
                               environ));
    EXPECT_EQ("Unable to connect pipe", outcome([&] { service.sendSocket(0, 10.0); }));
    EXPECT_EQ(0, exitStatusOf(child)) << "the stranger must see its connection dropped";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--pipe-server") == 0) {
        return runPipeServer(argv[2]);
    }
    if (argc == 3 && std::strcmp(argv[1], "--pipe-stranger") == 0) {
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
