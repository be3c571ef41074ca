#include "klSlurmStep.h"

#include <klTiedChild.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace {

// After SIGTERM srun waits for its tasks, which stop their own children first.
constexpr double kTermSeconds = 10.0;
// A line longer than this is cut there: no task of ours writes one.
constexpr std::size_t kMaxLine = 4096;

// Each task says where it runs, then becomes the program ("$@").
const char* const kWrapper =
    "printf 'task on %s step %s.%s\\n' \"$SLURMD_NODENAME\" \"$SLURM_JOB_ID\" "
    "\"$SLURM_STEP_ID\" && exec \"$@\"";

// The path of a program found on PATH, as execvp would find it; empty when none.
std::string onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string all = path != nullptr ? path : "/usr/bin:/bin";
    for (std::size_t begin = 0; begin <= all.size();) {
        const std::size_t end = std::min(all.find(':', begin), all.size());
        const std::string directory = end > begin ? all.substr(begin, end - begin) : ".";
        const std::string candidate = directory + "/" + program;
        struct stat status {};
        if (::stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        begin = end + 1;
    }
    return {};
}

// A pipe whose ends close on exec.
void makePipe(int ends[2]) {
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
}

void closeBoth(int ends[2]) {
    ::close(ends[0]);
    ::close(ends[1]);
}

// How a process ended, as waitid() tells it.
std::string describeExit(const siginfo_t& info) {
    if (info.si_code == CLD_EXITED) {
        return "srun exited with status " + std::to_string(info.si_status);
    }
    return "srun was killed by signal " + std::to_string(info.si_status);
}

// Cancels one step of ours ("JOB.STEP", digits only) and waits for scancel.
void cancelStep(const std::string& step) {
    std::string program = "scancel", quiet = "--quiet", id = step;
    char* argv[] = {program.data(), quiet.data(), id.data(), nullptr};
    pid_t pid = -1;
    if (::posix_spawnp(&pid, "scancel", nullptr, nullptr, argv, environ) == 0) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
}

}  // namespace

klSlurmStep::klSlurmStep(const std::vector<std::string>& nodes,
                         const std::vector<std::string>& srunOptions,
                         const std::vector<std::string>& command, const std::uint8_t* input,
                         std::size_t size)
    : m_lines(int(nodes.size()), nodes) {
    const std::string srun = onPath("srun");
    if (srun.empty()) {
        throw std::runtime_error("srun is not on PATH");
    }
    const std::string count = std::to_string(nodes.size());
    std::vector<std::string> all{
        srun,      "--nodes=" + count, "--ntasks=" + count,    "--ntasks-per-node=1",
        "--label", "--input=all",      "--kill-on-bad-exit=1", "--quiet"};
    all.insert(all.end(), srunOptions.begin(), srunOptions.end());
    all.insert(all.end(), {"/bin/sh", "-c", kWrapper, "sh"});
    all.insert(all.end(), command.begin(), command.end());
    int in[2], out[2];
    makePipe(in);
    try {
        makePipe(out);
    } catch (...) {
        closeBoth(in);
        throw;
    }
    try {
        m_pid = klTiedChild{in[0], out[1], out[1], true}.start(all);
    } catch (...) {
        closeBoth(in);
        closeBoth(out);
        throw;
    }
    ::close(in[0]);
    ::close(out[1]);
    m_input = in[1];
    m_output = out[0];
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = ::write(m_input, input + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;  // srun is gone already: its end tells why
        }
        done += std::size_t(n);
    }
    m_reader = std::thread([this] { read(); });
}

klSlurmStep::~klSlurmStep() {
    try {
        end(kTermSeconds);
    } catch (...) {
        // Ending is best effort here: the parent-death signal covers what is left.
    }
}

