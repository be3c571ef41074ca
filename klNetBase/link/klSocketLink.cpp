#include <klNetBase/link/klSocketLink.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/detail/klNetWipe.h>
#include <klNetBase/link/detail/klSocketOps.h>
#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klSealedFrameError.h>
#include <klNetBase/link/klSocketPipe.h>
#include <klNetBase/serial/klNetStream.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <sstream>
#include <thread>

namespace {

// Header bytes an older peer sends and expects.
constexpr std::size_t kCompatibilityHeaderSize = 20;
// One more than the payload capacity: such a size can only come from a stream out of sync.
constexpr std::size_t kInvalidBufferSize = klNetBuffer::kCapacity + 1;
constexpr double kGreetingAnswerTimeout = 30.0;
constexpr auto kGreetingWait = std::chrono::milliseconds(2000);

}  // namespace

std::atomic<bool> klSocketLink::s_initialized{false};
std::mutex klSocketLink::s_closeMutex;

std::shared_ptr<klNetLink> klSocketLink::create(klNetStream& stream, klNetInterfaceOptions&, bool) {
    return stream.getFirstLink();
}

void klSocketLink::initialize() {
    // Every send passes MSG_NOSIGNAL, so there is no SIGPIPE to mask and nothing to start.
    s_initialized = true;
}

klSocketLink::klSocketLink(klSocketHandle descriptor) {
    initialize();
    setDescriptor(descriptor);
}

