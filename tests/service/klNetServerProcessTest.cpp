// The server launcher and the executable lookup. This test is built into a directory of its own
// beside a stand-in "KALDClusterServer" (klNetFakeClusterServer.cpp), which the lookup finds there
// and which prints the command line, environment and descriptors it was started with.
#include <support/klNetProcessTestSupport.h>

#include <QCoreApplication>
#include <QThread>

#include <sys/mman.h>

using namespace kltest;

namespace {

const std::string kServer = "KALDClusterServer";

// What this process writes to one of its descriptors (1 or 2), from construction to restore(),
// kept in memory.
class Capture {
public:
    explicit Capture(int fd)
        : m_fd(fd),
          m_saved(::fcntl(fd, F_DUPFD_CLOEXEC, 3)),
          m_file(::memfd_create("capture", MFD_CLOEXEC)) {
        std::fflush(nullptr);
        ::dup2(m_file, m_fd);
    }
    ~Capture() {
        restore();
        ::close(m_file);
    }
    void restore() {
        std::fflush(nullptr);
        if (m_saved >= 0) {
            ::dup2(m_saved, m_fd);
            ::close(std::exchange(m_saved, -1));
        }
    }
    std::string text() const {
        std::fflush(nullptr);
        std::string text(1 << 16, '\0');
        text.resize(
            std::size_t(std::max<ssize_t>(0, ::pread(m_file, text.data(), text.size(), 0))));
        return text;
    }
    // Waits until the text holds part, processing this thread's Qt events meanwhile (they copy a
    // started server's console output).
    std::string waitFor(const std::string& part) const {
        std::string now;
        waitUntil([&] {
            QCoreApplication::processEvents();
            return (now = text()).find(part) != std::string::npos;
        });
        return now;
    }

private:
    const int m_fd;
    int m_saved;
    const int m_file;
};

std::shared_ptr<klNetServerProcess> server(const std::string& version, bool display, bool stereo,
                                           bool first, bool second, bool third,
                                           const std::string& extra = "extra") {
    return klNetServerProcess::create(extra, 1, "service", version, display, stereo, first, second,
                                      third, "booking");
}

TEST(klNetUtilsTest, FindsTheRequestedVersionAcrossEditions) {
    TempDir root("klNetUtilsTest");
    const std::string farm = root.path("KALDFarm-10.0/bin");
    for (const char* program :
         {"KALDFarm-10.0/bin/KALDClusterServer", "KALDFarm-10.0/bin/Render.EXE",
          "KALDStudio-9.2/bin/KALDClusterServer", "KALDMain-9.2/bin/KALDClusterServer",
          "KALDBase-8.5/bin/KALDClusterServer", "plain/KALDClusterServer"}) {
        root.addProgram(program);
    }
    const std::string here = programDir() + "/" + kServer;
    struct Case {
        const char* why;
        std::string name, version, binDir, expected;
    } cases[] = {
        {"own version", kServer, "10.0", farm, farm + "/" + kServer},
        {"row 2 before row 4", kServer, "9.2", farm, root.path("KALDMain-9.2/bin/") + kServer},
        {"one edition has it", kServer, "8.5", farm, root.path("KALDBase-8.5/bin/") + kServer},
        {"none has it", kServer, "7.0", farm, here},
        {"no version in the name", kServer, "9.2", root.path("plain"),
         root.path("plain/") + kServer},
        {"no second suffix", "Render.EXE", "10.0", farm, farm + "/Render.EXE"},
        {"empty binDir", kServer, "9.2", "", here},
        {"missing binDir", kServer, "9.2", root.path("missing"), here},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(c.expected, klNetUtils::getExecutablePath(c.name, c.version, c.binDir));
    }
}

// Every option combination on the command line of a started program, with the pipe name either
// there or in the environment, and nothing inherited but the standard descriptors.
TEST(klNetServerProcessTest, StartsTheServerWithItsOptionsPipeAndNothingElse) {
    struct Case {
        std::string version;
        bool display, stereo, first, second, third, console;
        std::vector<std::string> options;
    } cases[] = {
        {"8.5", true, false, true, false, false, true, {"-Z"}},
        {"9.0", false, true, false, true, false, false, {"-P", "-t"}},
        {"9.2", true, true, true, true, true, true, {"-Z", "-s", "-ta"}},
        {"10.0", true, false, false, false, true, false, {}},
    };
    // A descriptor the program's own code forgot to make close-on-exec.
    const int forgotten = ::dup(STDERR_FILENO);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.version);
        ::unsetenv("KALD_LOCAL_SERVICE");
        const auto launched = server(c.version, c.display, c.stereo, c.first, c.second, c.third);
        const std::string pipe = launched->socketPipeName();
        Capture output(STDOUT_FILENO);
        launched->start(c.console);
        const bool ended = launched->wait(10.0);
        output.restore();
        EXPECT_TRUE(ended);

