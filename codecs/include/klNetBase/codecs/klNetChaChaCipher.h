// klNetChaChaCipher: a link cipher from the ChaCha20 stream cipher (libsodium).
//
// Every byte a link ciphers is XORed with the next byte of a ChaCha20 keystream (the original
// variant: 64-bit nonce, 64-bit block counter, so a direction never runs out of keystream). The
// position in each keystream carries over from call to call, so the cipher is length-preserving
// and needs nothing on the wire beyond the bytes it replaces.
//
// The two directions of a link never share a keystream: each end is built with its role, and the
// nonce of a direction is session * 2 + (0 for bytes sent by the connecting end, 1 for bytes sent
// by the accepting end), as a little-endian 64-bit value. Keystream must never repeat, so a key
// serves one connection only, unless every connection under that key gets its own session number.
//
// It hides content; it does not authenticate it. A peer or anyone on the path can flip bits of
// the clear text undetected, or cut the stream; use a fresh key per connection and protect the key
// exchange elsewhere.
//
// Ownership: one cipher object per link end (its keystream positions belong to that link); it is
// held by std::shared_ptr and given to klNetLink::setCipher. The key is wiped on destruction.
//
// Thread safety: encrypt() and decrypt() may run at the same time (each direction has its own
// state and lock). Calls of one direction must come in the order their bytes travel, which the
// link guarantees as long as its sends are serialised, as they are in every send pipeline.
#pragma once

#include <klNetBase/codecs/klNetCodecsExport.h>
#include <klNetBase/link/klNetCipherBase.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

class KLNETCODECS_EXPORT klNetChaChaCipher final : public klNetCipherBase {
public:
    static constexpr std::size_t kKeySize = 32;

    // Which end of the connection this cipher serves: the one that connected or the one that
    // accepted. The two ends of a link must be built with different roles.
    enum class Role { Connecting, Accepting };

    // key: kKeySize bytes from the application, copied. A wrong size is klNetError
    // "ChaCha20 key must be 32 bytes, not <n>"; a session of 2^63 or more is klNetError
    // "ChaCha20 session number must be below 2^63".
    klNetChaChaCipher(const void* key, std::size_t keySize, Role role, std::uint64_t session = 0);
    ~klNetChaChaCipher();

    klNetChaChaCipher(const klNetChaChaCipher&) = delete;
    klNetChaChaCipher& operator=(const klNetChaChaCipher&) = delete;

    static std::shared_ptr<klNetChaChaCipher> create(const void* key, std::size_t keySize,
                                                     Role role, std::uint64_t session = 0) {
        return std::make_shared<klNetChaChaCipher>(key, keySize, role, session);
    }

    // Source and destination may be the same memory.
    void encrypt(void* destination, const void* source, std::uint64_t length) override;
    void decrypt(void* destination, const void* source, std::uint64_t length) override;

private:
    struct Direction {
        // Guards position.
        std::mutex mutex;
        std::uint64_t position = 0;   // keystream bytes used so far
        unsigned char nonce[8] = {};  // constant after construction
    };

    void apply(Direction& direction, unsigned char* destination, const unsigned char* source,
               std::uint64_t length);

    // Constant after construction; wiped by the destructor.
    unsigned char m_key[kKeySize];
    Direction m_send;
    Direction m_recv;
};