klSocketLink::klSocketLink(const klSocketAddress& address, double timeoutSeconds) {
    initialize();
    const klSocketHandle fd = ::socket(address.getFamily(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw klNetError("Unable to create socket. " + klNetError::getLastErrorString());
    }
    setDescriptor(fd);
    try {
        connectTo(address, timeoutSeconds);
    } catch (const std::exception& cause) {
        ::close(takeDescriptor());
        throw klNetError(std::ostringstream()
                         << "Unable to connect to '" << address.getName() << "' "
                         << "port:" << address.getPort() << ". " << cause.what());
    }
}

void klSocketLink::connectTo(const klSocketAddress& address, double timeoutSeconds) {
    useLoopbackFastPath();
    setDelay(false);
    setLinger(true, 1);
    setBlocking(false);
    if (::connect(getDescriptor(), address.getSockAddr(), socklen_t(address.getSockAddrSize())) !=
            0 &&
        errno != EINPROGRESS) {
        throw klNetError(klNetError::getLastErrorString());
    }
    if (!pollWritable(timeoutSeconds)) {
        throw klNetError(std::ostringstream()
                         << "connect timed out after " << static_cast<long long>(timeoutSeconds)
                         << " seconds.");
    }
    setBlocking(true);
}

klSocketLink::klSocketLink(const klBoundSocketLink& listener) {
    initialize();
    adoptConnected(listener.accept());
}

klSocketLink::klSocketLink(klSocketPipe& pipe, double timeoutSeconds) {
    initialize();
    std::string sealState;
    const klNetDetail::WipeOnExit wiped(sealState);
    adoptConnected(pipe.recvSocket(timeoutSeconds, &sealState));
    if (!sealState.empty()) {
        try {
            m_seal = klNetLinkSeal::restore(sealState);
        } catch (...) {
            ::close(takeDescriptor());
            throw;
        }
    }
}

void klSocketLink::adoptConnected(klSocketHandle descriptor) {
    setDescriptor(descriptor);
    try {
        setDelay(false);
        setLinger(true, 1);
    } catch (...) {
        // A constructor that throws gets no destructor.
        ::close(takeDescriptor());
        throw;
    }
}

void klSocketLink::sendDescriptor(klSocketPipe& pipe, double timeoutSeconds,
                                  std::uint64_t framesReserved) {
    setBlocking(true);
    std::string sealState = m_seal ? m_seal->exportState(framesReserved) : std::string();
    const klNetDetail::WipeOnExit wiped(sealState);
    pipe.sendSocket(getDescriptor(), timeoutSeconds, sealState);
}

void klSocketLink::setSeal(std::unique_ptr<klNetLinkSeal> seal) {
    if (seal && (hasCipher() || m_compatibilityMode)) {
        throw klNetError("A sealed link takes neither a cipher nor the compatibility framing");
    }
    m_seal = std::move(seal);
}

namespace {

// The clear frame of a sealed link: the wire header and the largest payload.
constexpr std::size_t kMaxClearFrame = klNetBuffer::kHeaderSize + 131602;

}  // namespace

void klSocketLink::sendSealed(const klNetBuffer& buffer) {
    const std::size_t clearSize = buffer.getBufferSize();
    const std::uint32_t sealedSize = std::uint32_t(clearSize + m_seal->overhead());
    m_sealedOut.resize(sizeof(sealedSize) + sealedSize);
    std::memcpy(m_sealedOut.data(), &sealedSize, sizeof(sealedSize));
    m_seal->seal(buffer.getBuffer(), clearSize, m_sealedOut.data(), sizeof(sealedSize),
                 m_sealedOut.data() + sizeof(sealedSize));
    send(m_sealedOut.data(), m_sealedOut.size());
}

void klSocketLink::recvSealed(klNetBuffer& buffer) {
    std::uint32_t sealedSize = 0;
    recv(&sealedSize, sizeof(sealedSize));
    const std::size_t overhead = m_seal->overhead();
    if (sealedSize < klNetBuffer::kHeaderSize + overhead ||
        sealedSize > kMaxClearFrame + overhead) {
        shutdown();
        throw klSealedFrameError(std::ostringstream()
                                 << "Received sealed frame of invalid size " << sealedSize
                                 << ". Possibly stream is out of sync.");
    }
    m_sealedIn.resize(sealedSize);
    recv(m_sealedIn.data(), sealedSize);
    const std::size_t clearSize = sealedSize - overhead;
    // Opened straight into the pool buffer; a frame that does not open is never delivered.
    if (!m_seal->open(m_sealedIn.data(), sealedSize,
                      reinterpret_cast<const unsigned char*>(&sealedSize), sizeof(sealedSize),
                      buffer.getBuffer()) ||
        buffer.getBufferSize() != clearSize) {
        shutdown();
        throw klSealedFrameError(
            "Sealed frame failed authentication: the connection was changed on its way");
    }
}

klSocketLink::~klSocketLink() {
    const klSocketHandle fd = m_descriptor.exchange(klInvalidSocket);
    if (fd != klInvalidSocket) {
        ::close(fd);
    }
    if (m_shutDescriptor != klInvalidSocket) {
        ::close(m_shutDescriptor);
    }
}

void klSocketLink::shutdown() {
    shutdownDescriptor(false);
}

void klSocketLink::shutdownDescriptor(bool closeNow) {
    std::lock_guard<std::mutex> lock(s_closeMutex);
    // Invalid first: a partial send or receive on another thread stops at its next round.
    const klSocketHandle fd = m_descriptor.exchange(klInvalidSocket);
    if (fd == klInvalidSocket) {
        return;
    }
    ::shutdown(fd, SHUT_RDWR);
    if (closeNow) {
        ::close(fd);
    } else {
        m_shutDescriptor = fd;
    }
}

klSocketHandle klSocketLink::takeDescriptor() {
    return m_descriptor.exchange(klInvalidSocket);
}

void klSocketLink::checkAlive() {
    if (getDescriptor() == klInvalidSocket) {
        throw klConnectionClosed();
    }
}

void klSocketLink::send(const std::shared_ptr<klNetBuffer>& buffer) {
    if (m_seal) {
        sendSealed(*buffer);
        return;
    }
    const std::shared_ptr<klNetBuffer> wire = encryptBuffer(buffer);
    if (!m_compatibilityMode) {
        send(wire->getBuffer(), wire->getBufferSize());
    } else {
        send(wire->getBuffer(), kCompatibilityHeaderSize);
        send(wire->getData(), wire->getDataSize());
    }
}

void klSocketLink::recvHeader(klNetBuffer& buffer) {
    if (!m_compatibilityMode) {
        recv(buffer.getBuffer(), klNetBuffer::getHeaderSize());
    } else {
        recv(buffer.getBuffer(), kCompatibilityHeaderSize);
        buffer.setMessageId(0);
        buffer.setMessageBufferCount(0);
    }
    // The size field is never ciphered, so it can be checked before deciphering.
    if (buffer.getDataSize() >= kInvalidBufferSize) {
        throw klNetError("Received invalid buffer size. Possibly stream is out of sync.");
    }
}

void klSocketLink::recv(std::shared_ptr<klNetBuffer>& buffer) {
    buffer = klNetBufferPool::pop();
    if (m_seal) {
        recvSealed(*buffer);
        return;
    }
    recvHeader(*buffer);
    recv(buffer->getData(), buffer->getDataSize());
    decryptBuffer(buffer);
}

void klSocketLink::sendFrom(const klNetHeader& header, const void* payload) {
    if (hasCipher() || m_compatibilityMode || m_seal) {
        klNetLink::sendFrom(header, payload);
        return;
    }
    iovec parts[2] = {{const_cast<klNetHeader*>(&header), sizeof(header)},
                      {const_cast<void*>(payload), header.dataSize}};
    sendParts(parts, 2);
}

bool klSocketLink::recvInto(void* target, std::size_t room, klNetMessageType type,
                            klNetHeader& header, std::shared_ptr<klNetBuffer>& buffer) {
    if (hasCipher() || m_seal) {  // the type is known only once the whole buffer is here
        recv(buffer);
        return false;
    }
    std::shared_ptr<klNetBuffer> received = klNetBufferPool::pop();
    recvHeader(*received);
    if (received->getType() == type && received->getDataSize() <= room) {
        recv(target, received->getDataSize());
        header = *received->getHeader();
        return true;
    }
    recv(received->getData(), received->getDataSize());
    buffer = std::move(received);
    return false;
}

void klSocketLink::send(const void* data, std::size_t length) {
    iovec part{const_cast<void*>(data), length};
    sendParts(&part, 1);
}

void klSocketLink::sendParts(iovec* parts, int count) {
    klSocketHandle fd = getDescriptor();
    if (fd == klInvalidSocket) {
        throw klConnectionClosed();
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size_t(count);
    for (;;) {
        while (message.msg_iovlen > 0 && message.msg_iov->iov_len == 0) {
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen == 0) {
            return;
        }
        const ssize_t sent =
            message.msg_iovlen == 1
                ? ::send(fd, message.msg_iov->iov_base, message.msg_iov->iov_len, MSG_NOSIGNAL)
                : ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0) {
            const int error = errno;
            if (error == EINTR && getDescriptor() != klInvalidSocket) {
                continue;
            }
            if (getDescriptor() == klInvalidSocket || error == EPIPE || error == ECONNRESET ||
                error == ECONNABORTED || error == EINTR) {
                throw klConnectionClosed();
            }
            throw klNetError("send error. " + klNetError::getErrorString(error));
        }
        // Advances over what went out; a partial write is rare on a blocking socket.
        for (std::size_t done = std::size_t(sent); done > 0;) {
            const std::size_t step = std::min(done, message.msg_iov->iov_len);
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + step;
            message.msg_iov->iov_len -= step;
            done -= step;
            if (message.msg_iov->iov_len == 0) {
                ++message.msg_iov;
                --message.msg_iovlen;
            }
        }
        if (message.msg_iovlen > 0 && getDescriptor() == klInvalidSocket) {
            throw klConnectionClosed();
        }
    }
}

void klSocketLink::recv(void* data, std::size_t length) {
    auto* next = static_cast<char*>(data);
    const klSocketHandle fd = getDescriptor();
    if (fd == klInvalidSocket) {
        throw klConnectionClosed();
    }
    while (length > 0) {
        const ssize_t received = ::recv(fd, next, length, 0);
        if (received > 0) {
            next += received;
            length -= std::size_t(received);
            if (length > 0 && getDescriptor() == klInvalidSocket) {
                throw klConnectionClosed();
            }
            continue;
        }
        if (received < 0 && errno == EINTR && getDescriptor() != klInvalidSocket) {
            continue;
        }
        if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            throw klConnectionTimeout(double(m_recvTimeoutMs.load()) / 1000.0);
        }
        throwRecvFailure(received == 0);
    }
}

