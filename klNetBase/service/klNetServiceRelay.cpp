// klNetService: relays, which connect a client through this service to another service.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>

#include <klLog.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>

namespace {

constexpr double kRelayConnectTimeout = 5.0;

}  // namespace

using klNetServiceDetail::readString;
using klNetServiceDetail::textOf;

void klNetService::connectService(klNetStream& stream, Request& request) {
    const std::string host = readString(stream);
    std::uint32_t port = 0;
    stream >> port;
    // Without targets of its own the service resolves nothing and connects nowhere, so that a
    // client can use it neither as a proxy nor to probe the network behind it.
    if (m_relayTargets.isEmpty()) {
        countRefusal("relay-disabled");
        throw klNetError("Relaying is not enabled on this service");
    }
    const klSocketAddress address(host, int(port));
    if (!m_relayTargets.allows(address.getSockAddr())) {
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
        relay->client = stream.getFirstLink();
        auto target = std::make_shared<klSocketLink>(address, kRelayConnectTimeout);
        if (m_keepAliveOn) {
            target->setKeepAlive(m_keepAlive);
        }
        if (m_sealer) {
            m_sealer->connect(*target, kRelayConnectTimeout);
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
        // Answer before the relay starts, so that the answer and relayed buffers never share the
        // client's socket at the same time.
        stream.sendSuccess();
        stream.flush();
    } catch (...) {
        relayEnded();
        throw;
    }
    {
        std::lock_guard<std::mutex> guard(m_metricsLock);
        ++m_metrics.relaysOpened;
    }
    request.outcome = textOf("relaying to ", address.getName(), " port ", port);
    const auto idle = std::chrono::duration_cast<Relay::Clock::duration>(
        std::chrono::duration<double>(m_relayIdleTimeout));
    relay->idleTimer = m_timer->schedule(Relay::Clock::now() + idle, [relay, idle] {
        const auto quietUntil = relay->lastActive() + idle;
        if (Relay::Clock::now() < quietUntil) {
            return quietUntil;
        }
        relay->close();
        return klNetDeadlineTimer::kDone;
    });
    relay->threads = 2;
    for (const bool toTarget : {true, false}) {
        try {
            std::thread([this, relay, toTarget] {
                connectLinks(relay, toTarget ? relay->client : relay->target,
                             toTarget ? relay->target : relay->client);
            }).detach();
        } catch (const std::exception& e) {
            // The other direction, if it runs, ends as soon as its link is shut.
            klLog::error("Unable to start a relay thread: %s\n", e.what());
            relay->close();
            if (--relay->threads == 0) {
                m_timer->cancel(relay->idleTimer);
                relayEnded();
            }
        }
    }
}

void klNetService::connectLinks(const std::shared_ptr<Relay>& relay,
                                const std::shared_ptr<klNetLink>& from,
                                const std::shared_ptr<klNetLink>& to) {
    try {
        std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
        for (;;) {
            from->recv(buffer);
            to->send(buffer);
            m_bytesRelayed += buffer->getBufferSize();
            relay->lastActivity = Relay::Clock::now().time_since_epoch().count();
        }
    } catch (const std::exception&) {
        // One side has gone (or the relay was idle too long, or the service stops): end the
        // other direction too, so that neither thread nor socket outlives the relay.
    }
    relay->close();
    if (--relay->threads == 0) {
        m_timer->cancel(relay->idleTimer);
        relayEnded();
    }
}

void klNetService::relayEnded() {
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        --m_activeRelays;
        m_relays.erase(
            std::remove_if(m_relays.begin(), m_relays.end(),
                           [](const std::weak_ptr<Relay>& relay) { return relay.expired(); }),
            m_relays.end());
    }
    m_requestsChanged.notify_all();
}
