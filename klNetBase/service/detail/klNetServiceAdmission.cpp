#include <klNetBase/service/detail/klNetServiceAdmission.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klSocketLink.h>

#include <klLog.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

using Clock = klNetServiceAdmission::Clock;

namespace {

constexpr auto kFirstRetryPause = std::chrono::milliseconds(10);
constexpr auto kLastRetryPause = std::chrono::milliseconds(1000);
// Connections taken per wake-up of the listener, so that a flood of connects cannot starve the
// handshakes in progress.
constexpr int kAcceptsPerWake = 64;
constexpr int kEventsPerWait = 64;

Clock::duration durationOf(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// An accepted connection with the settings of every connection the service takes: Nagle off and
// a 1-second linger, as a link accepted by blocking gets them.
class AcceptedLink final : public klSocketLink {
public:
    explicit AcceptedLink(int descriptor) : klSocketLink(descriptor) {
        setDelay(false);
        setLinger(true, 1);
    }
};

// The numeric address of the peer, for the log.
std::string peerName(klSocketLink& link) {
    try {
        return link.getPeerAddress().getName();
    } catch (const std::exception&) {
        return "an unknown peer";
    }
}

bool wouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

// One read of at most size bytes that never waits: the count read, 0 when nothing is there yet,
// -1 when the peer has closed or failed.
ssize_t readNow(int descriptor, void* into, std::size_t size, int flags = 0) {
    for (;;) {
        const ssize_t got = ::recv(descriptor, into, size, flags | MSG_DONTWAIT);
        if (got > 0) {
            return got;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return got < 0 && wouldBlock(errno) ? 0 : -1;
    }
}

}  // namespace

// A connection in its handshake.
struct klNetServiceAdmission::Pending {
    enum class Stage { kGreeting, kSealing, kCommand };

    std::unique_ptr<klSocketLink> link;
    int descriptor = -1;  // kept: a refused link forgets its own
    std::string peer;
    Clock::time_point accepted;
    Stage stage = Stage::kGreeting;
    unsigned char greeting[4] = {};
    std::size_t greetingSize = 0;
    // The sealer its handshake began with: a reload may replace the service's, and the acceptance
    // needs its own to live on.
    std::shared_ptr<klNetLinkSealer> sealer;
    std::unique_ptr<klNetLinkSealer::Acceptance> acceptance;
    std::string received;  // the peer's answer to the hello, so far
};

klNetServiceAdmission::klNetServiceAdmission(int listener, Settings settings,
                                             const klNetNodeNames& names, Callbacks callbacks)
    : m_listener(listener),
      m_settings(std::move(settings)),
      m_names(names),
      m_callbacks(std::move(callbacks)),
      m_handshakeTime(durationOf(std::min(m_settings.handshakeTimeout, m_settings.requestTimeout))),
      m_requestTime(durationOf(m_settings.requestTimeout)),
      m_epoll(::epoll_create1(EPOLL_CLOEXEC)),
      m_event(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!m_epoll.valid() || !m_event.valid()) {
        throw klNetError("Unable to wait for connections. " + klNetError::getLastErrorString());
    }
    // Half the descriptors at most: the other half serve requests, relays, servers' pipes.
    rlimit limit{};
    std::size_t cap = std::size_t(std::max(m_settings.maxHandshakes, 1));
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        cap = std::min(cap, std::max<std::size_t>(16, std::size_t(limit.rlim_cur / 2)));
    }
    m_cap = cap;
    for (const int fd : {m_listener, m_event.get()}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
            throw klNetError("Unable to wait for connections. " + klNetError::getLastErrorString());
        }
    }
}

klNetServiceAdmission::~klNetServiceAdmission() = default;

void klNetServiceAdmission::stop() {
    m_stopping = true;
    wake();
}

void klNetServiceAdmission::wake() {
    const std::uint64_t one = 1;
    // A full counter is as good as a write: the loop wakes either way.
    [[maybe_unused]] const ssize_t written = ::write(m_event.get(), &one, sizeof(one));
}

