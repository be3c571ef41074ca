// klNetLinkSealer: a party that seals connections, for code that must not know how.
//
// The cluster service seals every connection when it is given a sealer: it reads a client's
// greeting and, for the sealed greeting, lets the sealer answer it and agree on the connection's
// keys (accept); it seals the connections it opens itself, to relay, the same way (connect). An
// implementation (the codecs library's klNetFarmSealer, from a farm key) decides the handshake.
//
// Thread safety: accept() and connect() are called from many threads at once, each on a link of
// its own; an implementation keeps no per-connection state of its own.
#pragma once

#include <klNetBase/klNetBaseExport.h>

class klSocketLink;

class KLNETBASE_EXPORT klNetLinkSealer {
public:
    virtual ~klNetLinkSealer();
    // Accepting side, after the peer's sealed greeting has been read: answers it, proves the key
    // and checks the peer's proof, then seals the link. A peer without the key is an exception;
    // the link's receive time-out bounds the wait for the peer.
    virtual void accept(klSocketLink& link) = 0;
    // Connecting side, on a freshly connected link: sends the sealed greeting instead of the
    // plain one, and seals the link once both sides proved the key, within timeoutSeconds.
    virtual void connect(klSocketLink& link, double timeoutSeconds) = 0;
};
