#include "klServiceClient.h"

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/link/klSealedFrameError.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/serial/klNetStream.h>

#include "klVersionInfo.h"

#include <klNetBase/service/klNetService.h>

#include <cstdlib>

namespace {

// The service compares versions with this tolerance; the client must agree on which optional
// fields travel, or the service reads them out of step.
bool atLeast(const std::string& version, double threshold) {
    // Service-pack names ("SR1", "SR1.SP3") stand for versions below 9.0; atof reads them as 0,
    // which selects the same fields.
    return std::atof(version.c_str()) + 0.0001 >= threshold;
}

// The socket link reports "Unable to connect to '<address>' port:<port>. <cause>"; callers name
// the address themselves, so only the cause is kept.
std::string connectCause(const std::string& text) {
    static const std::string prefix = "Unable to connect to '";
    if (text.compare(0, prefix.size(), prefix) == 0) {
        const std::size_t port = text.find("' port:", prefix.size());
        const std::size_t end = port == std::string::npos ? port : text.find(". ", port);
        if (end != std::string::npos) {
            return text.substr(end + 2);
        }
    }
    return text;
}

void putFlag(klNetStream& stream, bool flag) {
    stream << std::uint8_t(flag ? 1 : 0);
}

}  // namespace

klServiceClient::klServiceClient(std::string host, int port)
    : m_host(std::move(host)),
      m_port(port),
      m_connectTimeout(klNetOptions::getConnectionTimeout()) {}

std::string klServiceClient::defaultVersion() {
    return klVersionInfo::the().getVersionString();
}

int klServiceClient::defaultPort() {
    return klNetOptions::getDefaultServicePort();
}

std::shared_ptr<klNetStream> klServiceClient::open(std::uint32_t command) const {
    std::shared_ptr<klSocketLink> link;
    try {
        link = std::make_shared<klSocketLink>(klSocketAddress(m_host, std::to_string(m_port)),
                                              m_connectTimeout);
        // The connection may go on to a render server and carry a long render: a node that is
        // gone without a word (power, cable, route) must be noticed in seconds, not hours.
        link->setKeepAlive(klSocketKeepAlive::deadPeerWithin15s());
        if (m_sealer) {
            m_sealer->connect(
                *link, m_nodeName.empty() ? klNetNodeNames::nameOf(m_host, m_port) : m_nodeName,
                m_recvTimeout);
            link->setRecvTimeout(m_recvTimeout);
        } else {
            // The greeting by hand rather than signalHPCNetSocket(), whose wait for the echo is
            // fixed: a service that accepts but never answers must be noticed within the
            // client's own time-out.
            const std::uint32_t greeting = klSocketLink::kGreeting;
            link->send(&greeting, sizeof(greeting));
            link->setRecvTimeout(m_recvTimeout);
            std::uint32_t echo = 0;
            link->recv(&echo, sizeof(echo));
            if (echo != greeting) {
                throw klNetError("Unexpected respnse from server");
            }
        }
    } catch (const klConnectionTimeout&) {
        throw;
    } catch (const std::exception& e) {
        // A service that refuses a peer (address not allowed, too many requests) hangs up at once:
        // to the client that is a connection that could not be made.
        throw klServiceConnectError(connectCause(e.what()));
    }
    auto stream = std::make_shared<klNetStream>(link);
    *stream << command;
    return stream;
}

void klServiceClient::finish(klNetStream& stream) {
    stream.flush();
    try {
        stream.recvResult();
    } catch (const klConnectionClosed&) {
        throw;
    } catch (const klConnectionTimeout&) {
        throw;
    } catch (const klSealedFrameError&) {
        throw;  // the answer was changed on its way: not the service's word
    } catch (const klNetError& e) {
        throw klServiceError(e.what());
    }
}

klNetServiceStatus klServiceClient::status() const {
    const auto stream = open(klNetService::kGetStatus);
    finish(*stream);
    klNetServiceStatus status;
    status.getValue(*stream);
    return status;
}

klServiceClient::StartResult klServiceClient::startServer(const StartRequest& request) const {
    const auto stream = open(klNetService::kStartServer);
    *stream << request.extraArgument << request.version << std::string();  // reserved
    if (atLeast(request.version, 9.0)) {
        putFlag(*stream, request.display);
    }
    putFlag(*stream, request.firstOption);
    putFlag(*stream, request.secondOption);
    putFlag(*stream, request.thirdOption);
    if (atLeast(request.version, 9.2)) {
        *stream << request.bookingId;
    }
    if (atLeast(request.version, 10.0)) {
        putFlag(*stream, request.stereo);
    }
    finish(*stream);
    StartResult result;
    *stream >> result.serverId >> result.freeMemory >> result.serverCount;
    result.stream = stream;
    return result;
}

std::shared_ptr<klNetStream> klServiceClient::connectServer(std::uint32_t serverId) const {
    const auto stream = open(klNetService::kConnectServer);
    *stream << serverId;
    finish(*stream);
    return stream;
}

void klServiceClient::stopServer(std::uint32_t serverId) const {
    const auto stream = open(klNetService::kStopServer);
    *stream << serverId;
    finish(*stream);
}

void klServiceClient::stopBooking(const std::string& bookingId) const {
    const auto stream = open(klNetService::kStopServerByBookingId);
    *stream << bookingId;
    finish(*stream);
}

void klServiceClient::stopService() const {
    const auto stream = open(klNetService::kStopService);
    finish(*stream);
}

void klServiceClient::drain() const {
    const auto stream = open(klNetService::kDrain);
    finish(*stream);
}

std::shared_ptr<klNetStream> klServiceClient::relay(const std::string& host,
                                                    std::uint32_t port) const {
    const auto stream = open(klNetService::kConnectService);
    *stream << host << port;
    finish(*stream);
    return stream;
}
