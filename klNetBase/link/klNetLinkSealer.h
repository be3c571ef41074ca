// klNetLinkSealer: a party that seals connections, for code that must not know how.
//
// The cluster service seals every connection when it is given a sealer: it reads a client's
// greeting and, for the sealed greeting, lets the sealer answer it and agree on the connection's
// keys (accept), for a client that dialed one of the names the service answers to; it seals the
// connections it opens itself, to relay, the same way (connect). An
// implementation (the codecs library's klNetFarmSealer, from a farm key) decides the handshake.
//
// The accepting side comes in two forms: accept() blocks on one link until the handshake is
// done; an Acceptance is the same handshake driven by a caller that waits for the peer's bytes
// itself, so that one thread can carry many handshakes at once and a peer that stalls in its
// handshake holds no thread.
//
// Thread safety: accept(), startAccept() and connect() are called from many threads at once, each
// on a link of its own; an implementation keeps no per-connection state of its own. An
// Acceptance belongs to one thread at a time.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <cstddef>
#include <memory>
#include <string>

class klNetNodeNames;
class klSocketLink;

class KLNETBASE_EXPORT klNetLinkSealer {
public:
    // One connection's accepting side of the handshake, after the peer's sealed greeting.
    class KLNETBASE_EXPORT Acceptance {
    public:
        virtual ~Acceptance();
        // The bytes to send the peer first (small enough for a fresh socket's send buffer, so
        // that sending them never blocks).
        virtual std::string hello() = 0;
        // How many more bytes the peer's answer needs, given every byte it sent after the
        // greeting so far (0: it is complete; bytes beyond it are not the handshake's). Throws
        // klNetError for bytes that no valid answer starts with.
        virtual std::size_t missing(const std::string& received) const = 0;
        // With the answer complete: checks the peer's proof, sends the last handshake bytes over
        // link and seals it. Throws as accept() does.
        virtual void finish(const std::string& received, klSocketLink& link) = 0;
    };

    virtual ~klNetLinkSealer();
    // Starts accepting a peer that dialed a service answering to names.
    virtual std::unique_ptr<Acceptance> startAccept(const klNetNodeNames& names) = 0;
    // Accepting side, after the peer's sealed greeting has been read: answers it, proves the key
    // and checks the peer's proof, then seals the link. A peer without the key is an exception;
    // the link's receive time-out bounds the wait for the peer.
    void accept(klSocketLink& link, const klNetNodeNames& names);
    // Connecting side, on a freshly connected link: sends the sealed greeting instead of the
    // plain one, and seals the link once both sides proved the key, within timeoutSeconds.
    // dialedName is the service the caller means, as klNetNodeNames::nameOf() makes it from the
    // host the user gave (or the node's scheduler name) and the port, whatever address the
    // connection went to: a service that does not answer to it refuses the handshake.
    virtual void connect(klSocketLink& link, const std::string& dialedName,
                         double timeoutSeconds) = 0;
};
