#include <klLocalService.h>

#include <klPlatform.h>
#include <klTiedChild.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kStartSeconds = 20.0;
constexpr double kStopSeconds = 30.0;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

klLocalService::klLocalService(const std::vector<std::string>& arguments, Sealing sealing) {
    const std::string path = klPlatform::getBinDir() + "/KALDClusterService";
    // A service of the program's own: the node's configuration is not its, SIGTERM (from the
    // owner, or its death) stops it at once, and it serves this host only.
    std::vector<std::string> all{path,
                                 "--port",
                                 "0",
                                 "--listen",
                                 host(),
                                 "--no-console",
                                 "--stop-on-stdin-close",
                                 "--drain-timeout",
                                 "0",
                                 "--config",
                                 "",
                                 "--allow",
                                 host()};
    std::optional<klNetFarmKey> key;
    if (sealing == Sealing::runKey) {
        key = klNetFarmKey::random();
        m_sealer = std::make_shared<klNetFarmSealer>(*key);
        all.insert(all.end(), {"--key-file", "-"});
    }
    all.insert(all.end(), arguments.begin(), arguments.end());
    int out[2], in[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
    if (::pipe2(in, O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(out[0]);
        ::close(out[1]);
        throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(error));
    }
    // Tied to this thread: the service gets SIGTERM if its owner dies without closing the pipe.
    try {
        m_pid = klTiedChild{in[0], out[1], -1, false}.start(all);
    } catch (...) {
        for (const int end : {in[0], in[1], out[0], out[1]}) {
            ::close(end);
        }
        throw;
    }
    ::close(out[1]);
    ::close(in[0]);
    m_out = out[0];
    m_in = in[1];
    try {
        // 32 bytes fit into the empty pipe at once.
        if (key &&
            ::write(m_in, key->data(), klNetFarmKey::kSize) != ssize_t(klNetFarmKey::kSize)) {
            throw std::runtime_error(std::string("cannot give the service its key: ") +
                                     std::strerror(errno));
        }
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
    if (m_in >= 0) {
        ::close(m_in);  // the service stops on the end of its input
        m_in = -1;
    }
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
