#include <klNetBase/link/klSocketPipe.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/detail/klNetWipe.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>
#include <thread>

namespace {

constexpr int kOpenAttempts = 10;
constexpr auto kOpenRetryDelay = std::chrono::milliseconds(200);

// Text of a random (version 4) GUID: "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}".
std::string newGuidText() {
    unsigned char bytes[16];
    std::size_t filled = 0;
    while (filled < sizeof(bytes)) {
        const ssize_t n = ::getrandom(bytes + filled, sizeof(bytes) - filled, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            throw klNetError(std::ostringstream()
                             << "Unable to create unique pipe name. " << "Error:" << errno);
        }
        filled += std::size_t(n);
    }
    // Version 4 in the high nibble of the third field (stored little-endian), RFC 4122 variant.
    bytes[7] = std::uint8_t((bytes[7] & 0x0F) | 0x40);
    bytes[8] = std::uint8_t((bytes[8] & 0x3F) | 0x80);
    std::uint32_t data1;
    std::uint16_t data2, data3;
    std::memcpy(&data1, bytes, 4);
    std::memcpy(&data2, bytes + 4, 2);
    std::memcpy(&data3, bytes + 6, 2);
    char text[39];
    std::snprintf(text, sizeof(text), "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned long>(data1), data2, data3, bytes[8], bytes[9], bytes[10],
                  bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return text;
}

const char* const kNamePrefix = "kaldService-";

// Whether name is exactly kNamePrefix and a GUID as newGuidText writes it.
bool isPipeName(const std::string& name) {
    const std::string shape = "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}";
    const std::size_t prefix = std::strlen(kNamePrefix);
    if (name.size() != prefix + shape.size() || name.compare(0, prefix, kNamePrefix) != 0) {
        return false;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const char c = name[prefix + i];
        const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
        if (shape[i] == 'X' ? !hex : c != shape[i]) {
            return false;
        }
    }
    return true;
}

// The address of a socket file; false when the path does not fit.
bool addressOf(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

// Milliseconds for poll: -1 (no limit) for 0 or less, whole milliseconds otherwise.
int pollMilliseconds(double seconds) {
    if (!(seconds > 0.0)) {
        return -1;
    }
    const double ms = std::floor(seconds * 1000.0);
    return ms > double(std::numeric_limits<int>::max()) ? std::numeric_limits<int>::max()
                                                        : int(ms);
}

// One whole packet of exactly size bytes; false on failure or a short packet.
bool sendPacket(int fd, const void* data, std::size_t size) {
    ssize_t n;
    do {
        n = ::send(fd, data, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == ssize_t(size);
}

// One packet of exactly size bytes. 0 means the peer closed, -1 a failure or a packet of
// another size.
int recvPacket(int fd, void* data, std::size_t size) {
    ssize_t n;
    do {
        n = ::recv(fd, data, size, MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    if (n == 0) {
        return 0;
    }
    return n == ssize_t(size) ? 1 : -1;
}

void closeIfValid(klSocketHandle& fd) {
    if (fd != klInvalidSocket) {
        ::close(fd);
        fd = klInvalidSocket;
    }
}

}  // namespace

klSocketPipe::klSocketPipe(bool) : m_serviceSide(true) {
    m_name = getDirectory() + "/" + kNamePrefix + newGuidText();
    // Bound and made ready under a name of its own first, then renamed: under its real name the
    // pipe always listens, so a service cleaning up stale pipes never takes it for one.
    const std::string preparing = m_name + ".new";
    // A constructor that throws gets no destructor: everything opened so far is closed here.
    const auto fail = [this](int error) {
        closeDescriptors();
        closeIfValid(m_shutdownEvent);
        throw klNetError("CreateNamedPipe failed. Error:" + klNetError::getErrorString(error));
    };
    sockaddr_un address;
    if (!addressOf(preparing, address)) {
        fail(ENAMETOOLONG);
    }
    m_shutdownEvent = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_shutdownEvent < 0) {
        fail(errno);
    }
    m_descriptor = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (m_descriptor < 0) {
        fail(errno);
    }
    if (::bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail(errno);
    }
    // Owner only, before anyone can connect: connecting needs write access to the file, and
    // nobody is accepted before listen().
    if (::chmod(preparing.c_str(), S_IRUSR | S_IWUSR) != 0 || ::listen(m_descriptor, 4) != 0 ||
        ::rename(preparing.c_str(), m_name.c_str()) != 0) {
        const int error = errno;
        ::unlink(preparing.c_str());
        fail(error);
    }
}

klSocketPipe::klSocketPipe(std::string name) : m_name(std::move(name)), m_serviceSide(false) {
    const auto fail = [this](const std::string& cause) {
        closeDescriptors();
        closeIfValid(m_shutdownEvent);
        throw klNetError("Unable to connect to named pipe. " + cause);
    };
    sockaddr_un address;
    if (!addressOf(m_name, address)) {
        fail(klNetError::getErrorString(ENAMETOOLONG));
    }
    m_shutdownEvent = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_shutdownEvent < 0) {
        fail(klNetError::getLastErrorString());
    }
    for (int attempt = 1;; ++attempt) {
        m_descriptor = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (m_descriptor < 0) {
            fail(klNetError::getLastErrorString());
        }
        if (::connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address),
                      sizeof(address)) == 0) {
            return;
        }
        const int error = errno;
        closeIfValid(m_descriptor);
        // A refused or full backlog is the busy pipe of the service: it has not listened yet or
        // is taking another server's connection.
        if ((error != ECONNREFUSED && error != EAGAIN) || attempt == kOpenAttempts) {
            fail(klNetError::getErrorString(error));
        }
        std::this_thread::sleep_for(kOpenRetryDelay);
    }
}

klSocketPipe::~klSocketPipe() {
    closeDescriptors();
    closeIfValid(m_shutdownEvent);
    if (m_serviceSide) {
        ::unlink(m_name.c_str());
    }
}

void klSocketPipe::closeDescriptors() {
    closeIfValid(m_connection);
    closeIfValid(m_descriptor);
}

bool klSocketPipe::waitReadable(klSocketHandle fd, double timeoutSeconds) {
    pollfd fds[2] = {{m_shutdownEvent, POLLIN, 0}, {fd, POLLIN, 0}};
    const int limitMs = pollMilliseconds(timeoutSeconds);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(limitMs, 0));
    for (;;) {
        int waitMs = limitMs;
        if (limitMs >= 0) {
            waitMs = int(std::max<long long>(
                0, std::chrono::duration_cast<std::chrono::milliseconds>(
                       deadline - std::chrono::steady_clock::now())
                       .count()));
        }
        const int ready = ::poll(fds, 2, waitMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            throw klNetError("WSAPoll(...):" + klNetError::getLastErrorString());
        }
        if (fds[0].revents != 0) {
            throw klConnectionClosed();
        }
        return ready > 0;
    }
}

std::string klSocketPipe::getDirectory() {
    const char* dir = std::getenv("XDG_RUNTIME_DIR");
    return dir != nullptr && dir[0] == '/' ? dir : "/tmp";
}

int klSocketPipe::removeStaleFiles() {
    const std::string directory = getDirectory();
    DIR* const listing = ::opendir(directory.c_str());
    if (listing == nullptr) {
        return 0;
    }
    int removed = 0;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string path = directory + "/" + entry->d_name;
        struct stat file {};
        sockaddr_un address;
        if (!isPipeName(entry->d_name) || ::lstat(path.c_str(), &file) != 0 ||
            !S_ISSOCK(file.st_mode) || file.st_uid != ::getuid() || !addressOf(path, address)) {
            continue;
        }
        const int probe = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (probe < 0) {
            break;
        }
        // Refused: nobody listens. A listener that answers, or whose backlog is full, is alive;
        // it drops this connection, which closes without a word.
        const bool stale =
            ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
            errno == ECONNREFUSED;
        ::close(probe);
        if (stale && ::unlink(path.c_str()) == 0) {
            ++removed;
        }
    }
    ::closedir(listing);
    return removed;
}

