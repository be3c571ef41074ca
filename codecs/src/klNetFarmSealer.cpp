#include <klNetBase/codecs/klNetFarmSealer.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLinkSeal.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>

#include <openssl/evp.h>
#include <sodium.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>

namespace {

constexpr char kMagic[8] = {'K', 'L', 'S', 'E', 'A', 'L', '0', '2'};
constexpr std::size_t kMagicSize = sizeof(kMagic);
constexpr std::size_t kRandomSize = 32;
constexpr std::size_t kMacSize = 32;
constexpr std::size_t kKeySize = 32;
constexpr std::uint8_t kHasAes = 1;
constexpr std::uint8_t kStateVersion = 1;

// The client's first bytes after its greeting, up to the name: magic, random, flags, name length.
constexpr std::size_t kOpeningSize = kMagicSize + kRandomSize + 1 + 1;
// The service's hello: greeting, magic, random, flags.
constexpr std::size_t kHelloSize = 4 + kMagicSize + kRandomSize + 1;

// The service's verdict on the handshake, covered by its proof.
enum Verdict : std::uint8_t {
    kAccepted = 0,
    kOtherNode = 1,     // the dialed name is not one this service answers to
    kCipherChanged = 2  // the client proved the key, but not over the flags the service sent
};

void initialiseSodium() {
    if (sodium_init() < 0) {
        throw klNetError("Unable to initialise libsodium");
    }
}

std::uint8_t ownFlags() {
    return crypto_aead_aes256gcm_is_available() ? kHasAes : 0;
}

// Whether text is a name a handshake may carry: 1 to 255 bytes of the characters of host names,
// addresses and ports. Checked on both sides before a name goes anywhere (a log line, a message).
bool isWireName(const std::string& text) {
    return !text.empty() && text.size() <= klNetNodeNames::kMaxNameSize &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return std::isalnum(static_cast<unsigned char>(c)) ||
                      std::strchr("-_.:[]%", c) != nullptr;
           });
}

// Everything the proofs and keys are derived from, in three parts:
//   core:   magic | client random | server random | dialed name (length-prefixed)
//   flags:  server flags | client flags
//   answer: verdict | the service's name for the client (length-prefixed)
// The client proves the key over the core alone and, apart, over core and flags, so that the
// service can tell a client without the key from flags changed on the way; the service proves
// the key over core and answer; the connection's keys come from all three.
struct Transcript {
    unsigned char clientRandom[kRandomSize];
    unsigned char serverRandom[kRandomSize];
    std::uint8_t serverFlags = 0;
    std::uint8_t clientFlags = 0;
    std::string dialedName;
    std::uint8_t verdict = kAccepted;
    std::string answeredName;

    enum Parts : unsigned { kCore = 0, kFlags = 1, kAnswer = 2 };

    ~Transcript() {
        sodium_memzero(clientRandom, kRandomSize);
        sodium_memzero(serverRandom, kRandomSize);
        sodium_memzero(dialedName.data(), dialedName.size());
        sodium_memzero(answeredName.data(), answeredName.size());
    }

    // Keyed BLAKE2b-256 of label (with its terminating zero) | the parts named.
    void derive(const klNetFarmKey& key, const char* label, unsigned parts,
                unsigned char* out) const {
        crypto_generichash_state state;
        crypto_generichash_init(&state, key.data(), klNetFarmKey::kSize, kMacSize);
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(label),
                                  std::strlen(label) + 1);
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(kMagic),
                                  kMagicSize);
        crypto_generichash_update(&state, clientRandom, kRandomSize);
        crypto_generichash_update(&state, serverRandom, kRandomSize);
        addText(state, dialedName);
        if ((parts & kFlags) != 0) {
            crypto_generichash_update(&state, &serverFlags, 1);
            crypto_generichash_update(&state, &clientFlags, 1);
        }
        if ((parts & kAnswer) != 0) {
            crypto_generichash_update(&state, &verdict, 1);
            addText(state, answeredName);
        }
        crypto_generichash_final(&state, out, kMacSize);
        sodium_memzero(&state, sizeof(state));
    }
    bool aes() const { return (serverFlags & clientFlags & kHasAes) != 0; }