void klSocketLink::throwRecvFailure(bool peerClosed) {
    const int error = errno;
    // Shut by another thread, closed by the peer in order, or reset: the peer is gone.
    const bool closed = peerClosed || getDescriptor() == klInvalidSocket || error == ECONNRESET ||
                        error == ECONNABORTED || error == EPIPE || error == EINTR;
    const std::string text = klNetError::getErrorString(error);
    shutdown();
    if (closed) {
        throw klConnectionClosed();
    }
    throw klNetError("recv error. " + text);
}

std::size_t klSocketLink::peekAvailable(void* data, std::size_t maxLength) {
    const std::size_t pending = std::size_t(getAvailable());
    const std::size_t wanted = std::min(pending, maxLength);
    if (wanted == 0) {
        return 0;
    }
    const ssize_t peeked = ::recv(getDescriptor(), data, wanted, MSG_PEEK);
    if (peeked < 0) {
        throw klNetError("peek error. " + klNetError::getLastErrorString());
    }
    return std::size_t(peeked);
}

bool klSocketLink::pollReadable(double seconds) {
    const klSocketHandle fd = getDescriptor();
    if (fd == klInvalidSocket) {
        throw klConnectionClosed();
    }
    short events = 0;
    const int timeoutMs = seconds < 0 ? -1 : int(seconds * 1000);
    if (klSocketOps::pollOne(fd, POLLIN | POLLRDHUP, timeoutMs, events) == 0) {
        if (const int error = klSocketOps::pendingError(fd)) {
            throw klNetError(klNetError::getErrorString(error));
        }
        return false;
    }
    // Hang-up or error bits mean the peer is gone, even when bytes are still pending.
    if (events != POLLIN) {
        throw klConnectionClosed();
    }
    return true;
}