void klSocketPipe::acceptServer(double timeoutSeconds) {
    for (;;) {
        acceptConnection(timeoutSeconds);
        std::uint32_t processId = 0;
        const int received = waitReadable(m_connection, timeoutSeconds)
                                 ? recvPacket(m_connection, &processId, sizeof(processId))
                                 : -1;
        if (received == 1) {
            m_peerProcessId = processId;
            m_connected = true;
            return;
        }
        // Start over with the next server to open the pipe.
        closeIfValid(m_connection);
        if (received != 0) {
            throw klNetError("Unable to read process id");
        }
        // Closed without a word: a probe of removeStaleFiles, not a server.
    }
}

void klSocketPipe::acceptConnection(double timeoutSeconds) {
    while (m_connection == klInvalidSocket) {
        if (!waitReadable(m_descriptor, timeoutSeconds)) {
            throw klConnectionTimeout();
        }
        const int fd = ::accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED) {
                continue;
            }
            throw klNetError("Unable to connect pipe");
        }
        // Only a process of our own user may receive our clients' sockets.
        ucred peer{};
        socklen_t size = sizeof(peer);
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
            peer.uid != ::getuid()) {
            ::close(fd);
            throw klNetError("Unable to connect pipe");
        }
        m_connection = fd;
    }
}