void klNetServiceAdmission::run() {
    epoll_event events[kEventsPerWait];
    while (!m_stopping) {
        const Clock::time_point now = Clock::now();
        closeLate(now);
        admitWaiting();
        m_waiting = m_proven.size();
        const bool listening = held() < m_cap || !m_pending.empty();
        listen(listening && now >= m_retryAccept);
        const int ready =
            ::epoll_wait(m_epoll.get(), events, kEventsPerWait, waitMilliseconds(now));
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw klNetError("Unable to wait for connections. " + klNetError::getLastErrorString());
        }
        bool accept = false;
        for (int i = 0; i < ready && !m_stopping; ++i) {
            const int fd = events[i].data.fd;
            if (fd == m_event.get()) {
                std::uint64_t count = 0;
                [[maybe_unused]] const ssize_t got = ::read(fd, &count, sizeof(count));
            } else if (fd == m_listener) {
                accept = true;  // after the connections, which are further on
            } else if (const auto found = m_byDescriptor.find(fd); found != m_byDescriptor.end()) {
                const auto pending = found->second;
                switch (advance(*pending)) {
                    case Step::kWait:
                        break;
                    case Step::kProven:
                        prove(pending);
                        break;
                    case Step::kClosed:
                        close(pending);
                        break;
                }
            }
        }
        if (accept && !m_stopping) {
            acceptWaiting();
        }
    }
}

void klNetServiceAdmission::listen(bool on) {
    if (on == m_listening) {
        return;
    }
    epoll_event event{};
    event.events = on ? std::uint32_t(EPOLLIN) : 0u;
    event.data.fd = m_listener;
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, m_listener, &event) == 0) {
        m_listening = on;
    }
}

int klNetServiceAdmission::waitMilliseconds(Clock::time_point now) const {
    Clock::time_point next = Clock::time_point::max();
    if (!m_pending.empty()) {
        next = m_pending.front().accepted + m_handshakeTime;
    }
    if (!m_proven.empty()) {
        next = std::min(next, m_proven.front().accepted + m_requestTime);
    }
    if (!m_listening && m_retryAccept > now) {
        next = std::min(next, m_retryAccept);
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    if (next <= now) {
        return 0;
    }
    // Rounded up, so that the wait does not end just before the deadline it waits for.
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return int(std::min<long long>(wait, 60 * 1000));
}

void klNetServiceAdmission::acceptWaiting() {
    for (int i = 0; i < kAcceptsPerWake && !m_stopping; ++i) {
        if (held() >= m_cap) {
            if (m_pending.empty()) {
                return;  // every one held is proven: the rest wait in the backlog
            }
            closeOldest("handshake-limit", "too many connections in their handshake");
        }
        const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            if (m_starved) {
                m_starved = false;
                klLog::info("Accepting connections again\n");
            }
            m_retryPause = {};
            take(fd);
            continue;
        }
        const int error = errno;
        // None left, the client gave up before it was taken, or a signal came.
        if (wouldBlock(error) || error == ECONNABORTED || error == EPROTO || error == EINTR) {
            if (wouldBlock(error)) {
                return;
            }
            continue;
        }
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            // Said once per shortage, so that a node in trouble is visible without flooding its
            // log.
            if (!m_starved) {
                m_starved = true;
                klLog::error("Unable to accept incomming connection. %s (retrying)\n",
                             klNetError::getErrorString(error).c_str());
            }
            // The oldest connection that has not shown what it is makes room; without one the
            // connection stays queued and accepting pauses, longer while the shortage lasts.
            if (!m_pending.empty()) {
                closeOldest("handshake-limit", "out of descriptors");
                continue;
            }
            m_retryPause = std::min<Clock::duration>(
                m_retryPause == Clock::duration{} ? kFirstRetryPause : m_retryPause * 2,
                kLastRetryPause);
            m_retryAccept = Clock::now() + m_retryPause;
            listen(false);
            return;
        }
        throw klNetError("Unable to accept incomming connection. " +
                         klNetError::getErrorString(error));
    }
}

