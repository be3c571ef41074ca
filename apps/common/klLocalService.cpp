#include <klLocalService.h>

#include <klPlatform.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kStartSeconds = 20.0;
constexpr double kStopSeconds = 30.0;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

klLocalService::klLocalService(const std::vector<std::string>& arguments) {
    const std::string path = klPlatform::getBinDir() + "/KALDClusterService";
    std::vector<std::string> all{path, "--port", "0", "--no-console"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const int failed = ::posix_spawn(&m_pid, path.c_str(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    m_out = out[0];
    if (failed != 0) {
        ::close(m_out);
        throw std::runtime_error("cannot start " + path + ": " + std::strerror(failed));
    }
    try {
        m_port = readPort();
    } catch (...) {
        end();
        throw;
    }
}

klLocalService::~klLocalService() {
    end();
}

void klLocalService::end() {
    if (m_out >= 0 && !waitForExit(0.0)) {
        ::kill(m_pid, SIGTERM);
        if (!waitForExit(kStopSeconds)) {
            ::kill(m_pid, SIGKILL);
            waitForExit(-1.0);
        }
    }
    if (m_out >= 0) {
        ::close(m_out);
        m_out = -1;
    }
}

bool klLocalService::waitForExit(double seconds) {
    const auto start = Clock::now();
    while (!m_exited) {
        int status = 0;
        if (::waitpid(m_pid, &status, seconds < 0 ? 0 : WNOHANG) == m_pid) {
            m_exited = true;
        } else if (seconds >= 0 && secondsSince(start) >= seconds) {
            return false;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    return true;
}

int klLocalService::readPort() {
    std::string line;
    const auto start = Clock::now();
    while (line.find('\n') == std::string::npos) {
        const int left = int((kStartSeconds - secondsSince(start)) * 1000);
        pollfd wait{m_out, POLLIN, 0};
        char chunk[256];
        ssize_t n = 0;
        if (left <= 0 || ::poll(&wait, 1, left) <= 0 ||
            (n = ::read(m_out, chunk, sizeof(chunk))) <= 0) {
            throw std::runtime_error("the cluster service did not start listening");
        }
        line.append(chunk, std::size_t(n));
    }
    int port = 0;
    if (std::sscanf(line.c_str(), "listening on port %d", &port) != 1 || port <= 0) {
        throw std::runtime_error("unexpected first line from the service: " + line);
    }
    return port;
}
