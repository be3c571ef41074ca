#include <klNetBase/codecs/klNetFarmSealer.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLinkSeal.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>

#include <openssl/evp.h>
#include <sodium.h>

#include <cstring>
#include <sstream>

namespace {

constexpr char kMagic[8] = {'K', 'L', 'S', 'E', 'A', 'L', '0', '1'};
constexpr std::size_t kRandomSize = 32;
constexpr std::size_t kMacSize = 32;
constexpr std::size_t kKeySize = 32;
constexpr std::uint8_t kHasAes = 1;
constexpr std::uint8_t kStateVersion = 1;

void initialiseSodium() {
    if (sodium_init() < 0) {
        throw klNetError("Unable to initialise libsodium");
    }
}

std::uint8_t ownFlags() {
    return crypto_aead_aes256gcm_is_available() ? kHasAes : 0;
}

// What both proofs and both keys are derived from: the two randoms and the two flags.
struct Transcript {
    unsigned char serverRandom[kRandomSize];
    unsigned char clientRandom[kRandomSize];
    std::uint8_t serverFlags = 0;
    std::uint8_t clientFlags = 0;

    // Keyed BLAKE2b-256 of label | transcript.
    void derive(const klNetFarmKey& key, const char* label, unsigned char* out) const {
        crypto_generichash_state state;
        crypto_generichash_init(&state, key.data(), klNetFarmKey::kSize, kMacSize);
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(label),
                                  std::strlen(label));
        crypto_generichash_update(&state, serverRandom, kRandomSize);
        crypto_generichash_update(&state, clientRandom, kRandomSize);
        crypto_generichash_update(&state, &serverFlags, 1);
        crypto_generichash_update(&state, &clientFlags, 1);
        crypto_generichash_final(&state, out, kMacSize);
        sodium_memzero(&state, sizeof(state));
    }
    bool aes() const { return (serverFlags & clientFlags & kHasAes) != 0; }
};

// One direction's AES-256-GCM from OpenSSL, whose AES-NI and carry-less multiply code seals about
// three times as fast as libsodium's here; its frames are the same bytes libsodium would make
// (cipher text, then the 16-byte tag).
class AesGcm {
public:
    AesGcm(const unsigned char* key, bool sealing)
        : m_context(EVP_CIPHER_CTX_new()), m_sealing(sealing) {
        if (m_context == nullptr || EVP_CipherInit_ex(m_context, EVP_aes_256_gcm(), nullptr, key,
                                                      nullptr, sealing ? 1 : 0) != 1) {
            EVP_CIPHER_CTX_free(m_context);
            throw klNetError("Unable to set up AES-256-GCM");
        }
    }
    ~AesGcm() { EVP_CIPHER_CTX_free(m_context); }
    AesGcm(const AesGcm&) = delete;
    AesGcm& operator=(const AesGcm&) = delete;

    // Seals (or opens, checking the tag that follows the cipher text) size bytes of in into out.
    bool apply(const unsigned char* nonce, const unsigned char* extra, std::size_t extraSize,
               const unsigned char* in, std::size_t size, unsigned char* out, unsigned char* tag) {
        int length = 0;
        if (EVP_CipherInit_ex(m_context, nullptr, nullptr, nullptr, nonce, -1) != 1 ||
            EVP_CipherUpdate(m_context, nullptr, &length, extra, int(extraSize)) != 1 ||
            EVP_CipherUpdate(m_context, out, &length, in, int(size)) != 1) {
            return false;
        }
        if (!m_sealing &&
            EVP_CIPHER_CTX_ctrl(m_context, EVP_CTRL_GCM_SET_TAG, kTagSize, tag) != 1) {
            return false;
        }
        if (EVP_CipherFinal_ex(m_context, out + length, &length) != 1) {
            return false;
        }
        return !m_sealing ||
               EVP_CIPHER_CTX_ctrl(m_context, EVP_CTRL_GCM_GET_TAG, kTagSize, tag) == 1;
    }

    static constexpr int kTagSize = 16;

private:
    EVP_CIPHER_CTX* m_context;
    const bool m_sealing;
};

// The keys and frame numbers of one connection: AES-256-GCM or ChaCha20-Poly1305 (IETF), a
// direction's nonce its frame number, little-endian, in 12 bytes.
class AeadSeal final : public klNetLinkSeal {
public:
    AeadSeal(bool aes, const unsigned char* sendKey, const unsigned char* recvKey,
             std::uint64_t sendNumber, std::uint64_t recvNumber)
        : m_aes(aes), m_sendNumber(sendNumber), m_recvNumber(recvNumber) {
        std::memcpy(m_sendKey, sendKey, kKeySize);
        std::memcpy(m_recvKey, recvKey, kKeySize);
        if (m_aes) {
            m_sendAes = std::make_unique<AesGcm>(m_sendKey, true);
            m_recvAes = std::make_unique<AesGcm>(m_recvKey, false);
        }
    }
    ~AeadSeal() override {
        sodium_memzero(m_sendKey, sizeof(m_sendKey));
        sodium_memzero(m_recvKey, sizeof(m_recvKey));
    }

