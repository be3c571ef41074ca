// klNetPeerFilter: which peers may talk to the service, as a list of address ranges.
//
// A range is written "address/prefix" ("192.168.7.0/24", "fd00::/8") or as a bare address (a
// single host). An IPv4 client reaching a dual-stack listener appears as an IPv4-mapped IPv6
// address (::ffff:a.b.c.d); it is matched against IPv4 ranges as the IPv4 address it is.
// An empty filter allows every peer.
//
// Thread safety: const members may be called from any thread once the filter is built.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct sockaddr;

class KLNETBASE_EXPORT klNetPeerFilter {
public:
    // Adds one range; a malformed text throws klNetError "Invalid address range '<text>'".
    void allow(const std::string& range);

    bool isEmpty() const { return m_ranges.empty(); }
    // Whether the peer may connect: always with an empty filter; never for an address that is
    // neither IPv4 nor IPv6.
    bool allows(const sockaddr* peer) const;

private:
    struct Range {
        // IPv4 ranges are held as IPv4-mapped IPv6, so one comparison serves both families.
        std::array<std::uint8_t, 16> address;
        int prefixBits;
    };
    std::vector<Range> m_ranges;
};
