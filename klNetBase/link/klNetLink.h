// klNetLink: a point-to-point connection over which whole buffers travel.
//
// The send and receive pipelines hold links by std::shared_ptr and use only this interface. The
// base owns the optional cipher: a concrete send() passes each buffer through encryptBuffer()
// before writing it, a concrete recv() through decryptBuffer() after the whole buffer arrived.
// Ciphering covers wire-header bytes 4..23 and the payload; the payload-size field (bytes 0..3)
// stays in clear so that the receiver can frame the buffer before deciphering it.
//
// Thread safety: one thread sends while another receives; a third may call shutdown() to make
// both blocked calls return by throwing. Identifiers, affinity and the cipher are set before
// traffic starts and are not synchronised.
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klNetCipherBase.h>

#include <memory>
#include <queue>
#include <string>
#include <vector>

class KLNETBASE_EXPORT klNetLink : public std::enable_shared_from_this<klNetLink> {
public:
    klNetLink() = default;
    // Copies identifiers, affinity, the (shared) cipher and the user bytes; not the ownership.
    klNetLink(const klNetLink& other);
    klNetLink& operator=(const klNetLink& other);
    virtual ~klNetLink();

    // Writes one whole buffer.
    virtual void send(const std::shared_ptr<klNetBuffer>& buffer) = 0;
    // Blocks until one whole buffer has arrived and replaces what buffer held with it.
    virtual void recv(std::shared_ptr<klNetBuffer>& buffer) = 0;
    // Receives what can be had at once, at least one buffer, onto the back of queue. The default
    // receives exactly one buffer.
    virtual void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue);
    // Writes one whole buffer whose payload (header.dataSize bytes) is at payload, in the caller's
    // memory; the same bytes as send() of a buffer holding them. The default copies header and
    // payload into a pool buffer and sends that.
    virtual void sendFrom(const klNetHeader& header, const void* payload);
    // Receives one whole buffer. When its header says type `type` and at most `room` payload
    // bytes, the payload goes straight to target, its header to header, and the result is true;
    // otherwise buffer receives it as recv() would (false). The default always does the latter.
    virtual bool recvInto(void* target, std::size_t room, klNetMessageType type,
                          klNetHeader& header, std::shared_ptr<klNetBuffer>& buffer);
    // Closes the link; blocked calls on other threads end in klConnectionClosed. Any thread.
    virtual void shutdown() = 0;
    // A number identifying what a receiver polls on.
    virtual unsigned int getRecvHandle() = 0;
    // Throws klConnectionClosed when the link is no longer usable.
    virtual void checkAlive() = 0;
    // Receive time-out in seconds, 0 for none. The base cannot: "Unable to set recv timeout".
    virtual void setRecvTimeout(double seconds);
    // Whether a receive may be tried now; the base says always.
    virtual bool isReadable() { return true; }
    virtual std::string getLinkName() { return "unknown"; }

    unsigned int getId() const { return m_id; }
    void setId(unsigned int id) { m_id = id; }
    unsigned int getRemoteId() const { return m_remoteId; }
    void setRemoteId(unsigned int id) { m_remoteId = id; }
    int getNodeAffinity() const { return m_nodeAffinity; }
    void setNodeAffinity(int node) { m_nodeAffinity = node; }

    // Throws std::bad_weak_ptr for a link that no std::shared_ptr owns.
    std::shared_ptr<klNetLink> getSharedPtr() { return shared_from_this(); }

    // Empty switches ciphering off. Both ends must set equal ciphers before the first buffer.
    void setCipher(const std::shared_ptr<klNetCipherBase>& cipher) { m_cipher = cipher; }

protected:
    bool hasCipher() const { return m_cipher != nullptr; }
    // Without a cipher: buffer itself. With one: an enciphered copy from the pool; buffer is left
    // unchanged, so a buffer sent on several links is enciphered from the same clear text each
    // time.
    std::shared_ptr<klNetBuffer> encryptBuffer(const std::shared_ptr<klNetBuffer>& buffer);
    // Deciphers a received buffer in place.
    void decryptBuffer(std::shared_ptr<klNetBuffer>& buffer);

private:
    unsigned int m_id = 0;
    unsigned int m_remoteId = 0;
    int m_nodeAffinity = -1;
    std::shared_ptr<klNetCipherBase> m_cipher;
    // Application bytes carried with the link; the library does not read them.
    std::vector<unsigned char> m_userData;
};
