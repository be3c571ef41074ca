// klNetFarmSealer: seals links with the farm key, so that nothing runs without the key and every
// byte after the handshake is encrypted and authenticated, and binds each connection to the
// service its client meant.
//
// Handshake, right after the TCP connection is made (C: the connecting side, S: the accepting
// side; numbers little-endian; MAC and KDF are keyed BLAKE2b-256 under the farm key; a name is
// one length byte, then 1 to 255 bytes of host-name characters):
//
//   C -> S  greeting 101010103, "KLSEAL02", client random (32), client flags (1), dialed name
//   S -> C  greeting 101010103, "KLSEAL02", server random (32), server flags (1)
//   C -> S  MAC("klnet seal client key" | core), MAC("klnet seal client" | core | flags)
//   S -> C  verdict (1), the service's name for the client, MAC("klnet seal server" | core |
//           answer)
//
// where core is magic | client random | server random | dialed name, flags is server flags |
// client flags and answer is verdict | the service's name (each label hashed with its closing
// zero). The dialed name is the host the user gave (or the Slurm node name) and the port, as
// klNetNodeNames::nameOf() writes it; the service accepts it only when it is one of the names
// it answers to. Verdicts: 0 accepted (no name), 1 not one of this service's names (with one
// of its names, so that the client can say whom it reached), 2 the cipher choice differs (the
// client proved the key, but over other flags than the service sent).
//
// Each side proves it holds the key with fresh randomness of the other, so a recorded session
// replayed proves nothing; the flags (bit 0: this side's processor has AES) are covered by the
// client's second proof and the keys. A handshake carried to another service (another node, or
// another port of the same node) names a service that is not the one answering: it is refused
// there, after the proofs and before any request. Each direction then gets a key of this
// connection alone, KDF("klnet seal c2s" | core | flags | answer) and KDF("klnet seal s2c" |
// ...), and every frame is sealed with an AEAD under its direction's key, its nonce the frame's
// number: AES-256-GCM when both processors have AES instructions (several times faster there),
// ChaCha20-Poly1305 otherwise (fast and constant-time without them).
//
// The client's opening needs nothing from the service, so it goes out with the greeting: a
// service without a key echoes the greeting and reads the opening as a request, which it answers
// at once with an error instead of the magic.
//
// Failures of connect(), each a klNetError naming the service as dialed (NAME):
//   "The service at NAME has no farm key: it answered the sealed greeting unsealed"
//   "The service at NAME refused the farm key: it holds another key"
//   "The service at NAME answers to OTHER, not to NAME: the connection went to another node"
//   "The service at NAME refused the cipher choice: the handshake was changed on its way"
//   "The service at NAME proved another farm key" (its answer was changed, or another key)
//   "The service at NAME speaks another version of the sealed handshake (KLSEAL01, ...)"
// The accepting side shuts the link down and throws "Peer does not hold the farm key" for a
// wrong, replayed or garbled proof (nothing is sent), and after telling the client why,
// "handshake named NAME, which this service does not answer to" and "Peer's handshake was
// changed on its way: the cipher choice differs". Its missing() refuses another magic ("Peer
// does not speak this sealed handshake") and an empty or invalid name ("Peer's handshake names
// no valid node") before it waits for more.
//
// Thread safety: a sealer holds only its key; accept() and connect() may run on any number of
// links at once. An acceptance refers to its sealer's key and to the names it was started with:
// both outlive it.
#pragma once

#include <klNetBase/codecs/klNetCodecsExport.h>
#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/link/klNetLinkSealer.h>

#include <memory>
#include <string>

class klSocketAddress;
class klSocketLink;

class KLNETCODECS_EXPORT klNetFarmSealer final : public klNetLinkSealer {
public:
    explicit klNetFarmSealer(const klNetFarmKey& key);

    std::unique_ptr<Acceptance> startAccept(const klNetNodeNames& names) override;
    void connect(klSocketLink& link, const std::string& dialedName, double timeoutSeconds) override;

    // One call for a client: connects to address and seals, naming dialedName (the connect
    // failures of klSocketLink first).
    std::shared_ptr<klSocketLink> connect(const klSocketAddress& address,
                                          const std::string& dialedName, double timeoutSeconds);

    // Lets this process go on with sealed connections handed to it through a socket pipe
    // (render servers call it once at start). Needs no key.
    static void enableHandOff();

private:
    klNetFarmKey m_key;
};
