// Helpers for the tests that span processes: programs of the build, or the test program itself in
// a child mode of its own, started as child processes with bounded waits; a table of program runs
// and what each prints; a directory that goes with its owner; and a KALDClusterService on an
// ephemeral loopback port.
#pragma once

#include <support/klNetSocketTestSupport.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <regex>
#include <sstream>

extern char** environ;

namespace kltest {

inline Clock::duration secondsOf(double value) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(value));
}

// The directory of the running test program, where the build puts every program.
inline std::string programDir() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

// Resident set size of a process in bytes.
inline std::size_t residentBytes(pid_t pid) {
    std::size_t size = 0, resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> size >> resident;
    return resident * std::size_t(::sysconf(_SC_PAGESIZE));
}

// Entries of a process's /proc directory: "fd" counts its descriptors, "task" its threads.
inline std::size_t procEntries(pid_t pid, const std::string& what) {
    const std::filesystem::directory_iterator list("/proc/" + std::to_string(pid) + "/" + what);
    return std::size_t(std::distance(begin(list), end(list)));
}

// The paths in a directory.
inline std::set<std::string> entriesOf(const std::string& dir) {
    std::set<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        paths.insert(entry.path());
    }
    return paths;
}

// An environment variable set to value (unset for none) while the owner lives, then restored.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const char* value) : m_name(std::move(name)) {
        if (const char* old = std::getenv(m_name.c_str())) {
            m_old = old;
        }
        value ? ::setenv(m_name.c_str(), value, 1) : ::unsetenv(m_name.c_str());
    }
    ~ScopedEnv() {
        m_old ? ::setenv(m_name.c_str(), m_old->c_str(), 1) : ::unsetenv(m_name.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

// A directory of its own under parent (the system's temporary directory unless given), removed
// with everything in it.
class TempDir {
public:
    explicit TempDir(const std::string& name,
                     const std::filesystem::path& parent = std::filesystem::temp_directory_path())
        : m_path(parent / (name + "-" + std::to_string(::getpid()))) {
        std::filesystem::remove_all(m_path);
        std::filesystem::create_directories(m_path);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::string path(const std::string& relative = "") const { return m_path / relative; }
    // Creates an executable shell script at the relative path and returns its full path.
    std::string addProgram(const std::string& relative, const std::string& script = "") const {
        const std::filesystem::path file = m_path / relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "#!/bin/sh\n" << script << "\n";
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        return file;
    }

private:
    std::filesystem::path m_path;
};

// A child process with its standard output (and error, when asked; and input, when asked) on
// pipes; killed and reaped when the owner goes. Used from one thread.
class ChildProcess {
public:
    ChildProcess(const std::string& path, const std::vector<std::string>& args,
                 bool captureErr = false, bool pipeIn = false) {
        int out[2], err[2] = {-1, -1}, in[2] = {-1, -1};
        EXPECT_EQ(0, ::pipe2(out, O_CLOEXEC));
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        if (pipeIn) {
            EXPECT_EQ(0, ::pipe2(in, O_CLOEXEC));
            ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        }
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
        m_out = out[0];
        m_err = err[0];
        m_in = in[1];
        ::close(out[1]);
        if (pipeIn) {
            ::close(in[0]);
        }
        if (captureErr) {
            ::close(err[1]);
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
        closeIn();
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    static constexpr int kStillRunning = -1000;

    pid_t pid() const { return m_pid; }
    // Writes to the child's standard input (a pipe when asked for); closeIn() ends it.
    void writeIn(const void* data, std::size_t size) {
        EXPECT_EQ(ssize_t(size), ::write(m_in, data, size));
    }
    void closeIn() {
        if (m_in >= 0) {
            ::close(m_in);
            m_in = -1;
        }
    }
    // The next line of output without its newline; empty after within seconds or at the end.
    std::string readLine(double within = 10.0) {
        const auto deadline = Clock::now() + secondsOf(within);
        std::size_t end;
        while ((end = m_pending.find('\n')) == std::string::npos) {
            if (!readMore(m_out, m_pending, deadline)) {
                return {};
            }
        }
        const std::string line = m_pending.substr(0, end);
        m_pending.erase(0, end + 1);
        return line;
    }
    struct Outcome {
        int status = kStillRunning;
        std::string out;
        std::string err;
    };
    // Reads the outputs to their end (each must fit a pipe's buffer while the other is read) and
    // waits for the exit; a child still running after that fails the test and is killed.
    Outcome finish(double within) {
        const auto deadline = Clock::now() + secondsOf(within);
        Outcome outcome{kStillRunning, std::move(m_pending), {}};
        while (readMore(m_out, outcome.out, deadline)) {
        }
        while (m_err >= 0 && readMore(m_err, outcome.err, deadline)) {
        }
        outcome.status = exitStatus(10.0);
        if (outcome.status == kStillRunning) {
            ADD_FAILURE() << "process " << m_pid << " did not end within " << within << " s";
        }
        return outcome;
    }
    // Exit status (128 + signal for a killed child), or kStillRunning after within seconds.
    int exitStatus(double within) {
        waitUntil(
            [this] {
                int status = 0;
                if (!m_exited && ::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                    m_exited = true;
                    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                }
                return m_exited;
            },
            secondsOf(within));
        return m_exited ? m_status : kStillRunning;
    }

private:
    // Appends what fd brings before deadline; false at its end or at the deadline.
    static bool readMore(int fd, std::string& into, Clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd wait{fd, POLLIN, 0};
        char chunk[4096];
        ssize_t n = 0;
        if (left <= 0 || ::poll(&wait, 1, int(left)) <= 0 ||
            (n = ::read(fd, chunk, sizeof(chunk))) <= 0) {
            return false;
        }
        into.append(chunk, std::size_t(n));
        return true;
    }

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    int m_in = -1;
    std::string m_pending;
    bool m_exited = false;
    int m_status = 0;
};

// The processes whose parent is pid (from /proc).
inline std::vector<pid_t> childrenOf(pid_t pid) {
    std::vector<pid_t> children;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        // "pid (comm) state ppid ...": the command may hold blanks and parentheses.
        std::string stat;
        std::getline(std::ifstream(entry.path() / "stat"), stat);
        const std::size_t close = stat.rfind(')');
        char state = 0;
        int parent = 0;
        if (close != std::string::npos &&
            std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &parent) == 2 &&
            parent == pid) {
            children.push_back(pid_t(std::stoi(name)));
        }
    }
    return children;
}

// Whether a process still runs (a zombie counts as gone).
inline bool isRunning(pid_t pid) {
    std::string stat;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), stat);
    const std::size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

// One run of a program of the build: the program and its arguments separated by blanks, the exit
// status, and regular expressions matched against the whole standard output and error. {port}
// stands for the port runSteps is given.
struct Step {
    std::string command;
    int status;
    std::string out, err = "";
};

inline void runSteps(const std::vector<Step>& steps, int port = 0) {
    const auto withPort = [port](const std::string& text) {
        return std::regex_replace(text, std::regex("\\{port\\}"), std::to_string(port));
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(withPort(step.command));
        std::istringstream words(withPort(step.command));
        const std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        ChildProcess program(programDir() + "/" + args[0], {args.begin() + 1, args.end()}, true);
        const auto outcome = program.finish(60.0);
        EXPECT_EQ(step.status, outcome.status) << outcome.err;
        EXPECT_TRUE(std::regex_match(outcome.out, std::regex(withPort(step.out)))) << outcome.out;
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex(withPort(step.err)))) << outcome.err;
    }
}

// A KALDClusterService on an ephemeral loopback port, started from dir (default: the build's
// program directory, where it finds the real render server).
class ServiceDaemon : public ChildProcess {
public:
    explicit ServiceDaemon(std::vector<std::string> args = {},
                           const std::string& dir = programDir())
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
        return connectTo(m_port, timeout);
    }
    static std::unique_ptr<klNetStream> connectTo(int port, double timeout = 20.0) {
        auto link = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 10.0);
        link->signalHPCNetSocket();
        link->setRecvTimeout(timeout);
        return std::make_unique<klNetStream>(link);
    }

private:
    // An ephemeral port, no console, and unless the test says otherwise: no configuration
    // file of the machine's, and SIGTERM stops at once.
    static std::vector<std::string> withDefaults(std::vector<std::string> args) {
        const auto given = [&args](const char* option) {
            return std::find(args.begin(), args.end(), option) != args.end();
        };
        if (!given("--config")) {
            args.insert(args.begin(), {"--config", ""});
        }
        if (!given("--drain-timeout")) {
            args.insert(args.begin(), {"--drain-timeout", "0"});
        }
        args.insert(args.begin(), {"--port", "0", "--no-console"});
        return args;
    }
    int m_port = 0;
};

}  // namespace kltest