void klSlurmStep::read() {
    std::string pending;
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(m_output, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        pending.append(chunk, std::size_t(n));
        std::lock_guard<std::mutex> lock(m_mutex);
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            m_lines.add(pending.substr(0, std::min(end, kMaxLine)));
            pending.erase(0, end + 1);
        }
        if (pending.size() > kMaxLine) {
            m_lines.add(pending.substr(0, kMaxLine));
            pending.clear();
        }
        m_changed.notify_all();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!pending.empty()) {
            m_lines.add(pending.substr(0, kMaxLine));
        }
        m_outputClosed = true;
        m_changed.notify_all();
    }
    // Waits without reaping: the process id stays srun's until waitForExit() reaps it under the
    // lock, so signal() can never reach another process.
    siginfo_t info{};
    while (::waitid(P_PID, id_t(m_pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_exited = true;
    m_exit = describeExit(info);
    m_changed.notify_all();
}

bool klSlurmStep::waitForExit(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto done = [this] { return m_exited; };
    if (seconds < 0) {
        m_changed.wait(lock, done);
    } else if (!m_changed.wait_for(lock, std::chrono::duration<double>(seconds), done)) {
        return false;
    }
    if (!m_reaped) {
        while (::waitpid(m_pid, &m_status, 0) < 0 && errno == EINTR) {
        }
        m_reaped = true;
    }
    return true;
}

void klSlurmStep::signal(int number) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_reaped) {
        ::kill(m_pid, number);
    }
}

std::vector<klSlurmOutput::Task> klSlurmStep::waitForTasks(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool settled = m_changed.wait_for(lock, std::chrono::duration<double>(seconds), [this] {
        return m_lines.ready() || !m_lines.problem().empty() || m_lines.ended() || m_outputClosed;
    });
    if (m_lines.ready()) {
        return m_lines.tasks();
    }
    if (!m_lines.problem().empty()) {
        throw std::runtime_error("the Slurm step's output contradicts itself: " +
                                 m_lines.problem());
    }
    if (const auto& ended = m_lines.ended()) {
        throw std::runtime_error("node " + ended->node + ": its task ended before every cluster " +
                                 "service listened: " + ended->text);
    }
    if (m_outputClosed) {
        const std::string last = m_lines.lastOther();
        throw std::runtime_error("the Slurm step ended before every cluster service listened" +
                                 (last.empty() ? std::string() : ": " + last));
    }
    (void)settled;
    const std::string last = m_lines.lastOther();
    throw std::runtime_error("no cluster service listening within " + std::to_string(int(seconds)) +
                             " s on " + m_lines.missing() +
                             (last.empty() ? std::string() : " (the step said: " + last + ")"));
}

std::optional<klSlurmStep::Failure> klSlurmStep::failureLocked() const {
    if (m_ending) {
        return std::nullopt;
    }
    if (const auto& ended = m_lines.ended()) {
        return Failure{ended->node, "its task ended: " + ended->text};
    }
    if (m_exited) {
        const std::string last = m_lines.lastOther();
        return Failure{"", m_exit + (last.empty() ? "" : ": " + last)};
    }
    return std::nullopt;
}

std::optional<klSlurmStep::Failure> klSlurmStep::failure(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::duration<double>(seconds),
                       [this] { return failureLocked().has_value(); });
    return failureLocked();
}

std::string klSlurmStep::step() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines.step();
}

bool klSlurmStep::end(double graceSeconds) {
    if (m_endedByItself) {
        return *m_endedByItself;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
    }
    // The tasks see their input close: each service stops its servers and ends.
    ::close(m_input);
    m_input = -1;
    bool byItself = waitForExit(graceSeconds);
    if (!byItself) {
        signal(SIGTERM);
        if (!waitForExit(kTermSeconds)) {
            const std::string id = step();
            if (!id.empty()) {
                cancelStep(id);
            }
            signal(SIGKILL);
            waitForExit(-1.0);
        }
    }
    m_reader.join();
    ::close(m_output);
    m_output = -1;
    m_endedByItself = byItself;
    return byItself;
}
