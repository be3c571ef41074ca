// Helpers for the tests of the cluster service: the programs of the build started as child
// processes with bounded waits, and raw requests to a running service.
#pragma once

#include <support/klNetSocketTestSupport.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace kltest {

// The directory of the running test program, where the build puts every program.
inline std::string programDir() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

// A child process with its standard output (and error, when asked) on pipes; killed and reaped
// when the owner goes.
class ChildProcess {
public:
    ChildProcess(const std::string& path, const std::vector<std::string>& args,
                 bool captureErr = false) {
        int out[2], err[2] = {-1, -1};
        EXPECT_EQ(0, ::pipe2(out, O_CLOEXEC));
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        if (captureErr) {
            EXPECT_EQ(0, ::pipe2(err, O_CLOEXEC));
            ::posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        }
        std::vector<std::string> all{path};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& arg : all) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        EXPECT_EQ(0, ::posix_spawn(&m_pid, path.c_str(), &actions, nullptr, argv.data(), environ))
            << path;
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        m_out = out[0];
        if (captureErr) {
            ::close(err[1]);
            m_err = err[0];
        }
    }
    ~ChildProcess() {
        if (m_pid > 0 && exitStatus(0.0) == kStillRunning) {
            ::kill(m_pid, SIGKILL);
            exitStatus(10.0);
        }
        ::close(m_out);
        if (m_err >= 0) {
            ::close(m_err);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    static constexpr int kStillRunning = -1000;

    pid_t pid() const { return m_pid; }
    // The next line of output without its newline; empty after seconds or at the end.
    std::string readLine(double seconds = 10.0) {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(long(seconds * 1000));
        for (;;) {
            const std::size_t end = m_pending.find('\n');
            if (end != std::string::npos) {
                std::string line = m_pending.substr(0, end);
                m_pending.erase(0, end + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd wait{m_out, POLLIN, 0};
            char chunk[512];
            ssize_t n = 0;
            if (left.count() <= 0 || ::poll(&wait, 1, int(left.count())) <= 0 ||
                (n = ::read(m_out, chunk, sizeof(chunk))) <= 0) {
                return {};
            }
            m_pending.append(chunk, std::size_t(n));
        }
    }
    struct Outcome {
        int status = kStillRunning;
        std::string out;
        std::string err;
    };
    // Reads the outputs to their end and waits for the exit; a child still running after seconds
    // fails the test and is killed.
    Outcome finish(double seconds) {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(long(seconds * 1000));
        Outcome outcome;
        outcome.out = std::move(m_pending);
        pollfd ends[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
        std::string* texts[2] = {&outcome.out, &outcome.err};
        while (ends[0].fd >= 0 || ends[1].fd >= 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || ::poll(ends, 2, int(left.count())) <= 0) {
                ADD_FAILURE() << "process " << m_pid << " did not end within " << seconds << " s";
                ::kill(m_pid, SIGKILL);
                break;
            }
            for (int i = 0; i < 2; ++i) {
                char chunk[4096];
                const ssize_t n = ends[i].revents ? ::read(ends[i].fd, chunk, sizeof(chunk)) : -1;
                if (n > 0) {
                    texts[i]->append(chunk, std::size_t(n));
                } else if (ends[i].revents) {
                    ends[i].fd = -1;
                }
            }
        }
        outcome.status = exitStatus(10.0);
        return outcome;
    }
    // Exit status (128 + signal for a killed child), or kStillRunning after seconds.
    int exitStatus(double seconds) {
        if (m_exited) {
            return m_status;
        }
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(long(seconds * 1000));
        for (;;) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_exited = true;
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return m_status;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return kStillRunning;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    std::size_t openDescriptorCount() const {
        std::size_t count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(m_pid) + "/fd")) {
            ++count;
        }
        return count;
    }
    std::size_t threadCount() const {
        std::size_t count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(m_pid) + "/task")) {
            ++count;
        }
        return count;
    }
    // Resident set size in bytes.
    std::uint64_t residentBytes() const {
        std::ifstream statm("/proc/" + std::to_string(m_pid) + "/statm");
        std::uint64_t size = 0, resident = 0;
        statm >> size >> resident;
        return resident * std::uint64_t(::sysconf(_SC_PAGESIZE));
    }

private:
    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_pending;
    bool m_exited = false;
    int m_status = 0;
};

// A KALDClusterService on an ephemeral loopback port, started from dir (default: the build's
// program directory, where it finds the real render server).
class ServiceDaemon : public ChildProcess {
public:
    explicit ServiceDaemon(std::vector<std::string> args = {}, const std::string& dir = programDir())
        : ChildProcess(dir + "/KALDClusterService", withDefaults(std::move(args))) {
        const std::string line = readLine(20.0);
        const std::string prefix = "listening on port ";
        EXPECT_EQ(prefix, line.substr(0, prefix.size())) << "the service did not start";
        m_port = line.size() > prefix.size() ? std::stoi(line.substr(prefix.size())) : 0;
    }
    ~ServiceDaemon() {
        if (exitStatus(0.0) == kStillRunning) {
            ::kill(pid(), SIGTERM);
            EXPECT_EQ(0, exitStatus(30.0)) << "the service did not end on SIGTERM";
        }
    }
    int port() const { return m_port; }

    // A connection that has exchanged the greeting, as a stream with a receive time-out.
    std::unique_ptr<klNetStream> connect(double timeout = 20.0) const {
        auto link = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", m_port), 10.0);
        link->signalHPCNetSocket();
        link->setRecvTimeout(timeout);
        return std::make_unique<klNetStream>(link);
    }

private:
    static std::vector<std::string> withDefaults(std::vector<std::string> args) {
        args.insert(args.begin(), {"--port", "0", "--no-console"});
        return args;
    }
    int m_port = 0;
};

}  // namespace kltest
