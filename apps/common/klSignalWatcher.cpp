#include <klSignalWatcher.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

// The two ends of the signal pipe, closed with their owner.
class klSignalWatcher::Pipe {
public:
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error(std::string("cannot create the signal pipe: ") +
                                     std::strerror(errno));
        }
        m_read = ends[0];
        m_write = ends[1];
        // A full pipe already holds a pending signal: the handler must never block on it.
        ::fcntl(m_write, F_SETFL, O_NONBLOCK);
    }
    ~Pipe() {
        ::close(m_read);
        ::close(m_write);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int readEnd() const { return m_read; }
    int writeEnd() const { return m_write; }

private:
    int m_read = -1;
    int m_write = -1;
};

std::atomic<int> klSignalWatcher::s_writeEnd{-1};
std::atomic<bool> klSignalWatcher::s_exitOnSecond{false};
std::atomic<int> klSignalWatcher::s_received{0};

klSignalWatcher::klSignalWatcher(std::function<void(int)> action, bool exitOnSecond,
                                 std::vector<int> signals)
    : m_pipe(std::make_unique<Pipe>()), m_action(std::move(action)) {
    m_thread = std::thread([this] { watch(); });
    s_received = 0;
    s_exitOnSecond = exitOnSecond;
    s_writeEnd = m_pipe->writeEnd();
    struct sigaction handler {};
    handler.sa_handler = &klSignalWatcher::onSignal;
    sigemptyset(&handler.sa_mask);
    handler.sa_flags = SA_RESTART;
    for (const int signal : signals) {
        struct sigaction previous {};
        ::sigaction(signal, &handler, &previous);
        m_previous.emplace_back(signal, previous);
    }
}

klSignalWatcher::~klSignalWatcher() {
    for (const auto& [signal, previous] : m_previous) {
        ::sigaction(signal, &previous, nullptr);
    }
    s_writeEnd = -1;
    const unsigned char quit = 0;
    while (::write(m_pipe->writeEnd(), &quit, 1) < 0 && errno == EINTR) {
    }
    m_thread.join();
}

void klSignalWatcher::onSignal(int signal) {
    const int savedErrno = errno;
    if (s_received.fetch_add(1) > 0 && s_exitOnSecond.load()) {
        ::_exit(128 + signal);
    }
    const int fd = s_writeEnd.load();
    if (fd >= 0) {
        const unsigned char number = static_cast<unsigned char>(signal);
        const ssize_t ignored = ::write(fd, &number, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

void klSignalWatcher::watch() {
    for (;;) {
        unsigned char number = 0;
        const ssize_t n = ::read(m_pipe->readEnd(), &number, 1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        // 0 is the destructor's quit byte.
        if (n != 1 || number == 0) {
            return;
        }
        m_action(number);
    }
}
