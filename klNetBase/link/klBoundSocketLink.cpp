#include <klNetBase/link/klBoundSocketLink.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/detail/klSocketOps.h>

#include <klLog.h>

#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <sstream>

namespace {

constexpr int kBacklog = 128;

}  // namespace

klBoundSocketLink::klBoundSocketLink(int port) : klSocketLink(klInvalidSocket) {
    openShutdownEvent();
    sockaddr_storage address{};
    socklen_t length = 0;
    // The listening socket is non-blocking so that a connection that vanishes between the wake-up
    // and accept() cannot block the accepting thread where shutdown() could not reach it.
    klSocketHandle fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0) {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        v6.sin6_family = AF_INET6;
        v6.sin6_addr = in6addr_any;
        v6.sin6_port = htons(std::uint16_t(port));
        length = sizeof(v6);
    } else {
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            const std::string text = klNetError::getLastErrorString();
            ::close(m_shutdownEvent);
            throw klNetError("Unable to create socket. " + text);
        }
        auto& v4 = reinterpret_cast<sockaddr_in&>(address);
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_ANY);
        v4.sin_port = htons(std::uint16_t(port));
        length = sizeof(v4);
    }
    setDescriptor(fd);
    // The IPv6 wildcard takes IPv4 clients as well.
    bindAndListen(reinterpret_cast<const sockaddr*>(&address), length, port, false);
}

klBoundSocketLink::klBoundSocketLink(const klSocketAddress& address)
    : klSocketLink(klInvalidSocket) {
    openShutdownEvent();
    const klSocketHandle fd =
        ::socket(address.getFamily(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        const std::string text = klNetError::getLastErrorString();
        ::close(m_shutdownEvent);
        throw klNetError("Unable to create socket. " + text);
    }
    setDescriptor(fd);
    // An IPv6 address named on its own ("::" included) means IPv6 alone.
    bindAndListen(address.getSockAddr(), socklen_t(address.getSockAddrSize()), address.getPort(),
                  true);
}

void klBoundSocketLink::openShutdownEvent() {
    m_shutdownEvent = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_shutdownEvent < 0) {
        throw klNetError("Unable to create socket. " + klNetError::getLastErrorString());
    }
}

void klBoundSocketLink::bindAndListen(const sockaddr* address, socklen_t length, int port,
                                      bool ipv6Only) {
    try {
        if (address->sa_family == AF_INET6) {
            setIPv6Only(ipv6Only);
        }
        setReusePort(true);
        if (::bind(getDescriptor(), address, length) != 0) {
            throw klNetError(std::ostringstream() << "Unable to bind to port " << port << ". "
                                                  << klNetError::getLastErrorString());
        }
        useLoopbackFastPath();
        if (::listen(getDescriptor(), kBacklog) != 0) {
            throw klNetError("Unable to listen for incoming connections. " +
                             klNetError::getLastErrorString());
        }
    } catch (...) {
        ::close(takeDescriptor());
        ::close(m_shutdownEvent);
        throw;
    }
}

klBoundSocketLink::~klBoundSocketLink() {
    ::close(m_shutdownEvent);
}

void klBoundSocketLink::shutdown() {
    const std::uint64_t one = 1;
    // The event is signalled first: a thread that wakes from it never touches the listening
    // descriptor again, so closing it at once is safe and frees the port.
    ssize_t written = ::write(m_shutdownEvent, &one, sizeof(one));
    (void)written;
    shutdownDescriptor(true);
}

namespace {
constexpr int kFirstResourceRetryMs = 10;
constexpr int kLastResourceRetryMs = 1000;
}  // namespace

klSocketHandle klBoundSocketLink::accept() const {
    int retryMs = kFirstResourceRetryMs;
    for (;;) {
        const klSocketHandle fd = getDescriptor();
        if (fd == klInvalidSocket) {
            throw klConnectionClosed();
        }
        pollfd waits[2] = {{fd, POLLIN, 0}, {m_shutdownEvent, POLLIN, 0}};
        const int ready = ::poll(waits, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || waits[1].revents != 0 || (waits[0].revents & POLLIN) == 0) {
            throw klConnectionClosed();
        }
        const klSocketHandle accepted = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted >= 0) {
            if (m_starved) {
                m_starved = false;
                klLog::info("Accepting connections again\n");
            }
            return accepted;
        }
        if (getDescriptor() == klInvalidSocket) {
            throw klConnectionClosed();
        }
        // The client gave up before it was taken, or a signal came: wait for the next one.
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED || errno == EINTR ||
            errno == EPROTO) {
            continue;
        }
        // Out of descriptors or memory: the connection stays queued; try again after a pause
        // that grows while the shortage lasts, unless shutdown() comes meanwhile. Said once per
        // shortage, so that a node in trouble is visible without flooding its log.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            if (!m_starved) {
                m_starved = true;
                klLog::error("Unable to accept incomming connection. %s (retrying)\n",
                             klNetError::getLastErrorString().c_str());
            }
            pollfd shutdownWait{m_shutdownEvent, POLLIN, 0};
            ::poll(&shutdownWait, 1, retryMs);
            retryMs = std::min(retryMs * 2, kLastResourceRetryMs);
            continue;
        }
        throw klNetError("Unable to accept incomming connection. " +
                         klNetError::getLastErrorString());
    }
}
