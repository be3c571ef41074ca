#include "klHttpListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace {

constexpr int kThreads = 2;
constexpr std::size_t kMaxRequestBytes = 8 * 1024;
constexpr auto kRequestTime = std::chrono::seconds(10);
// How often a wait looks whether the listener is being stopped.
constexpr int kPollMilliseconds = 200;

std::string systemText(int error) {
    char text[256];
    return ::strerror_r(error, text, sizeof(text));
}

// A connection's descriptor, closed by its owner.
class Connection {
public:
    explicit Connection(int fd) : m_fd(fd) {}
    ~Connection() { ::close(m_fd); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

const char* reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 503:
            return "Service Unavailable";
        default:
            return "Internal Server Error";
    }
}

void sendAll(int connection, const std::string& data) {
    for (std::size_t sent = 0; sent < data.size();) {
        const ssize_t n = ::send(connection, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // the client has gone: nothing is left to tell it
        }
        sent += std::size_t(n);
    }
}

}  // namespace

klHttpListener::klHttpListener(const std::string& address, std::map<std::string, Handler> handlers)
    : m_handlers(std::move(handlers)) {
    const auto fail = [&address](const std::string& why) {
        return std::runtime_error("cannot serve HTTP on " + address + ": " + why);
    };
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos) {
        throw fail("no port");
    }
    std::string host = address.substr(0, colon);
    const int port = std::atoi(address.c_str() + colon + 1);
    sockaddr_storage storage{};
    socklen_t size = 0;
    const bool v6 = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (v6) {
        host = host.substr(1, host.size() - 2);
        auto& in6 = reinterpret_cast<sockaddr_in6&>(storage);
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(std::uint16_t(port));
        if (::inet_pton(AF_INET6, host.c_str(), &in6.sin6_addr) != 1) {
            throw fail("not a numeric IPv6 address");
        }
        size = sizeof(in6);
    } else {
        auto& in4 = reinterpret_cast<sockaddr_in&>(storage);
        in4.sin_family = AF_INET;
        in4.sin_port = htons(std::uint16_t(port));
        if (::inet_pton(AF_INET, host.c_str(), &in4.sin_addr) != 1) {
            throw fail("not a numeric IPv4 address");
        }
        size = sizeof(in4);
    }
    m_listener = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listener < 0) {
        throw fail(systemText(errno));
    }
    const int on = 1;
    ::setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (v6) {
        ::setsockopt(m_listener, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    }
    if (::bind(m_listener, reinterpret_cast<sockaddr*>(&storage), size) != 0 ||
        ::listen(m_listener, 16) != 0) {
        const int error = errno;
        ::close(m_listener);
        throw fail(systemText(error));
    }
    sockaddr_storage bound{};
    socklen_t boundSize = sizeof(bound);
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&bound), &boundSize);
    m_port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(bound).sin6_port
                                               : reinterpret_cast<sockaddr_in&>(bound).sin_port);
    for (int i = 0; i < kThreads; ++i) {
        m_threads.emplace_back([this] { acceptLoop(); });
    }
}

klHttpListener::~klHttpListener() {
    m_stopping = true;
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    ::close(m_listener);
}

void klHttpListener::acceptLoop() {
    while (!m_stopping) {
        pollfd wait{m_listener, POLLIN, 0};
        if (::poll(&wait, 1, kPollMilliseconds) <= 0) {
            continue;
        }
        const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;  // taken by the other thread, gone before it was taken, or interrupted
        }
        const Connection connection(fd);
        serve(connection.get());
    }
}

std::string klHttpListener::readRequest(int connection) {
    const auto deadline = std::chrono::steady_clock::now() + kRequestTime;
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos &&
           request.find("\n\n") == std::string::npos) {
        if (m_stopping || request.size() > kMaxRequestBytes ||
            std::chrono::steady_clock::now() >= deadline) {
            return {};
        }
        pollfd wait{connection, POLLIN, 0};
        if (::poll(&wait, 1, kPollMilliseconds) <= 0) {
            continue;
        }
        char chunk[1024];
        const ssize_t n = ::recv(connection, chunk, sizeof(chunk), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return {};
        }
        request.append(chunk, std::size_t(n));
    }
    return request;
}

void klHttpListener::serve(int connection) {
    // A client that does not read its answer holds a thread no longer than one that does not
    // send its request.
    const timeval sendTime{std::chrono::seconds(kRequestTime).count(), 0};
    ::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &sendTime, sizeof(sendTime));
    const std::string request = readRequest(connection);
    if (request.empty()) {
        return;
    }
    // "METHOD PATH VERSION"
    const std::size_t lineEnd = request.find_first_of("\r\n");
    const std::string line = request.substr(0, lineEnd);
    const std::size_t first = line.find(' ');
    const std::size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
    Answer answer;
    bool head = false;
    if (second == std::string::npos || line.compare(second + 1, 5, "HTTP/") != 0) {
        answer = {400, "text/plain; charset=utf-8", "bad request\n"};
    } else {
        const std::string method = line.substr(0, first);
        std::string path = line.substr(first + 1, second - first - 1);
        path = path.substr(0, path.find('?'));
        head = method == "HEAD";
        const auto handler = m_handlers.find(path);
        if (method != "GET" && !head) {
            answer = {405, "text/plain; charset=utf-8", "only GET and HEAD\n"};
        } else if (handler == m_handlers.end()) {
            answer = {404, "text/plain; charset=utf-8", "not found\n"};
        } else {
            try {
                answer = handler->second();
            } catch (const std::exception&) {
                answer = {500, "text/plain; charset=utf-8", "internal error\n"};
            }
        }
    }
    std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " " + reason(answer.status) +
                       "\r\nContent-Type: " + answer.type +
                       "\r\nContent-Length: " + std::to_string(answer.body.size()) +
                       "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    if (!head) {
        text += answer.body;
    }
    sendAll(connection, text);
}