    std::size_t overhead() const override { return crypto_aead_aes256gcm_ABYTES; }

    void seal(const unsigned char* clear, std::size_t clearSize, const unsigned char* extra,
              std::size_t extraSize, unsigned char* out) override {
        unsigned char nonce[crypto_aead_aes256gcm_NPUBBYTES];
        nonceOf(m_sendNumber++, nonce);
        unsigned long long sealedSize = 0;
        if (m_aes) {
            if (!m_sendAes->apply(nonce, extra, extraSize, clear, clearSize, out,
                                  out + clearSize)) {
                throw klNetError("Unable to seal a frame");
            }
        } else {
            crypto_aead_chacha20poly1305_ietf_encrypt(out, &sealedSize, clear, clearSize, extra,
                                                      extraSize, nullptr, nonce, m_sendKey);
        }
    }

    bool open(const unsigned char* sealed, std::size_t sealedSize, const unsigned char* extra,
              std::size_t extraSize, unsigned char* out) override {
        unsigned char nonce[crypto_aead_aes256gcm_NPUBBYTES];
        nonceOf(m_recvNumber++, nonce);
        if (m_aes) {
            const std::size_t clearSize = sealedSize - AesGcm::kTagSize;
            // The tag is checked before anything of the clear text may be used.
            return m_recvAes->apply(nonce, extra, extraSize, sealed, clearSize, out,
                                    const_cast<unsigned char*>(sealed) + clearSize);
        }
        unsigned long long clearSize = 0;
        return crypto_aead_chacha20poly1305_ietf_decrypt(out, &clearSize, nullptr, sealed,
                                                         sealedSize, extra, extraSize, nonce,
                                                         m_recvKey) == 0;
    }

    //   version (1) | AES (1) | send key (32) | receive key (32) | send number (8) | receive
    //   number (8)
    std::string exportState(std::uint64_t framesReserved) const override {
        std::string state(1 + 1 + 2 * kKeySize + 2 * 8, '\0');
        char* out = state.data();
        *out++ = char(kStateVersion);
        *out++ = char(m_aes ? 1 : 0);
        std::memcpy(out, m_sendKey, kKeySize);
        std::memcpy(out + kKeySize, m_recvKey, kKeySize);
        const std::uint64_t numbers[2] = {m_sendNumber + framesReserved, m_recvNumber};
        std::memcpy(out + 2 * kKeySize, numbers, sizeof(numbers));
        return state;
    }

    static std::unique_ptr<klNetLinkSeal> restore(const std::string& state) {
        if (state.size() != 2 + 2 * kKeySize + 16 || state[0] != char(kStateVersion) ||
            (state[1] != 0 && state[1] != 1)) {
            throw klNetError("Invalid seal state handed over");
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(state.data()) + 2;
        std::uint64_t numbers[2];
        std::memcpy(numbers, bytes + 2 * kKeySize, sizeof(numbers));
        const bool aes = state[1] == 1;
        if (aes && !crypto_aead_aes256gcm_is_available()) {
            throw klNetError("Sealed connection handed over with AES, which this processor lacks");
        }
        return std::make_unique<AeadSeal>(aes, bytes, bytes + kKeySize, numbers[0], numbers[1]);
    }

private:
    static void nonceOf(std::uint64_t number, unsigned char* nonce) {
        std::memset(nonce, 0, crypto_aead_aes256gcm_NPUBBYTES);
        std::memcpy(nonce, &number, sizeof(number));
    }

    const bool m_aes;
    unsigned char m_sendKey[kKeySize];
    unsigned char m_recvKey[kKeySize];
    // Touched only by the sending thread, and by the receiving thread.
    std::uint64_t m_sendNumber;
    std::uint64_t m_recvNumber;
    std::unique_ptr<AesGcm> m_sendAes;
    std::unique_ptr<AesGcm> m_recvAes;
};

// Seals the link with the keys of both directions, derived from the transcript.
void sealWith(klSocketLink& link, const klNetFarmKey& key, const Transcript& transcript,
              bool accepting) {
    unsigned char c2s[kKeySize], s2c[kKeySize];
    transcript.derive(key, "klnet seal c2s", c2s);
    transcript.derive(key, "klnet seal s2c", s2c);
    link.setSeal(std::make_unique<AeadSeal>(transcript.aes(), accepting ? s2c : c2s,
                                            accepting ? c2s : s2c, 0, 0));
    sodium_memzero(c2s, sizeof(c2s));
    sodium_memzero(s2c, sizeof(s2c));
}

}  // namespace

