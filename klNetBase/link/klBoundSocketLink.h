// klBoundSocketLink: a listening TCP socket on one port of every local address, IPv6 and IPv4 at
// once where the system allows (IPv4 clients then appear as IPv4-mapped peers), or of one
// address given.
//
// It never carries buffers itself: each accepted connection becomes a klSocketLink through
// klSocketLink(const klBoundSocketLink&), which blocks until a client arrives. Accepted sockets are
// blocking and close-on-exec.
//
// A system out of descriptors or memory does not end the listener: the connection stays queued,
// accept() logs the first failure of such an episode with the system's text, retries with a
// growing pause (at most 1 s), and logs again once it accepts.
//
// Thread safety: one thread accepts in a loop; any other thread may call shutdown(), which wakes
// the accepting thread at once (it throws klConnectionClosed), frees the port, and makes every
// later accept throw klConnectionClosed as well.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klSocketLink.h>

class KLNETBASE_EXPORT klBoundSocketLink : public klSocketLink {
public:
    // Binds and listens (backlog 128). Failures: "Unable to create socket. ",
    // "Unable to bind to port <port>. ", "Unable to listen for incoming connections. ", each
    // followed by the system's text; nothing is left open.
    explicit klBoundSocketLink(int port);
    // The same on one local address alone (IPv4, or IPv6 only for an IPv6 address, "::"
    // included), on its port (0: chosen by the system).
    explicit klBoundSocketLink(const klSocketAddress& address);
    ~klBoundSocketLink() override;

    void shutdown() override;

private:
    friend class klSocketLink;

    void openShutdownEvent();
    // Binds the descriptor set already and listens; on failure closes it and the event.
    void bindAndListen(const sockaddr* address, socklen_t length, int port, bool ipv6Only);
    // Waits for one connection, or for shutdown (klConnectionClosed).
    klSocketHandle accept() const;

    // Signalled once by shutdown() and never reset.
    klSocketHandle m_shutdownEvent = klInvalidSocket;
    // Touched only by the accepting thread: whether accepting lacks resources since its last
    // success.
    mutable bool m_starved = false;
};
