// klNetLinkSeal: authenticated encryption of every frame of one connection.
//
// A sealed klSocketLink writes each buffer as one frame
//
//   +-----------------+---------------------------------------------+
//   | length (u32 LE) | sealed: wire header + payload, then the tag |
//   +-----------------+---------------------------------------------+
//                      <------------------- length ---------------->
//
// and its peer opens the frame before it reads any byte of it: a frame whose bytes were changed,
// cut, reordered, replayed or dropped fails to open, and the link ends with an error. The length
// stays in clear (and is authenticated), so frame sizes and timing are all an observer learns.
//
// A seal holds the keys of one connection and the number of the next frame in each direction
// (each frame gets a nonce of its own from it). The two ends agree on the keys in a handshake,
// which belongs to an implementation (the codecs library derives them from a farm key); the core
// library only frames with them.
//
// Thread safety: seal() is called by the link's sending thread and open() by its receiving thread
// at the same time; each touches only its own direction's state. exportState() reads both (and
// limits the sending one) and is called only while the link carries no traffic (a hand-off).
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class KLNETBASE_EXPORT klNetLinkSeal {
public:
    virtual ~klNetLinkSeal();

    // Bytes a sealed frame adds to its clear text (the authentication tag).
    virtual std::size_t overhead() const = 0;
    // Seals clearSize bytes at clear as the next frame sent, into out (clearSize + overhead()
    // bytes); the extra bytes are authenticated but not sealed (the frame's length field).
    virtual void seal(const unsigned char* clear, std::size_t clearSize, const unsigned char* extra,
                      std::size_t extraSize, unsigned char* out) = 0;
    // Opens the next frame received (sealedSize bytes at sealed) into out (sealedSize - overhead()
    // bytes); false, and nothing to be trusted in out, when it does not authenticate.
    virtual bool open(const unsigned char* sealed, std::size_t sealedSize,
                      const unsigned char* extra, std::size_t extraSize, unsigned char* out) = 0;
    // What another process needs to go on with this connection: the keys and the next frame
    // number of each direction, the sending one advanced by framesReserved frames that this end
    // still sends itself. From then on this end seals at most framesReserved more frames: one
    // more would reuse a frame number (a nonce) of the new holder's, so seal() throws klNetError
    // instead. Secret: it travels only through a hand-off pipe, and whoever holds a copy wipes it.
    virtual std::string exportState(std::uint64_t framesReserved) = 0;

    // A sealed connection handed over from another process is rebuilt from its exported state by
    // the function an implementation registers here (once, before connections arrive).
    using Restorer = std::function<std::unique_ptr<klNetLinkSeal>(const std::string& state)>;
    static void setRestorer(Restorer restorer);
    // Throws klNetError "Sealed connection handed over, but no seal implementation is
    // registered" without one, or the restorer's error for a state it cannot use.
    static std::unique_ptr<klNetLinkSeal> restore(const std::string& state);
};
