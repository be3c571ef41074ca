// The Slurm step's process, with a stand-in "srun" first on PATH: the input reaches it, an early
// end is named, closing the input ends it, and an owner killed with SIGKILL takes it along.
#include "klSlurmStep.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace {

// Says what a one-task step says, with the port read from its input, then does what
// KL_FAKE_SRUN asks: wait for the input to close, end badly, or ignore its input for good.
const char* const kFakeSrun = R"(#!/bin/sh
echo $$ > "$KL_FAKE_SRUN_PID"
port=$(head -c 4)
echo "0: task on n1 step 5.0"
echo " 0: listening on port $port"
case "$KL_FAKE_SRUN" in
wait) exec cat > /dev/null ;;
task) echo "srun: error: n1: task 0: Exited with exit code 3"; exit 3 ;;
exit) echo "srun: fatal: gone"; exit 3 ;;
*) exec sleep 1000 < /dev/null ;;
esac
)";

class klSlurmStepTest : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/klSlurmStepTest-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        m_dir = pattern;
        std::ofstream(m_dir + "/srun") << kFakeSrun;
        ::chmod((m_dir + "/srun").c_str(), 0700);
        m_path = std::getenv("PATH");
        ::setenv("PATH", (m_dir + ":" + m_path).c_str(), 1);
        ::setenv("KL_FAKE_SRUN_PID", (m_dir + "/pid").c_str(), 1);
    }
    void TearDown() override {
        ::setenv("PATH", m_path.c_str(), 1);
        std::system(("rm -rf " + m_dir).c_str());
    }

    static std::unique_ptr<klSlurmStep> start(const char* mode) {
        ::setenv("KL_FAKE_SRUN", mode, 1);
        const std::string input = "4321";
        return std::make_unique<klSlurmStep>(
            std::vector<std::string>{"n1"}, std::vector<std::string>{},
            std::vector<std::string>{"x"}, reinterpret_cast<const std::uint8_t*>(input.data()),
            input.size());
    }

    // The stand-in's process id, once it has written it.
    pid_t fakePid() const {
        pid_t pid = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (pid == 0 && std::chrono::steady_clock::now() < deadline) {
            std::ifstream(m_dir + "/pid") >> pid;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return pid;
    }

    std::string m_dir;
    std::string m_path;
};

// Gone or a zombie nobody reaps (a container's first process may not).
bool gone(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string number, name, state;
    return !(stat >> number >> name >> state) || state == "Z";
}

TEST_F(klSlurmStepTest, ReadsTheTasksAndEndsTheStepByClosingItsInput) {
    const auto step = start("wait");
    const std::vector<klSlurmOutput::Task> tasks = step->waitForTasks(10.0);
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].node, "n1");
    EXPECT_EQ(tasks[0].port, 4321);
    EXPECT_EQ(step->step(), "5.0");
    EXPECT_FALSE(step->failure(0.2));
    const pid_t pid = fakePid();
    EXPECT_TRUE(step->end(10.0));
    EXPECT_TRUE(gone(pid));
    EXPECT_FALSE(step->failure());
}

TEST_F(klSlurmStepTest, NamesTheTaskOrTheStepThatEndsEarly) {
    for (const auto& [mode, node, text] :
         {std::tuple<const char*, const char*, const char*>{
              "task", "n1", "its task ended: Exited with exit code 3"},
          {"exit", "", "srun exited with status 3: srun: fatal: gone"}}) {
        const auto step = start(mode);
        const std::optional<klSlurmStep::Failure> failure = step->failure(10.0);
        ASSERT_TRUE(failure) << mode;
        EXPECT_EQ(failure->node, node);
        EXPECT_EQ(failure->text, text);
    }
}

TEST_F(klSlurmStepTest, AnOwnerKilledWithSigkillTakesTheStepAlong) {
    const pid_t owner = ::fork();
    if (owner == 0) {
        const auto step = start("ignore");
        step->waitForTasks(10.0);
        ::pause();
        ::_exit(0);
    }
    ASSERT_GT(owner, 0);
    const pid_t pid = fakePid();
    ASSERT_GT(pid, 0);
    ::kill(owner, SIGKILL);
    int status = 0;
    ::waitpid(owner, &status, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!gone(pid) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(gone(pid)) << "the stand-in srun outlived its owner";
    ::kill(pid, SIGKILL);
}

}  // namespace