void klSocketPipe::sendSocket(klSocketHandle socket, double timeoutSeconds,
                              const std::string& sealState) {
    if (sealState.size() > kMaxSealState) {
        throw klNetError("Unable to pass socket to server");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_descriptor == klInvalidSocket) {
        throw klConnectionClosed();
    }
    if (!m_connected) {
        acceptServer(timeoutSeconds);
    }
    if (::fcntl(socket, F_GETFD) < 0) {
        throw klNetError("Unable to duplicate socket: " + klNetError::getLastErrorString());
    }

    const std::uint64_t value = std::uint64_t(socket);
    iovec data[2] = {{const_cast<std::uint64_t*>(&value), sizeof(value)},
                     {const_cast<char*>(sealState.data()), sealState.size()}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = data;
    message.msg_iovlen = sealState.empty() ? 1 : 2;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &socket, sizeof(int));
    ssize_t sent;
    do {
        sent = ::sendmsg(m_connection, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent != ssize_t(sizeof(value) + sealState.size())) {
        throw klNetError("Unable to pass socket to server");
    }

    std::uint64_t acknowledgement = 0;
    if (!waitReadable(m_connection, -1.0) ||
        recvPacket(m_connection, &acknowledgement, sizeof(acknowledgement)) != 1 ||
        acknowledgement != value) {
        throw klNetError("Error on socket transfer to server");
    }
}

klSocketHandle klSocketPipe::recvSocket(double timeoutSeconds, std::string* sealState) {
    if (m_descriptor == klInvalidSocket) {
        throw klConnectionClosed();
    }
    if (!m_connected) {
        const std::uint32_t processId = std::uint32_t(::getpid());
        if (!sendPacket(m_descriptor, &processId, sizeof(processId))) {
            throw klNetError("Unable to send process id");
        }
        m_peerProcessId = processId;
        m_connected = true;
    }
    // Nothing is consumed before the message has arrived, so a call that times out leaves the
    // same message to be read by the next one.
    m_readPending = true;
    if (!waitReadable(m_descriptor, timeoutSeconds)) {
        throw klConnectionTimeout();
    }
    m_readPending = false;

    std::uint64_t value = 0;
    char state[kMaxSealState];
    // The state holds a connection's keys: no copy outlives this call but the caller's.
    const klNetDetail::WipeOnExit wiped(state, sizeof(state));
    iovec data[2] = {{&value, sizeof(value)}, {state, sizeof(state)}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)] = {};
    msghdr message{};
    message.msg_iov = data;
    message.msg_iovlen = 2;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t received;
    do {
        received = ::recvmsg(m_descriptor, &message, MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    const int error = errno;

    // Take every descriptor that came along, so that none leaks, and keep exactly one. An empty
    // packet, which reads like the end of the pipe, may carry descriptors too.
    klSocketHandle socket = klInvalidSocket;
    bool extra = false;
    for (cmsghdr* c = received >= 0 ? CMSG_FIRSTHDR(&message) : nullptr; c != nullptr;
         c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            if (socket == klInvalidSocket) {
                socket = fd;
            } else {
                ::close(fd);
                extra = true;
            }
        }
    }
    if (received == 0 || (received < 0 && (error == ECONNRESET || error == EPIPE))) {
        if (socket != klInvalidSocket) {
            ::close(socket);
        }
        throw klConnectionClosed();
    }
    const bool sealed = received > ssize_t(sizeof(value));
    if (received < ssize_t(sizeof(value)) || (sealed && sealState == nullptr) ||
        (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) || socket == klInvalidSocket || extra) {
        if (socket != klInvalidSocket) {
            ::close(socket);
        }
        throw klNetError("Error waiting for new socket");
    }
    if (!sendPacket(m_descriptor, &value, sizeof(value))) {
        ::close(socket);
        throw klNetError("Unable acknowledge received socket");
    }
    if (sealState != nullptr) {
        sealState->assign(state, sealed ? std::size_t(received) - sizeof(value) : 0);
    }
    return socket;
}

void klSocketPipe::shutdown() {
    // Wake first: a sendSocket() waiting for the server holds the mutex.
    const std::uint64_t one = 1;
    if (m_shutdownEvent != klInvalidSocket) {
        [[maybe_unused]] const ssize_t n = ::write(m_shutdownEvent, &one, sizeof(one));
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_serviceSide) {
        closeDescriptors();
    }
}
