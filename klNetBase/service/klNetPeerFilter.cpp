#include <klNetBase/service/klNetPeerFilter.h>

#include <klNetBase/core/klNetError.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace {

constexpr std::array<std::uint8_t, 12> kMappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

std::array<std::uint8_t, 16> mapped(const in_addr& v4) {
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), kMappedPrefix.data(), kMappedPrefix.size());
    std::memcpy(bytes.data() + 12, &v4, 4);
    return bytes;
}

bool samePrefix(const std::array<std::uint8_t, 16>& a, const std::array<std::uint8_t, 16>& b,
                int bits) {
    const int whole = bits / 8;
    if (std::memcmp(a.data(), b.data(), std::size_t(whole)) != 0) {
        return false;
    }
    const int rest = bits % 8;
    if (rest == 0) {
        return true;
    }
    const std::uint8_t mask = std::uint8_t(0xFF << (8 - rest));
    return (a[std::size_t(whole)] & mask) == (b[std::size_t(whole)] & mask);
}

}  // namespace

void klNetPeerFilter::allow(const std::string& range) {
    const auto invalid = [&range] { return klNetError("Invalid address range '" + range + "'"); };
    const std::size_t slash = range.find('/');
    const std::string address = range.substr(0, slash);
    Range parsed{};
    int maxBits;
    in_addr v4;
    in6_addr v6;
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) {
        parsed.address = mapped(v4);
        maxBits = 32;
    } else if (::inet_pton(AF_INET6, address.c_str(), &v6) == 1) {
        std::memcpy(parsed.address.data(), &v6, 16);
        maxBits = 128;
    } else {
        throw invalid();
    }
    int bits = maxBits;
    if (slash != std::string::npos) {
        const std::string digits = range.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            throw invalid();
        }
        bits = std::stoi(digits);
        if (bits > maxBits) {
            throw invalid();
        }
    }
    parsed.prefixBits = bits + (128 - maxBits);
    m_ranges.push_back(parsed);
}

bool klNetPeerFilter::allows(const sockaddr* peer) const {
    if (m_ranges.empty()) {
        return true;
    }
    std::array<std::uint8_t, 16> address;
    if (peer->sa_family == AF_INET) {
        address = mapped(reinterpret_cast<const sockaddr_in*>(peer)->sin_addr);
    } else if (peer->sa_family == AF_INET6) {
        std::memcpy(address.data(), &reinterpret_cast<const sockaddr_in6*>(peer)->sin6_addr, 16);
    } else {
        return false;
    }
    for (const Range& range : m_ranges) {
        if (samePrefix(range.address, address, range.prefixBits)) {
            return true;
        }
    }
    return false;
}
