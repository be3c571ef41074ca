// klSocketAddress: one resolved IPv4 or IPv6 address of a stream socket.
//
// Built from the texts users type: a host name, name:port, dotted IPv4, or an IPv6 literal in
// square brackets with or without :port. A bare IPv6 literal (fe80::1) is taken whole as the
// server with the default port. A name that resolves to both families gives its IPv4 address.
// An empty server is the wildcard address for binding. getName() gives the numeric address text
// without port; an IPv4 peer of a dual-stack socket reads as plain dotted IPv4.
//
// A value type; thread safety as for any value.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <sys/socket.h>

#include <string>

class KLNETBASE_EXPORT klSocketAddress {
public:
    // Resolves server (empty: the wildcard address) and port (empty: none). Failure throws
    // "Unable to get address info for '<server>' " + the resolver's text.
    klSocketAddress(const std::string& server, const std::string& port);
    // Splits "server[:port]" first; defaultPort when the text has none.
    klSocketAddress(const std::string& address, int defaultPort);
    // Copies an address the system produced; only IPv4 and IPv6 ("Protocol not supported").
    explicit klSocketAddress(const sockaddr* address);

    int getFamily() const { return m_address.ss_family; }
    const sockaddr* getSockAddr() const { return reinterpret_cast<const sockaddr*>(&m_address); }
    int getSockAddrSize() const;
    // The port in host byte order.
    int getPort() const;
    int getSockType() const { return SOCK_STREAM; }
    int getProtocol() const { return 0; }
    std::string getName() const;

    // The text parser: server and port of "name[:port]", "[ipv6][:port]"; any other text is the
    // server whole with defaultPort. A port too large for int throws std::out_of_range.
    static void splitServerAndPort(std::string address, std::string& server, int& port,
                                   int defaultPort);
    static int parsePort(std::string address, int defaultPort);
    static std::string parseServer(std::string address);

private:
    sockaddr_storage m_address{};
};