private:
    static void addText(crypto_generichash_state& state, const std::string& text) {
        const std::uint8_t size = std::uint8_t(text.size());
        crypto_generichash_update(&state, &size, 1);
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(text.data()),
                                  text.size());
    }
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
        if (m_sendNumber >= m_sendLimit) {
            throw klNetError(
                "Sealed link handed over: it may send only the frames it reserved, or it would "
                "reuse the new holder's nonces");
        }
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
    std::string exportState(std::uint64_t framesReserved) override {
        std::string state(1 + 1 + 2 * kKeySize + 2 * 8, '\0');
        char* out = state.data();
        *out++ = char(kStateVersion);
        *out++ = char(m_aes ? 1 : 0);
        std::memcpy(out, m_sendKey, kKeySize);
        std::memcpy(out + kKeySize, m_recvKey, kKeySize);
        const std::uint64_t numbers[2] = {m_sendNumber + framesReserved, m_recvNumber};
        std::memcpy(out + 2 * kKeySize, numbers, sizeof(numbers));
        m_sendLimit = numbers[0];
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
    // The first frame number this end may no longer send: the new holder's after a hand-off.
    std::uint64_t m_sendLimit = std::numeric_limits<std::uint64_t>::max();
    std::unique_ptr<AesGcm> m_sendAes;
    std::unique_ptr<AesGcm> m_recvAes;
};

