#include <klNetBase/codecs/klNetChaChaCipher.h>

#include <klNetBase/core/klNetError.h>

#include <sodium.h>

#include <algorithm>
#include <sstream>

namespace {

constexpr std::uint64_t kBlockSize = 64;  // bytes of keystream per ChaCha20 block

void setNonce(unsigned char (&nonce)[8], std::uint64_t value) {
    for (unsigned char& byte : nonce) {
        byte = static_cast<unsigned char>(value);
        value >>= 8;
    }
}

}  // namespace

klNetChaChaCipher::klNetChaChaCipher(const void* key, std::size_t keySize, Role role,
                                     std::uint64_t session) {
    if (keySize != kKeySize) {
        throw klNetError(std::ostringstream()
                         << "ChaCha20 key must be " << kKeySize << " bytes, not " << keySize);
    }
    if (session >= (std::uint64_t(1) << 63)) {
        throw klNetError("ChaCha20 session number must be below 2^63");
    }
    // Selects libsodium's fastest implementation for this processor; safe to call many times and
    // from several threads.
    if (sodium_init() < 0) {
        throw klNetError("Unable to initialise libsodium");
    }
    std::copy_n(static_cast<const unsigned char*>(key), kKeySize, m_key);
    const std::uint64_t fromConnecting = session * 2;
    const std::uint64_t fromAccepting = session * 2 + 1;
    const bool connecting = role == Role::Connecting;
    setNonce(m_send.nonce, connecting ? fromConnecting : fromAccepting);
    setNonce(m_recv.nonce, connecting ? fromAccepting : fromConnecting);
}

klNetChaChaCipher::~klNetChaChaCipher() {
    sodium_memzero(m_key, sizeof(m_key));
}

void klNetChaChaCipher::encrypt(void* destination, const void* source, std::uint64_t length) {
    apply(m_send, static_cast<unsigned char*>(destination),
          static_cast<const unsigned char*>(source), length);
}

void klNetChaChaCipher::decrypt(void* destination, const void* source, std::uint64_t length) {
    apply(m_recv, static_cast<unsigned char*>(destination),
          static_cast<const unsigned char*>(source), length);
}

void klNetChaChaCipher::apply(Direction& direction, unsigned char* destination,
                              const unsigned char* source, std::uint64_t length) {
    std::lock_guard<std::mutex> lock(direction.mutex);
    // libsodium starts at a block boundary; the rest of a block begun by the previous call is
    // taken from that block's keystream, generated again.
    const std::uint64_t offset = direction.position % kBlockSize;
    if (offset != 0 && length > 0) {
        unsigned char block[kBlockSize] = {};
        crypto_stream_chacha20_xor_ic(block, block, kBlockSize, direction.nonce,
                                      direction.position / kBlockSize, m_key);
        const std::uint64_t taken = std::min(length, kBlockSize - offset);
        for (std::uint64_t i = 0; i < taken; ++i) {
            destination[i] = source[i] ^ block[offset + i];
        }
        sodium_memzero(block, sizeof(block));
        destination += taken;
        source += taken;
        length -= taken;
        direction.position += taken;
    }
    if (length > 0) {
        crypto_stream_chacha20_xor_ic(destination, source, length, direction.nonce,
                                      direction.position / kBlockSize, m_key);
        direction.position += length;
    }
}
