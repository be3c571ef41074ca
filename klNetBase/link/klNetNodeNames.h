// klNetNodeNames: the names a service answers to, each a host and a port ("node7:8889",
// "10.0.0.7:8889", "[::1]:8889"), so that a sealed handshake meant for one service cannot be
// carried to another (another node, or another service on the same node).
//
// A service's set is this host's names (addThisHost) with the port it listens on, plus aliases
// its operator gives (a name a site forwards to it on purpose). An alias may leave its port open
// (0): it then stands for the service's own port (withPort).
//
// Thread safety: a filled set is read-only and may be shared by any number of threads.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <string>
#include <vector>

class KLNETBASE_EXPORT klNetNodeNames {
public:
    // Longest name a sealed handshake carries.
    static constexpr std::size_t kMaxNameSize = 255;

    // The text a client names a service by: host:port, an IPv6 address in brackets.
    static std::string nameOf(const std::string& host, int port);
    // Whether text may be a host as names carry it: a host name (letters, digits, '-', '_' and
    // dots) or a numeric IPv4 or IPv6 address (with a "%scope"), short enough for a name.
    static bool isHost(const std::string& text);
    // Reads "HOST", "HOST:PORT", "[IPV6]" or "[IPV6]:PORT" (a bare IPv6 address has no port) into
    // host and port (0 when not given). Returns what is wrong ("...is not a host name or
    // address", "the port ... is not 1 to 65535"), empty when it is fine.
    static std::string parse(const std::string& text, std::string& host, int& port);

    // Adds host:port (a name already there is not added twice).
    void add(const std::string& host, int port);
    // This host's names with port: its host name and short name, the Slurm node name
    // (SLURMD_NODENAME) when it runs in a Slurm job, and every address of its interfaces (with
    // "localhost" for loopback). With listenAddress (a service listening on that one address)
    // only that address, and "localhost" when it is a loopback address: names that resolve to
    // other addresses reach another socket.
    void addThisHost(int port, const std::string& listenAddress = std::string());
    // This set with every name left without a port (0) given port.
    klNetNodeNames withPort(int port) const;

    // Whether name, as nameOf() makes it, is one of this set's. Host names compare without regard
    // to case.
    bool contains(const std::string& name) const;
    // The name of this set a client that dialed name (not one of them) is best told about: the
    // same host with this set's port when there is one, else the first name. Empty for an empty
    // set.
    std::string closestTo(const std::string& name) const;
    // Every name, in the order added.
    const std::vector<std::string>& names() const { return m_names; }
    bool empty() const { return m_names.empty(); }

private:
    struct Entry {
        std::string host;
        int port;
    };
    std::vector<Entry> m_entries;
    std::vector<std::string> m_names;
};
