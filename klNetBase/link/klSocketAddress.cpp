#include <klNetBase/link/klSocketAddress.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klSocketLink.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <regex>

namespace {

constexpr char kMappedPrefix[] = "::ffff:";

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

}  // namespace

klSocketAddress::klSocketAddress(const std::string& server, const std::string& port) {
    klSocketLink::initialize();

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = 0;
    hints.ai_flags = AI_ADDRCONFIG | AI_V4MAPPED | (server.empty() ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    const int result = ::getaddrinfo(server.empty() ? nullptr : server.c_str(),
                                     port.empty() ? nullptr : port.c_str(), &hints, &found);
    if (result != 0) {
        throw klNetError("Unable to get address info for '" + server + "' " +
                         ::gai_strerror(result));
    }
    std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);
    // The first IPv4 address wins; without one, the last address of the list.
    for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        std::memcpy(&m_address, entry->ai_addr,
                    std::min<std::size_t>(entry->ai_addrlen, sizeof(m_address)));
        if (entry->ai_family == AF_INET) {
            break;
        }
    }
}

klSocketAddress::klSocketAddress(const std::string& address, int defaultPort)
    : klSocketAddress(parseServer(address), std::to_string(parsePort(address, defaultPort))) {}

klSocketAddress::klSocketAddress(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        std::memcpy(&m_address, address, sizeof(sockaddr_in));
    } else if (address->sa_family == AF_INET6) {
        std::memcpy(&m_address, address, sizeof(sockaddr_in6));
    } else {
        throw klNetError("Protocol not supported");
    }
}

int klSocketAddress::getSockAddrSize() const {
    switch (m_address.ss_family) {
        case AF_INET:
            return sizeof(sockaddr_in);
        case AF_INET6:
            return sizeof(sockaddr_in6);
    }
    throw klNetError("Unsupported protocol");
}

int klSocketAddress::getPort() const {
    switch (m_address.ss_family) {
        case AF_INET:
            return ntohs(reinterpret_cast<const sockaddr_in&>(m_address).sin_port);
        case AF_INET6:
            return ntohs(reinterpret_cast<const sockaddr_in6&>(m_address).sin6_port);
    }
    throw klNetError("Unsupported protocol");
}

std::string klSocketAddress::getName() const {
    char text[INET6_ADDRSTRLEN] = {};
    const void* raw = nullptr;
    switch (m_address.ss_family) {
        case AF_INET:
            raw = &reinterpret_cast<const sockaddr_in&>(m_address).sin_addr;
            break;
        case AF_INET6:
            raw = &reinterpret_cast<const sockaddr_in6&>(m_address).sin6_addr;
            break;
        default:
            throw klNetError("Unsupported protocol");
    }
    if (::inet_ntop(m_address.ss_family, raw, text, sizeof(text)) == nullptr) {
        throw klNetError("Unable to convert address to string");
    }
    std::string name = text;
    if (name.compare(0, sizeof(kMappedPrefix) - 1, kMappedPrefix) == 0) {
        name.erase(0, sizeof(kMappedPrefix) - 1);
    }
    return name;
}

void klSocketAddress::splitServerAndPort(std::string address, std::string& server, int& port,
                                         int defaultPort) {
    static const std::regex bracketed(R"(^\s*\[(.+)\](?::(\d*))?\s*$)");
    static const std::regex plain(R"(^\s*([^:\[\]]+)(?::(\d*))?\s*$)");

    server = address;
    port = defaultPort;
    // The standard matcher recurses once per character, so a text from a peer could exhaust the
    // stack. No host name or address is anywhere near this long; such a text is taken whole, as
    // any other text the patterns do not match.
    constexpr std::size_t kLongestAddressText = 1024;
    if (address.size() > kLongestAddressText) {
        return;
    }
    std::smatch match;
    if (!std::regex_match(address, match, bracketed) && !std::regex_match(address, match, plain)) {
        return;
    }
    server = match[1].str();
    // The name pattern takes blanks before a missing port into the name; they are not part of it.
    server.erase(server.find_last_not_of(" \t\r\n\f\v") + 1);
    if (match[2].matched && match[2].length() > 0) {
        port = std::stoi(match[2].str());
    }
}

int klSocketAddress::parsePort(std::string address, int defaultPort) {
    std::string server;
    int port = defaultPort;
    splitServerAndPort(std::move(address), server, port, defaultPort);
    return port;
}

std::string klSocketAddress::parseServer(std::string address) {
    std::string server;
    int port = -1;
    splitServerAndPort(std::move(address), server, port, -1);
    return server;
}