bool klSocketLink::pollWritable(double seconds) {
    if (std::isnan(seconds)) {
        return false;
    }
    const klSocketHandle fd = getDescriptor();
    constexpr int kSliceMs = 500;
    double elapsed = 0.0;
    for (;;) {
        int slice = kSliceMs;
        if (seconds >= 0) {
            const long long left = static_cast<long long>((seconds - elapsed) * 1000);
            if (left < kSliceMs) {
                slice = left > 0 ? int(left) : 0;
            }
        }
        short events = 0;
        const int ready = klSocketOps::pollOne(fd, POLLOUT, slice, events);
        if (ready == 1 && events == POLLOUT) {
            return true;
        }
        if (const int error = klSocketOps::pendingError(fd)) {
            throw klNetError(klNetError::getErrorString(error));
        }
        if (ready == 1) {
            return false;
        }
        // A whole slice counts, even when it was cut short.
        elapsed += kSliceMs / 1000.0;
        if (seconds >= 0 && elapsed > seconds) {
            return false;
        }
    }
}

void klSocketLink::setDelay(bool delay) {
    klSocketOps::setIntOption(getDescriptor(), IPPROTO_TCP, TCP_NODELAY, delay ? 0 : 1,
                              "setsockopt(,SOCK_STREAM,TCP_NODELAY) ");
}

void klSocketLink::setBlocking(bool blocking) {
    const klSocketHandle fd = getDescriptor();
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 ||
        ::fcntl(fd, F_SETFL, blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK)) < 0) {
        throw klNetError("unable to change socket blocking mode:" +
                         klNetError::getLastErrorString());
    }
}

void klSocketLink::setRecvTimeout(double seconds) {
    const long long ms = static_cast<long long>(seconds * 1000);
    timeval timeout{};
    timeout.tv_sec = ms / 1000;
    timeout.tv_usec = (ms % 1000) * 1000;
    // As with keep-alive, a failure here leaves the link as it was and is not reported.
    if (::setsockopt(getDescriptor(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) == 0) {
        m_recvTimeoutMs = ms;
    }
}

void klSocketLink::setLinger(bool on, int seconds) {
    const linger value{on ? 1 : 0, seconds};
    if (::setsockopt(getDescriptor(), SOL_SOCKET, SO_LINGER, &value, sizeof(value)) != 0) {
        throw klNetError("setsockopt(,SOL_SOCKE,SO_LINGER) " + klNetError::getLastErrorString());
    }
}

void klSocketLink::setReusePort(bool on) {
    klSocketOps::setIntOption(getDescriptor(), SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0,
                              "setsockopt(,SOL_SOCKET,SO_REUSEADDR) ");
}

void klSocketLink::setIPv6Only(bool on) {
    klSocketOps::setIntOption(getDescriptor(), IPPROTO_IPV6, IPV6_V6ONLY, on ? 1 : 0,
                              "setsockopt(,IPPROTO_IPV6,IPV6_V6ONLY)");
}

void klSocketLink::setKeepAlive() {
    const klSocketHandle fd = getDescriptor();
    const int on = 1;
    const int idleSeconds = 120;
    const int intervalSeconds = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof(idleSeconds));
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof(intervalSeconds));
}

