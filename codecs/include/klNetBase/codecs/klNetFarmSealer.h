// klNetFarmSealer: seals links with the farm key, so that nothing runs without the key and every
// byte after the handshake is encrypted and authenticated.
//
// Handshake, right after the TCP connection is made (C: the connecting side, S: the accepting
// side; numbers little-endian; MAC and KDF are keyed BLAKE2b-256 under the farm key):
//
//   C -> S  greeting 101010103
//   S -> C  greeting 101010103, "KLSEAL01", server random (32 bytes), server flags (1)
//   C -> S  client random (32), client flags (1), MAC("klnet seal client" | transcript)
//   S -> C  MAC("klnet seal server" | transcript)
//
// where the transcript is server random | client random | server flags | client flags. Each side
// proves it holds the key with fresh randomness of the other, so a recorded session replayed
// proves nothing; the flags (bit 0: this side's processor has AES) are covered by both proofs.
// Each direction then gets a key of this connection alone, KDF("klnet seal c2s" | randoms) and
// KDF("klnet seal s2c" | randoms), and every frame is sealed with an AEAD under its direction's
// key, its nonce the frame's number: AES-256-GCM when both processors have AES instructions
// (several times faster there), ChaCha20-Poly1305 otherwise (fast and constant-time without
// them).
//
// Failures of connect(), each a klNetError naming the cause:
//   "The service has no farm key: it answered the sealed greeting unsealed" (within the time-out)
//   "The service refused the farm key: it holds another key"
//   "The service proved another farm key"
// accept() shuts the link down and throws "Peer does not hold the farm key" for a wrong,
// replayed or garbled proof.
//
// Thread safety: a sealer holds only its key; accept() and connect() may run on any number of
// links at once. An acceptance refers to its sealer's key: the sealer outlives it.
#pragma once

#include <klNetBase/codecs/klNetCodecsExport.h>
#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/link/klNetLinkSealer.h>

#include <memory>

class klSocketAddress;
class klSocketLink;

class KLNETCODECS_EXPORT klNetFarmSealer final : public klNetLinkSealer {
public:
    explicit klNetFarmSealer(const klNetFarmKey& key);

    std::unique_ptr<Acceptance> startAccept(const klNetNodeNames& names) override;
    void connect(klSocketLink& link, double timeoutSeconds) override;

    // One call for a client: connects and seals (the connect failures of klSocketLink first).
    std::shared_ptr<klSocketLink> connect(const klSocketAddress& address, double timeoutSeconds);

    // Lets this process go on with sealed connections handed to it through a socket pipe
    // (render servers call it once at start). Needs no key.
    static void enableHandOff();

private:
    klNetFarmKey m_key;
};