// Seals the link with the keys of both directions, derived from the transcript.
void sealWith(klSocketLink& link, const klNetFarmKey& key, const Transcript& transcript,
              bool accepting) {
    unsigned char c2s[kKeySize], s2c[kKeySize];
    const unsigned all = Transcript::kFlags | Transcript::kAnswer;
    transcript.derive(key, "klnet seal c2s", all, c2s);
    transcript.derive(key, "klnet seal s2c", all, s2c);
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

// The accepting side: the hello out; the client's opening (magic, random, flags, the name it
// dialed) and both its proofs in; then the verdict, with the service's proof, out.
class FarmAcceptance final : public klNetLinkSealer::Acceptance {
public:
    FarmAcceptance(const klNetFarmKey& key, const klNetNodeNames& names)
        : m_key(key), m_names(names) {
        randombytes_buf(m_transcript.serverRandom, kRandomSize);
        m_transcript.serverFlags = ownFlags();
    }

    std::string hello() override {
        std::string hello(kHelloSize, '\0');
        const std::uint32_t greeting = klSocketLink::kSealedGreeting;
        std::memcpy(hello.data(), &greeting, 4);
        std::memcpy(hello.data() + 4, kMagic, kMagicSize);
        std::memcpy(hello.data() + 4 + kMagicSize, m_transcript.serverRandom, kRandomSize);
        hello.back() = char(m_transcript.serverFlags);
        return hello;
    }

    // Refuses what no valid answer starts with as soon as it is there: another magic, a name
    // that is empty or holds other characters than a host's.
    std::size_t missing(const std::string& received) const override {
        if (received.compare(0, std::min(received.size(), kMagicSize),
                             std::string(kMagic, kMagicSize), 0,
                             std::min(received.size(), kMagicSize)) != 0) {
            throw klNetError("Peer does not speak this sealed handshake");
        }
        if (received.size() < kOpeningSize) {
            return kOpeningSize - received.size();
        }
        const std::size_t nameSize = std::uint8_t(received[kOpeningSize - 1]);
        const std::string name =
            received.substr(kOpeningSize, std::min(nameSize, received.size() - kOpeningSize));
        if (nameSize == 0 || (!name.empty() && !isWireName(name))) {
            throw klNetError("Peer's handshake names no valid node");
        }
        const std::size_t total = kOpeningSize + nameSize + 2 * kMacSize;
        return received.size() < total ? total - received.size() : 0;
    }

    void finish(const std::string& received, klSocketLink& link) override {
        const auto* answer = reinterpret_cast<const unsigned char*>(received.data());
        std::memcpy(m_transcript.clientRandom, answer + kMagicSize, kRandomSize);
        m_transcript.clientFlags = answer[kMagicSize + kRandomSize];
        const std::size_t nameSize = answer[kOpeningSize - 1];
        m_transcript.dialedName = received.substr(kOpeningSize, nameSize);
        const unsigned char* keyProof = answer + kOpeningSize + nameSize;
        const unsigned char* choiceProof = keyProof + kMacSize;

        unsigned char expected[kMacSize];
        m_transcript.derive(m_key, "klnet seal client key", Transcript::kCore, expected);
        if (sodium_memcmp(expected, keyProof, kMacSize) != 0) {
            // Closed at once: the peer learns nothing but that its key was not the farm's.
            link.shutdown();
            throw klNetError("Peer does not hold the farm key");
        }
        m_transcript.derive(m_key, "klnet seal client", Transcript::kFlags, expected);
        if (sodium_memcmp(expected, choiceProof, kMacSize) != 0) {
            refuse(link, kCipherChanged, std::string());
            throw klNetError("Peer's handshake was changed on its way: the cipher choice differs");
        }
        if (!m_names.contains(m_transcript.dialedName)) {
            refuse(link, kOtherNode, m_names.closestTo(m_transcript.dialedName));
            throw klNetError("handshake named " + m_transcript.dialedName +
                             ", which this service does not answer to");
        }
        send(link, kAccepted, std::string());
        sealWith(link, m_key, m_transcript, true);
    }

private:
    // The verdict, the service's name for the client, and the proof over both.
    void send(klSocketLink& link, Verdict verdict, const std::string& name) {
        m_transcript.verdict = verdict;
        m_transcript.answeredName = name;
        std::string out(1, char(verdict));
        out += char(name.size());
        out += name;
        unsigned char proof[kMacSize];
        m_transcript.derive(m_key, "klnet seal server", Transcript::kAnswer, proof);
        out.append(reinterpret_cast<const char*>(proof), kMacSize);
        link.send(out.data(), out.size());
    }
    // Tells a client that proved the key why it is refused, then closes.
    void refuse(klSocketLink& link, Verdict verdict, const std::string& name) {
        try {
            send(link, verdict, name);
        } catch (const std::exception&) {
            // The client has gone: it would learn nothing more.
        }
        link.shutdown();
    }

    const klNetFarmKey& m_key;
    const klNetNodeNames& m_names;
    Transcript m_transcript;
};

}  // namespace

std::unique_ptr<klNetLinkSealer::Acceptance> klNetFarmSealer::startAccept(
    const klNetNodeNames& names) {
    return std::make_unique<FarmAcceptance>(m_key, names);
}