void klSocketLink::setKeepAlive(const klSocketKeepAlive& settings) {
    const klSocketHandle fd = getDescriptor();
    klSocketOps::setIntOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1,
                              "setsockopt(,SOL_SOCKET,SO_KEEPALIVE) ");
    klSocketOps::setIntOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, settings.idleSeconds,
                              "setsockopt(,IPPROTO_TCP,TCP_KEEPIDLE) ");
    klSocketOps::setIntOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, settings.intervalSeconds,
                              "setsockopt(,IPPROTO_TCP,TCP_KEEPINTVL) ");
    if (settings.probes > 0) {
        klSocketOps::setIntOption(fd, IPPROTO_TCP, TCP_KEEPCNT, settings.probes,
                                  "setsockopt(,IPPROTO_TCP,TCP_KEEPCNT) ");
    }
    if (settings.userTimeoutMs > 0) {
        klSocketOps::setIntOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, settings.userTimeoutMs,
                                  "setsockopt(,IPPROTO_TCP,TCP_USER_TIMEOUT) ");
    }
}

int klSocketLink::getAvailable() {
    return klSocketOps::bytesAvailable(getDescriptor());
}

int klSocketLink::getLastError() {
    return errno;
}

namespace {

// The address one of getsockname/getpeername reports for the socket.
klSocketAddress queryAddress(klSocketHandle fd, int (*query)(int, sockaddr*, socklen_t*),
                             const char* failure) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (query(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw klNetError(failure);
    }
    return klSocketAddress(reinterpret_cast<const sockaddr*>(&address));
}

}  // namespace

klSocketAddress klSocketLink::getAddress() {
    return queryAddress(getDescriptor(), ::getsockname, "Unable to get socket name");
}

klSocketAddress klSocketLink::getPeerAddress() {
    return queryAddress(getDescriptor(), ::getpeername, "Unable to get socket peer");
}

std::string klSocketLink::getLinkName() {
    return getAddress().getName() + "->" + getPeerAddress().getName();
}

std::unique_ptr<klSocketLink> klSocketLink::checkForHPCNetSocket(klSocketHandle descriptor) {
    auto link = std::make_unique<klSocketLink>(descriptor);
    std::uint32_t greeting = 0;
    std::size_t seen = 0;
    const auto deadline = std::chrono::steady_clock::now() + kGreetingWait;
    try {
        // Sleeps in poll() until bytes come, so that a greeting is seen the moment it arrives;
        // only the rest of a greeting that came in parts is waited for by short sleeps.
        bool readable = false;
        for (;;) {
            seen = link->peekAvailable(&greeting, sizeof(greeting));
            const auto now = std::chrono::steady_clock::now();
            if (seen == sizeof(greeting) || now >= deadline || (readable && seen == 0)) {
                break;  // a greeting, the end of the wait, or a peer that closed without one
            }
            if (seen > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
            short events = 0;
            readable = klSocketOps::pollOne(descriptor, POLLIN, int(left), events) > 0;
        }
    } catch (const std::exception&) {
        link->takeDescriptor();
        return nullptr;
    }
    if (seen < sizeof(greeting) || (greeting != kGreeting && greeting != kCompatibilityGreeting)) {
        // Not a link peer: leave the socket and its bytes to the caller.
        link->takeDescriptor();
        return nullptr;
    }
    link->setCompatibilityMode(greeting == kCompatibilityGreeting);
    link->setBlocking(true);
    link->setDelay(false);
    link->setLinger(true, 1);
    link->recv(&greeting, sizeof(greeting));
    link->send(&greeting, sizeof(greeting));
    return link;
}

void klSocketLink::signalHPCNetSocket() {
    const std::uint32_t greeting = kGreeting;
    send(&greeting, sizeof(greeting));
    setRecvTimeout(kGreetingAnswerTimeout);
    std::uint32_t answer = 0;
    recv(&answer, sizeof(answer));
    if (answer != kGreeting) {
        throw klNetError("Unexpected respnse from server");
    }
    setRecvTimeout(0.0);
}