void klNetServiceAdmission::take(int descriptor) {
    Pending pending;
    pending.descriptor = descriptor;
    pending.accepted = Clock::now();
    try {
        pending.link = std::make_unique<AcceptedLink>(descriptor);
    } catch (const std::exception& e) {
        // The link's destructor has closed the descriptor.
        klLog::debug("Dropped a connection: %s\n", e.what());
        return;
    }
    pending.peer = peerName(*pending.link);
    try {
        if (!m_callbacks.allows(pending.link->getPeerAddress())) {
            klLog::warning("Refused connection from %s: not an allowed peer\n",
                           pending.peer.c_str());
            m_callbacks.refused("peer");
            return;
        }
        if (m_settings.keepAliveOn) {
            pending.link->setKeepAlive(m_settings.keepAlive);
        }
    } catch (const std::exception& e) {
        klLog::debug("Dropped the connection from %s: %s\n", pending.peer.c_str(), e.what());
        return;
    }
    epoll_event event{};
    // Edge-triggered: a connection that has sent part of what it owes is not reported again
    // until more arrives.
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    event.data.fd = descriptor;
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        klLog::debug("Dropped the connection from %s: %s\n", pending.peer.c_str(),
                     klNetError::getLastErrorString().c_str());
        return;
    }
    m_pending.push_back(std::move(pending));
    const auto added = std::prev(m_pending.end());
    m_byDescriptor[descriptor] = added;
    // Its first bytes may have come with the connection.
    switch (advance(*added)) {
        case Step::kWait:
            break;
        case Step::kProven:
            prove(added);
            break;
        case Step::kClosed:
            close(added);
            break;
    }
}

klNetServiceAdmission::Step klNetServiceAdmission::advance(Pending& pending) {
    try {
        for (;;) {
            switch (pending.stage) {
                case Pending::Stage::kGreeting: {
                    const ssize_t got =
                        readNow(pending.descriptor, pending.greeting + pending.greetingSize,
                                sizeof(pending.greeting) - pending.greetingSize);
                    if (got == 0) {
                        return Step::kWait;
                    }
                    if (got < 0) {
                        // A port scan, or a client that gave up.
                        klLog::debug("Connection from %s closed before its greeting\n",
                                     pending.peer.c_str());
                        return Step::kClosed;
                    }
                    pending.greetingSize += std::size_t(got);
                    if (pending.greetingSize == sizeof(pending.greeting)) {
                        const Step step = greet(pending);
                        if (step != Step::kWait) {
                            return step;
                        }
                    }
                    break;
                }
                case Pending::Stage::kSealing: {
                    const std::size_t missing = pending.acceptance->missing(pending.received);
                    if (missing == 0) {
                        pending.acceptance->finish(pending.received, *pending.link);
                        pending.acceptance.reset();
                        return Step::kProven;
                    }
                    const std::size_t had = pending.received.size();
                    pending.received.resize(had + missing);
                    const ssize_t got =
                        readNow(pending.descriptor, &pending.received[had], missing);
                    pending.received.resize(had + std::size_t(std::max<ssize_t>(got, 0)));
                    if (got == 0) {
                        return Step::kWait;
                    }
                    if (got < 0) {
                        // Gone without a word on its key: nothing to refuse.
                        klLog::debug("Connection from %s closed in its handshake\n",
                                     pending.peer.c_str());
                        return Step::kClosed;
                    }
                    break;
                }
                case Pending::Stage::kCommand: {
                    // The command is left for the request thread: only whether it is there.
                    unsigned char code[4];
                    const ssize_t got = readNow(pending.descriptor, code, sizeof(code), MSG_PEEK);
                    if (got == ssize_t(sizeof(code))) {
                        return Step::kProven;
                    }
                    if (got >= 0) {
                        return Step::kWait;
                    }
                    klLog::debug("Connection from %s closed before its request\n",
                                 pending.peer.c_str());
                    return Step::kClosed;
                }
            }
        }
    } catch (const std::exception& e) {
        // Only the handshake throws: a peer without the key, bytes no answer starts with, a send
        // that failed.
        klLog::warning("Refused connection from %s: %s\n", pending.peer.c_str(), e.what());
        m_callbacks.refused("key");
        return Step::kClosed;
    }
}