        std::string expected = c.console ? "KALDClusterServer starting\n" : "";
        expected += "arg " + programDir() + "/" + kServer + "\n";
        for (const std::string& option : c.options) {
            expected += "arg " + option + "\n";
        }
        const bool pipeArgument = c.version != "8.5";
        expected += pipeArgument ? "arg -socketpipe=" + pipe + "\n" : "";
        expected += "arg extra\nenv " + (pipeArgument ? "-" : pipe) + "\nfds 0 1 2\n";
        EXPECT_EQ(expected, output.text());
    }
    ::close(forgotten);
}

// The stand-in's process id, once it has printed it to the captured standard output.
pid_t startedPid(const Capture& output) {
    const std::string text = output.waitFor("pid ");
    const std::size_t at = text.find("pid ");
    return at == std::string::npos ? 0 : std::stoi(text.substr(at + 4));
}

TEST(klNetServerProcessTest, RunningServerIsWaitedForKilledAndEndedByDestruction) {
    {
        Capture output(STDOUT_FILENO);
        auto launched = server("10.0", true, false, false, false, false, "stay");
        // Started on a request thread, as the service does; its output then arrives on this one.
        std::unique_ptr<QThread> request(QThread::create([&] { launched->start(true); }));
        request->start();
        request->wait();
        ASSERT_NE(0, startedPid(output));
        EXPECT_FALSE(launched->wait(0.0));

        // Another thread asks whether it runs while this one handles its end.
        auto watcher = std::async(
            std::launch::async, [&] { return waitUntil([&] { return !launched->isRunning(); }); });
        launched->tryKill();
        EXPECT_TRUE(launched->wait(10.0));
        EXPECT_TRUE(watcher.get());
        launched->stop();
        EXPECT_TRUE(launched->isStopRequested());
        EXPECT_FALSE(launched->isRunning());
    }

    // A server that ignores its closed pipe is asked to terminate after 3 s.
    Capture output(STDOUT_FILENO);
    auto launched = server("10.0", true, false, false, false, false, "stay");
    launched->start(false);
    const pid_t pid = startedPid(output);
    ASSERT_NE(0, pid);
    const auto start = std::chrono::steady_clock::now();
    launched.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(11));
    EXPECT_NE(0, ::kill(pid, 0)) << "server still there after destruction";
}

TEST(klNetServerProcessTest, MissingProgramFailsWithTheExactText) {
    // A copy of this test, alone in a directory, finds no server beside itself.
    const TempDir alone("klNetServerProcessTest");
    const std::string copy = alone.path("klNetServerProcessTest");
    std::filesystem::copy_file("/proc/self/exe", copy);
    ChildProcess child(copy, {"--start-missing"});
    EXPECT_EQ("Error starting process '" + alone.path(kServer) +
                  "'. File not found or insufficient permission to start.\nnot running\n",
              child.finish(60.0).out);
}

TEST(klNetServerProcessTest, InProcessServerGetsThePipeNameAndItsFailureIsLogged) {
    std::promise<std::string> handed;
    klNetServerProcess::setInProcess(true, [&](std::string name) {
        handed.set_value(name);
        throw klNetError("render failed");
    });
    Capture log(STDERR_FILENO);
    auto task = server("10.0", true, false, false, false, false);
    task->start(true);
    EXPECT_TRUE(task->wait(10.0));
    klNetServerProcess::setInProcess(false, {});
    log.restore();
    EXPECT_EQ(task->socketPipeName(), handed.get_future().get());
    const std::string text = log.text();
    EXPECT_EQ(" ERROR render failed\n",
              text.substr(text.size() - std::min<std::size_t>(text.size(), 21)));
}

// Child mode of MissingProgramFailsWithTheExactText.
int startMissing() {
    auto launched = server("10.0", true, false, false, false, false);
    const std::string how = outcome([&] { launched->start(false); });
    std::printf("%s\n%s\n", how.c_str(), launched->isRunning() ? "running" : "not running");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    if (argc == 2 && std::string(argv[1]) == "--start-missing") {
        return startMissing();
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