klNetFarmSealer::klNetFarmSealer(const klNetFarmKey& key) : m_key(key) {
    initialiseSodium();
}

namespace {

// The accepting side: the hello out, then the client's random, flags and proof in.
class FarmAcceptance final : public klNetLinkSealer::Acceptance {
public:
    explicit FarmAcceptance(const klNetFarmKey& key) : m_key(key) {
        randombytes_buf(m_transcript.serverRandom, kRandomSize);
        m_transcript.serverFlags = ownFlags();
    }

    std::string hello() override {
        std::string hello(4 + sizeof(kMagic) + kRandomSize + 1, '\0');
        const std::uint32_t greeting = klSocketLink::kSealedGreeting;
        std::memcpy(hello.data(), &greeting, 4);
        std::memcpy(hello.data() + 4, kMagic, sizeof(kMagic));
        std::memcpy(hello.data() + 4 + sizeof(kMagic), m_transcript.serverRandom, kRandomSize);
        hello.back() = char(m_transcript.serverFlags);
        return hello;
    }

    std::size_t missing(const std::string& received) const override {
        return received.size() < kAnswerSize ? kAnswerSize - received.size() : 0;
    }

    void finish(const std::string& received, klSocketLink& link) override {
        const auto* answer = reinterpret_cast<const unsigned char*>(received.data());
        std::memcpy(m_transcript.clientRandom, answer, kRandomSize);
        m_transcript.clientFlags = answer[kRandomSize];
        unsigned char expected[kMacSize];
        m_transcript.derive(m_key, "klnet seal client", expected);
        if (sodium_memcmp(expected, answer + kRandomSize + 1, kMacSize) != 0) {
            // Closed at once: the peer learns nothing but that its key was not the farm's.
            link.shutdown();
            throw klNetError("Peer does not hold the farm key");
        }
        unsigned char proof[kMacSize];
        m_transcript.derive(m_key, "klnet seal server", proof);
        link.send(proof, sizeof(proof));
        sealWith(link, m_key, m_transcript, true);
    }

private:
    static constexpr std::size_t kAnswerSize = kRandomSize + 1 + kMacSize;

    const klNetFarmKey& m_key;
    Transcript m_transcript;
};

}  // namespace

std::unique_ptr<klNetLinkSealer::Acceptance> klNetFarmSealer::startAccept(
    const klNetNodeNames& /*names*/) {
    return std::make_unique<FarmAcceptance>(m_key);
}

void klNetFarmSealer::connect(klSocketLink& link, double timeoutSeconds) {
    link.setRecvTimeout(timeoutSeconds);
    const std::uint32_t greeting = klSocketLink::kSealedGreeting;
    link.send(&greeting, sizeof(greeting));
    unsigned char hello[4 + sizeof(kMagic) + kRandomSize + 1];
    try {
        link.recv(hello, sizeof(hello));
    } catch (const klConnectionTimeout&) {
        throw klNetError("The service has no farm key: it answered the sealed greeting unsealed");
    }
    if (std::memcmp(hello, &greeting, 4) != 0 || std::memcmp(hello + 4, kMagic, sizeof(kMagic))) {
        throw klNetError("Unexpected respnse from server");
    }
    Transcript transcript;
    std::memcpy(transcript.serverRandom, hello + 4 + sizeof(kMagic), kRandomSize);
    transcript.serverFlags = hello[sizeof(hello) - 1];
    randombytes_buf(transcript.clientRandom, kRandomSize);
    transcript.clientFlags = ownFlags();
    unsigned char answer[kRandomSize + 1 + kMacSize];
    std::memcpy(answer, transcript.clientRandom, kRandomSize);
    answer[kRandomSize] = transcript.clientFlags;
    transcript.derive(m_key, "klnet seal client", answer + kRandomSize + 1);
    link.send(answer, sizeof(answer));

    unsigned char proof[kMacSize], expected[kMacSize];
    try {
        link.recv(proof, sizeof(proof));
    } catch (const klConnectionClosed&) {
        throw klNetError("The service refused the farm key: it holds another key");
    }
    transcript.derive(m_key, "klnet seal server", expected);
    if (sodium_memcmp(expected, proof, kMacSize) != 0) {
        throw klNetError("The service proved another farm key");
    }
    link.setRecvTimeout(0.0);
    sealWith(link, m_key, transcript, false);
}

std::shared_ptr<klSocketLink> klNetFarmSealer::connect(const klSocketAddress& address,
                                                       double timeoutSeconds) {
    auto link = std::make_shared<klSocketLink>(address, timeoutSeconds);
    connect(*link, timeoutSeconds);
    return link;
}

void klNetFarmSealer::enableHandOff() {
    initialiseSodium();
    klNetLinkSeal::setRestorer(&AeadSeal::restore);
}
