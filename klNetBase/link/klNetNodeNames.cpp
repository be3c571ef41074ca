#include <klNetBase/link/klNetNodeNames.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>

namespace {

bool sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

bool nameCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
}

// The host part of a name ("node7", "[::1]"), without the port.
std::string hostPart(const std::string& name) {
    const std::size_t colon = name.rfind(':');
    return colon == std::string::npos ? name : name.substr(0, colon);
}

// A numeric IPv6 address in its one canonical text ("::1" for "0:0::1"); other text as it is.
std::string canonicalHost(const std::string& host) {
    in6_addr address{};
    char text[INET6_ADDRSTRLEN];
    if (host.find('%') == std::string::npos && ::inet_pton(AF_INET6, host.c_str(), &address) == 1 &&
        ::inet_ntop(AF_INET6, &address, text, sizeof(text)) != nullptr) {
        return text;
    }
    return host;
}

bool isLoopback(const std::string& address) {
    in_addr v4{};
    in6_addr v6{};
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    return ::inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace

std::string klNetNodeNames::nameOf(const std::string& host, int port) {
    const std::string canonical = canonicalHost(host);
    const bool ipv6 = canonical.find(':') != std::string::npos;
    return (ipv6 ? "[" + canonical + "]" : canonical) + ":" + std::to_string(port);
}

bool klNetNodeNames::isHost(const std::string& text) {
    if (text.empty() || nameOf(text, 65535).size() > kMaxNameSize) {
        return false;
    }
    if (text.find(':') == std::string::npos) {
        return text.front() != '.' && text.front() != '-' &&
               std::all_of(text.begin(), text.end(), nameCharacter);
    }
    const std::size_t percent = text.find('%');
    const std::string scope = percent == std::string::npos ? "" : text.substr(percent + 1);
    in6_addr address{};
    return ::inet_pton(AF_INET6, text.substr(0, percent).c_str(), &address) == 1 &&
           (percent == std::string::npos ||
            (!scope.empty() && std::all_of(scope.begin(), scope.end(), nameCharacter)));
}

std::string klNetNodeNames::parse(const std::string& text, std::string& host, int& port) {
    std::string portText;
    if (!text.empty() && text.front() == '[') {
        const std::size_t close = text.find(']');
        host = text.substr(1, close == std::string::npos ? std::string::npos : close - 1);
        const std::string rest = close == std::string::npos ? "?" : text.substr(close + 1);
        if (host.find(':') == std::string::npos || (!rest.empty() && rest.front() != ':')) {
            return "'" + text + "' is not a host name or address";
        }
        portText = rest.empty() ? "" : rest.substr(1);
        if (rest == ":") {
            portText = "?";
        }
    } else if (std::count(text.begin(), text.end(), ':') == 1) {
        host = text.substr(0, text.find(':'));
        portText = text.substr(text.find(':') + 1);
        if (portText.empty()) {
            portText = "?";
        }
    } else {
        host = text;
    }
    if (!isHost(host)) {
        return "'" + text + "' is not a host name or address";
    }
    port = 0;
    if (!portText.empty()) {
        const bool digits =
            portText.size() <= 5 && std::all_of(portText.begin(), portText.end(), [](char c) {
                return std::isdigit(static_cast<unsigned char>(c));
            });
        port = digits ? std::atoi(portText.c_str()) : 0;
        if (port < 1 || port > 65535) {
            return "the port of '" + text + "' is not 1 to 65535";
        }
    }
    return std::string();
}

void klNetNodeNames::add(const std::string& host, int port) {
    std::string name = nameOf(host, port);
    if (!contains(name)) {
        m_entries.push_back({host, port});
        m_names.push_back(std::move(name));
    }
}

void klNetNodeNames::addThisHost(int port, const std::string& listenAddress) {
    if (!listenAddress.empty()) {
        add(listenAddress, port);
        if (isLoopback(listenAddress)) {
            add("localhost", port);
        }
        return;
    }
    if (const char* slurmName = std::getenv("SLURMD_NODENAME")) {
        if (isHost(slurmName)) {
            add(slurmName, port);
        }
    }
    char hostName[256] = {};
    if (::gethostname(hostName, sizeof(hostName) - 1) == 0 && isHost(hostName)) {
        const std::string full = hostName;
        add(full, port);
        add(full.substr(0, full.find('.')), port);
    }
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return;
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, ::freeifaddrs);
    bool loopback = false;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const sockaddr* address = entry->ifa_addr;
        if (address == nullptr ||
            (address->sa_family != AF_INET && address->sa_family != AF_INET6)) {
            continue;
        }
        char text[NI_MAXHOST];
        const socklen_t size =
            address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        if (::getnameinfo(address, size, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) == 0 &&
            isHost(text)) {
            add(text, port);
        }
        loopback = loopback || (entry->ifa_flags & IFF_LOOPBACK) != 0;
    }
    if (loopback) {
        add("localhost", port);
    }
}

klNetNodeNames klNetNodeNames::withPort(int port) const {
    klNetNodeNames result;
    for (const Entry& entry : m_entries) {
        result.add(entry.host, entry.port == 0 ? port : entry.port);
    }
    return result;
}

bool klNetNodeNames::contains(const std::string& name) const {
    return std::any_of(m_names.begin(), m_names.end(),
                       [&](const std::string& own) { return sameName(own, name); });
}

std::string klNetNodeNames::closestTo(const std::string& name) const {
    const std::string host = hostPart(name);
    const auto sameHost = std::find_if(m_names.begin(), m_names.end(), [&](const std::string& own) {
        return sameName(hostPart(own), host);
    });
    return sameHost != m_names.end() ? *sameHost
           : m_names.empty()         ? std::string()
                                     : m_names.front();
}
