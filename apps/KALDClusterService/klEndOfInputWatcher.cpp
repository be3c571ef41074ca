#include "klEndOfInputWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

klEndOfInputWatcher::klEndOfInputWatcher(int fd, std::function<void()> action)
    : m_fd(fd), m_action(std::move(action)), m_quit(::eventfd(0, EFD_CLOEXEC)) {
    if (m_quit < 0) {
        throw std::runtime_error(std::string("cannot create an event: ") + std::strerror(errno));
    }
    m_thread = std::thread([this] { watch(); });
}

klEndOfInputWatcher::~klEndOfInputWatcher() {
    const std::uint64_t one = 1;
    while (::write(m_quit, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
    m_thread.join();
    ::close(m_quit);
}

void klEndOfInputWatcher::watch() {
    for (;;) {
        pollfd waits[2] = {{m_fd, POLLIN, 0}, {m_quit, POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;  // cannot watch any more: as good as an end
        }
        if (waits[1].revents != 0) {
            return;
        }
        // Readable, hung up or failed: read to tell which; POLLHUP alone may still have bytes.
        char dropped[4096];
        const ssize_t n = ::read(m_fd, dropped, sizeof(dropped));
        if (n > 0 || (n < 0 && (errno == EINTR || errno == EAGAIN))) {
            continue;
        }
        break;
    }
    m_action();
}