klNetServiceAdmission::Step klNetServiceAdmission::greet(Pending& pending) {
    std::uint32_t greeting = 0;
    std::memcpy(&greeting, pending.greeting, sizeof(greeting));
    pending.sealer = m_callbacks.sealer();
    if (!pending.sealer) {
        try {
            pending.link->send(&greeting, sizeof(greeting));
        } catch (const std::exception& e) {
            klLog::debug("Connection from %s lost at its greeting: %s\n", pending.peer.c_str(),
                         e.what());
            return Step::kClosed;
        }
        pending.stage = Pending::Stage::kCommand;
        return Step::kWait;
    }
    // A keyed service talks to sealed clients only, and says nothing to the others.
    if (greeting != klSocketLink::kSealedGreeting) {
        klLog::warning("Refused connection from %s: not sealed\n", pending.peer.c_str());
        m_callbacks.refused("unsealed");
        return Step::kClosed;
    }
    pending.acceptance = pending.sealer->startAccept(m_names);
    const std::string hello = pending.acceptance->hello();
    pending.link->send(hello.data(), hello.size());
    pending.stage = Pending::Stage::kSealing;
    return Step::kWait;
}

void klNetServiceAdmission::prove(std::list<Pending>::iterator pending) {
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, pending->descriptor, nullptr);
    m_byDescriptor.erase(pending->descriptor);
    Proven proven{std::move(pending->link), std::move(pending->peer), pending->accepted};
    m_pending.erase(pending);
    try {
        proven.link->setBlocking(true);
    } catch (const std::exception& e) {
        klLog::debug("Dropped the connection from %s: %s\n", proven.peer.c_str(), e.what());
        return;
    }
    // In the order of their accepts, which handshakes of different lengths do not keep.
    const auto later = std::upper_bound(
        m_proven.begin(), m_proven.end(), proven.accepted,
        [](Clock::time_point accepted, const Proven& other) { return accepted < other.accepted; });
    m_proven.insert(later, std::move(proven));
    admitWaiting();
}

void klNetServiceAdmission::admitWaiting() {
    while (!m_proven.empty() && m_callbacks.takeSlot()) {
        Proven proven = std::move(m_proven.front());
        m_proven.pop_front();
        m_callbacks.admit(std::move(proven.link), proven.accepted);
    }
}

void klNetServiceAdmission::close(std::list<Pending>::iterator pending) {
    // The link's destructor closes the descriptor, which takes it out of the epoll set.
    m_byDescriptor.erase(pending->descriptor);
    m_pending.erase(pending);
}

void klNetServiceAdmission::closeOldest(const char* reason, const char* why) {
    klLog::debug("Closed the connection from %s: %s\n", m_pending.front().peer.c_str(), why);
    m_callbacks.refused(reason);
    close(m_pending.begin());
}

void klNetServiceAdmission::closeLate(Clock::time_point now) {
    while (!m_pending.empty() && m_pending.front().accepted + m_handshakeTime <= now) {
        klLog::debug("Closed the connection from %s: handshake not done within %g s\n",
                     m_pending.front().peer.c_str(),
                     std::chrono::duration<double>(m_handshakeTime).count());
        m_callbacks.refused("handshake-timeout");
        close(m_pending.begin());
    }
    while (!m_proven.empty() && m_proven.front().accepted + m_requestTime <= now) {
        m_callbacks.expired(m_proven.front().peer, m_proven.front().accepted);
        m_proven.pop_front();
    }
}
