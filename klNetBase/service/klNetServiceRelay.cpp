// klNetService: relays, which connect a client through this service to another service.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>

#include <klLog.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>
#include <sstream>
#include <system_error>
#include <thread>

namespace {

constexpr double kRelayConnectTimeout = 5.0;

// Waits until link has bytes to read. False when its peer has finished sending: an orderly end
// between two buffers, which leaves the link open for sending. A link shut meanwhile throws.
bool moreToRead(klSocketLink& link) {
    for (;;) {
        const klSocketHandle descriptor = link.getDescriptor();
        if (descriptor == klInvalidSocket) {
            throw klConnectionClosed();
        }
        char next = 0;
        const ssize_t peeked = ::recv(descriptor, &next, 1, MSG_PEEK);
        if (peeked > 0) {
            return true;
        }
        if (peeked < 0 && errno == EINTR) {
            continue;
        }
        // A shutdown() by another thread also reads as an end: it is told apart by the link.
        if (peeked == 0 && link.getDescriptor() != klInvalidSocket) {
            return false;
        }
        throw klConnectionClosed();
    }
}

// Nothing more goes out on link; its peer reads what was sent, then the end. The link's
// descriptor stays open until the link is destroyed, so it cannot have been reused here.
void endSending(klSocketLink& link) {
    const klSocketHandle descriptor = link.getDescriptor();
    if (descriptor != klInvalidSocket) {
        ::shutdown(descriptor, SHUT_WR);
    }
}

}  // namespace

using klNetServiceDetail::readString;
using klNetServiceDetail::textOf;

void klNetService::connectService(klNetStream& stream, Request& request) {
    const std::string host = readString(stream);
    std::uint32_t port = 0;
    stream >> port;
    // Without targets of its own the service resolves nothing and connects nowhere, so that a
    // client can use it neither as a proxy nor to probe the network behind it.
    const klNetPeerFilter targets = relayTargets();
    if (targets.isEmpty()) {
        countRefusal("relay-disabled");
        throw klNetError("Relaying is not enabled on this service");
    }
    const klSocketAddress address(host, int(port));
    if (!targets.allows(address.getSockAddr())) {
        countRefusal("relay-target");
        throw klNetError("Relaying to " + address.getName() + " is not allowed");
    }
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        if (m_activeRelays >= m_maxRelays) {
            countRefusal("relay-limit");
            throw klNetError(std::ostringstream() << "Too many relays (" << m_maxRelays << ")");
        }
        ++m_activeRelays;
    }
    auto relay = std::make_shared<Relay>();
    try {
        relay->client = request.link;
        auto target = std::make_shared<klSocketLink>(address, kRelayConnectTimeout);
        if (m_keepAliveOn) {
            target->setKeepAlive(m_keepAlive);
        }
        if (const std::shared_ptr<klNetLinkSealer> sealer = linkSealer()) {
            sealer->connect(*target, klNetNodeNames::nameOf(host, int(port)),
                            kRelayConnectTimeout);
        } else {
            target->signalHPCNetSocket();
        }
        relay->target = std::move(target);
        endRequestTime(request);
        {
            // Listed only whole, and only while the service runs: shutdown() closes every relay
            // it finds listed, and refuses the rest here.
            std::lock_guard<std::mutex> guard(m_requestLock);
            if (!m_accepting) {
                throw klNetError("Service is shutting down");
            }
            m_relays.push_back(relay);
        }
        relay->client->setRecvTimeout(0.0);
    } catch (...) {
        relayEnded();
        throw;
    }
    // Both directions run before the client hears success, so that a relay that cannot run is
    // answered with an error. They wait for the answer to be out before they touch the client's
    // socket, so that the answer and relayed buffers never share it at the same time.
    std::promise<bool> answered;
    const std::shared_future<bool> go = answered.get_future().share();
    relay->threads = 1;  // this request's own hold, let go of once the relay runs or has failed
    const auto abandon = [&] {
        answered.set_value(false);
        relay->target->shutdown();
        leaveRelay(relay);
    };
    try {
        const auto idle = std::chrono::duration_cast<Relay::Clock::duration>(
            std::chrono::duration<double>(m_relayIdleTimeout.load()));
        relay->idleTimer = m_timer->schedule(Relay::Clock::now() + idle, [relay, idle] {
            const auto quietUntil = relay->lastActive() + idle;
            if (Relay::Clock::now() < quietUntil) {
                return quietUntil;
            }
            relay->close();
            return klNetDeadlineTimer::kDone;
        });
        for (const bool toTarget : {true, false}) {
            ++relay->threads;
            try {
                std::thread([this, relay, toTarget, go] {
                    connectLinks(relay, toTarget, go);
                }).detach();
            } catch (...) {
                --relay->threads;
                throw;
            }
        }
        stream.sendSuccess();
        stream.flush();
    } catch (const std::system_error& e) {
        abandon();
        throw klNetError(textOf("Unable to start the relay: ", e.what()));
    } catch (...) {
        abandon();
        throw;
    }
    answered.set_value(true);
    leaveRelay(relay);
    {
        std::lock_guard<std::mutex> guard(m_metricsLock);
        ++m_metrics.relaysOpened;
    }
    request.outcome = textOf("relaying to ", address.getName(), " port ", port);
}

void klNetService::connectLinks(const std::shared_ptr<Relay>& relay, bool toTarget,
                                const std::shared_future<bool>& go) {
    if (go.get()) {
        klSocketLink& from = toTarget ? *relay->client : *relay->target;
        klSocketLink& to = toTarget ? *relay->target : *relay->client;
        bool finished = false;
        try {
            std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
            while (moreToRead(from)) {
                from.recv(buffer);
                to.send(buffer);
                m_bytesRelayed += buffer->getBufferSize();
                relay->lastActivity = Relay::Clock::now().time_since_epoch().count();
            }
            finished = true;
        } catch (const std::exception&) {
            // One side has gone (or the relay was idle too long, or the service stops).
        }
        if (finished) {
            // This side has said all it had to say: its peer hears the end of it, and the other
            // direction carries on until it ends too.
            endSending(to);
        } else {
            // End the other direction too, so that neither thread nor socket outlives the relay.
            relay->close();
        }
    }
    leaveRelay(relay);
}

void klNetService::leaveRelay(const std::shared_ptr<Relay>& relay) {
    if (--relay->threads == 0) {
        m_timer->cancel(relay->idleTimer);
        relayEnded();
    }
}

void klNetService::relayEnded() {
    // Notified under the lock, as a request thread's end is: run() may return once it is 0.
    std::lock_guard<std::mutex> guard(m_requestLock);
    --m_activeRelays;
    m_relays.erase(
        std::remove_if(m_relays.begin(), m_relays.end(),
                       [](const std::weak_ptr<Relay>& relay) { return relay.expired(); }),
        m_relays.end());
    m_requestsChanged.notify_all();
}
