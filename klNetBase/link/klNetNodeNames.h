// klNetNodeNames: the names a service answers to, each a host and a port ("node7:8889",
// "10.0.0.7:8889", "[::1]:8889"), so that a sealed handshake meant for one service cannot be
// carried to another.
//
// Thread safety: a filled set is read-only and may be shared by any number of threads.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <string>
#include <vector>

class KLNETBASE_EXPORT klNetNodeNames {
public:
    // The text a client names a service by: host:port, an IPv6 address in brackets.
    static std::string nameOf(const std::string& host, int port);

    // Adds host:port (a name already there is not added twice).
    void add(const std::string& host, int port);
    // Whether name, as nameOf() makes it, is one of this set's. Host names compare without regard
    // to case.
    bool contains(const std::string& name) const;
    // Every name, in the order added.
    const std::vector<std::string>& names() const { return m_names; }
    bool empty() const { return m_names.empty(); }

private:
    std::vector<std::string> m_names;
};
