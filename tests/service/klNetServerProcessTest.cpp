// The server launcher and the executable lookup. This test is built into a directory of its own
// beside a stand-in "KALDClusterServer" (klNetFakeClusterServer.cpp), which the lookup finds there
// and which prints the command line, environment and descriptors it was started with.
#include <support/klNetProcessTestSupport.h>

#include <QCoreApplication>
#include <QThread>

#include <regex>

using namespace kltest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string kServer = "KALDClusterServer";

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
// there or in the environment, and nothing inherited but the standard descriptors; the output is
// copied line by line behind the server's id, or not at all without the console.
TEST(klNetServerProcessTest, StartsTheServerWithItsOptionsPipeAndNothingElse) {
    struct Case {
        std::string version;
        bool display, stereo, first, second, third, console;
        const char* options;  // as the stand-in prints them
    } cases[] = {
        {"8.5", true, false, true, false, false, true, "arg -Z\n"},
        {"9.0", false, true, false, true, false, true, "arg -P\narg -t\n"},
        {"9.2", true, true, true, true, true, true, "arg -Z\narg -s\narg -ta\n"},
        {"10.0", true, false, false, false, true, true, ""},
        {"10.0", true, false, false, false, true, false, ""},
    };
    // A descriptor the program's own code forgot to make close-on-exec.
    const int forgotten = ::dup(STDERR_FILENO);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.version + (c.console ? " console" : ""));
        ::unsetenv("KALD_LOCAL_SERVICE");
        const auto launched = server(c.version, c.display, c.stereo, c.first, c.second, c.third);
        const std::string pipe = launched->socketPipeName();
        CaptureStdout();
        launched->start(c.console);
        EXPECT_TRUE(launched->wait(10.0));
        const bool pipeArgument = c.version != "8.5";
        std::string lines = "arg " + programDir() + "/" + kServer + "\n" + c.options;
        lines += pipeArgument ? "arg -socketpipe=" + pipe + "\n" : "";
        lines += "arg extra\nenv " + (pipeArgument ? "-" : pipe) + "\nfds 0 1 2\n";
        const std::string copied =
            std::regex_replace(lines, std::regex("(^|\n)(?=.)"), "$1[server 1] ");
        EXPECT_EQ(c.console ? "KALDClusterServer starting\n" + copied : "", GetCapturedStdout());
    }
    ::close(forgotten);
}

// The process id a stand-in started with "stay:FILE" wrote into FILE, once it is there.
pid_t startedPid(const std::string& file) {
    pid_t pid = 0;
    waitUntil([&] { return bool(std::ifstream(file) >> pid); });
    return pid;
}

TEST(klNetServerProcessTest, RunningServerIsWaitedForKilledAndEndedByDestruction) {
    const TempDir dir("klNetServerProcessTest");
    {
        auto launched = server("10.0", true, false, false, false, false, "stay:" + dir.path("1"));
        // Started on a request thread, as the service does; its output then arrives on this one.
        std::unique_ptr<QThread> request(QThread::create([&] { launched->start(true); }));
        request->start();
        request->wait();
        ASSERT_NE(0, startedPid(dir.path("1")));
        EXPECT_FALSE(launched->wait(0.0));

        // Another thread asks whether it runs while this one handles its end.
        auto watcher = std::async(
            std::launch::async, [&] { return waitUntil([&] { return !launched->isRunning(); }); });
        launched->tryKill();
        EXPECT_TRUE(launched->wait(10.0));
        EXPECT_TRUE(watcher.get());
    }

    // A server that ignores its closed pipe is asked to terminate after 3 s.
    auto launched = server("10.0", true, false, false, false, false, "stay:" + dir.path("2"));
    launched->start(false);
    const pid_t pid = startedPid(dir.path("2"));
    ASSERT_NE(0, pid);
    const auto start = Clock::now();
    launched.reset();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(11));
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
    testing::internal::CaptureStderr();
    auto task = server("10.0", true, false, false, false, false);
    task->start(true);
    EXPECT_TRUE(task->wait(10.0));
    klNetServerProcess::setInProcess(false, {});
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(task->socketPipeName(), handed.get_future().get());
    EXPECT_EQ(" ERROR render failed\n",
              log.substr(log.size() - std::min<std::size_t>(log.size(), 21)));
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
