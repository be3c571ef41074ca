// klNetNamespace: runs the calling thread inside a named network namespace (one made with
// "ip netns add NAME", found as /run/netns/NAME) for the lifetime of the object.
//
// Sockets belong to the namespace of the thread that creates them and stay there whatever the
// thread does later, so a program can set up connections between namespaces from one process: a
// thread enters one namespace, opens its sockets, and leaves again; the sockets may then be used
// from any thread. Threads started while inside inherit the namespace.
//
// Ownership: holds a descriptor of the namespace it left, to return to it.
// Thread safety: affects only the thread that constructs it; construct and destroy on that thread.
#pragma once

#include <string>

class klNetNamespace {
public:
    // Throws std::runtime_error "cannot enter network namespace NAME: <reason>" when the namespace
    // does not exist or the process may not enter it (it needs CAP_SYS_ADMIN).
    explicit klNetNamespace(const std::string& name);
    // Returns the thread to the namespace it was in.
    ~klNetNamespace();

    klNetNamespace(const klNetNamespace&) = delete;
    klNetNamespace& operator=(const klNetNamespace&) = delete;

private:
    int m_previous = -1;
};