void klNetFarmSealer::connect(klSocketLink& link, const std::string& dialedName,
                              double timeoutSeconds) {
    if (!isWireName(dialedName)) {
        throw klNetError("Cannot seal a connection to '" + dialedName +
                         "': not a host name or address with a port");
    }
    const std::string service = "The service at " + dialedName;
    Transcript transcript;
    transcript.dialedName = dialedName;
    randombytes_buf(transcript.clientRandom, kRandomSize);
    transcript.clientFlags = ownFlags();

    // The opening needs nothing of the service: it goes out with the greeting, so that a service
    // without a key, which echoes the greeting and reads the opening as a request, answers at
    // once with an error instead of the magic.
    link.setRecvTimeout(timeoutSeconds);
    std::string opening(4, '\0');
    const std::uint32_t greeting = klSocketLink::kSealedGreeting;
    std::memcpy(opening.data(), &greeting, 4);
    opening.append(kMagic, kMagicSize);
    opening.append(reinterpret_cast<const char*>(transcript.clientRandom), kRandomSize);
    opening += char(transcript.clientFlags);
    opening += char(dialedName.size());
    opening += dialedName;
    link.send(opening.data(), opening.size());

    unsigned char hello[kHelloSize];
    link.recv(hello, 4);
    if (std::memcmp(hello, &greeting, 4) != 0) {
        throw klNetError(service + " does not speak the sealed handshake");
    }
    const std::string noKey =
        service + " has no farm key: it answered the sealed greeting unsealed";
    try {
        link.recv(hello + 4, kMagicSize);
    } catch (const klConnectionClosed&) {
        throw klNetError(noKey);
    } catch (const klConnectionTimeout&) {
        throw klNetError(noKey);
    }
    const std::string magic(reinterpret_cast<const char*>(hello + 4), kMagicSize);
    if (magic != std::string(kMagic, kMagicSize)) {
        const bool otherVersion = magic.compare(0, kMagicSize - 2, kMagic, kMagicSize - 2) == 0 &&
                                  std::isdigit(static_cast<unsigned char>(magic[6])) &&
                                  std::isdigit(static_cast<unsigned char>(magic[7]));
        throw klNetError(otherVersion
                             ? service + " speaks another version of the sealed handshake (" +
                                   magic + ", this side " + std::string(kMagic, kMagicSize) + ")"
                             : noKey);
    }
    link.recv(hello + 4 + kMagicSize, kRandomSize + 1);
    std::memcpy(transcript.serverRandom, hello + 4 + kMagicSize, kRandomSize);
    transcript.serverFlags = hello[kHelloSize - 1];

    unsigned char proofs[2 * kMacSize];
    transcript.derive(m_key, "klnet seal client key", Transcript::kCore, proofs);
    transcript.derive(m_key, "klnet seal client", Transcript::kFlags, proofs + kMacSize);
    // A service that finds the key wrong closes at once, which may already meet the proofs.
    std::uint8_t verdict[2] = {};
    try {
        link.send(proofs, sizeof(proofs));
        link.recv(verdict, sizeof(verdict));
    } catch (const klConnectionClosed&) {
        throw klNetError(service + " refused the farm key: it holds another key");
    }
    std::string name(verdict[1], '\0');
    unsigned char proof[kMacSize], expected[kMacSize];
    link.recv(name.data(), name.size());
    link.recv(proof, sizeof(proof));
    transcript.verdict = verdict[0];
    transcript.answeredName = name;
    transcript.derive(m_key, "klnet seal server", Transcript::kAnswer, expected);
    if (sodium_memcmp(expected, proof, kMacSize) != 0 || verdict[0] > kCipherChanged ||
        (!name.empty() && !isWireName(name))) {
        throw klNetError(service + " proved another farm key");
    }
    if (verdict[0] == kOtherNode) {
        throw klNetError(service +
                         (name.empty() ? " does not answer to that name"
                                       : " answers to " + name + ", not to " + dialedName) +
                         ": the connection went to another node");
    }
    if (verdict[0] == kCipherChanged) {
        throw klNetError(service +
                         " refused the cipher choice: the handshake was changed on its way");
    }
    link.setRecvTimeout(0.0);
    sealWith(link, m_key, transcript, false);
}

std::shared_ptr<klSocketLink> klNetFarmSealer::connect(const klSocketAddress& address,
                                                       const std::string& dialedName,
                                                       double timeoutSeconds) {
    auto link = std::make_shared<klSocketLink>(address, timeoutSeconds);
    connect(*link, dialedName, timeoutSeconds);
    return link;
}

void klNetFarmSealer::enableHandOff() {
    initialiseSodium();
    klNetLinkSeal::setRestorer(&AeadSeal::restore);
}
