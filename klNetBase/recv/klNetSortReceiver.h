// klNetSortReceiver: puts multicast buffers back into sequence order.
//
// Stages with several threads or paths deliver buffers in any order. Multicast buffers are handed
// out strictly by sequence number, starting at 0 and wrapping at 65536; early ones are held until
// their turn. Directed buffers bypass the ordering and are handed out at once. A multicast buffer
// that never arrives stalls the multicast order.
//
// What is held waiting for a gap is bounded, since a peer decides the sequence numbers: held
// buffers may take at most getMaxHeldBytes() (default 32 MiB), a buffer held as it is counting as
// the whole pool buffer it occupies (131712 bytes) and a copied one as its wire size. The first
// 64 held buffers are kept as they are, so reordering between a few paths copies nothing; beyond
// that, buffers of at most 16 KiB on the wire are copied out of their pool buffers (a stripe of
// small buffers may leave thousands waiting on one slow path). A buffer that would exceed the
// bound is dropped with "Multicast buffer <n> never arrived: more than <bytes> bytes held after
// it", n being the sequence number waited for; the held buffers stay.
//
// Thread safety: one reader thread at a time.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

#include <cstddef>
#include <map>
#include <vector>

class KLNETBASE_EXPORT klNetSortReceiver : public klNetReceiver {
public:
    // At most 32 MiB held: a hostile peer that never sends the awaited number cannot fill memory.
    static constexpr std::size_t kDefaultMaxHeldBytes = std::size_t(32) << 20;

    explicit klNetSortReceiver(std::shared_ptr<klNetReceiver> child);

    static std::shared_ptr<klNetReceiver> create(const std::shared_ptr<klNetReceiver>& child);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // True while buffers are held, otherwise as the child says.
    bool isReadable() override;

    void setMaxHeldBytes(std::size_t bytes) { m_maxHeldBytes = bytes; }
    std::size_t getMaxHeldBytes() const { return m_maxHeldBytes; }

private:
    // An early buffer: the pool buffer itself, or a copy of its header and payload.
    struct Held {
        std::shared_ptr<klNetBuffer> buffer;
        std::vector<unsigned char> bytes;
        klNetBufferSendMode sendMode = klNetSendModeDefault;
    };

    static std::size_t costOf(const Held& held);
    // Holds buffer under its sequence number, replacing one held under the same number.
    void hold(std::shared_ptr<klNetBuffer>& buffer);
    // Hands out the held entry and removes it.
    void release(std::map<unsigned int, Held>::iterator held, std::shared_ptr<klNetBuffer>& buffer);

    std::shared_ptr<klNetReceiver> m_child;
    // The sequence number of the next multicast buffer to hand out.
    unsigned int m_expected = 0;
    // Early multicast buffers by sequence number.
    std::map<unsigned int, Held> m_held;
    // What m_held takes, as costOf counts it, and how many of its entries are pool buffers.
    std::size_t m_heldBytes = 0;
    std::size_t m_heldAsIs = 0;
    std::size_t m_maxHeldBytes = kDefaultMaxHeldBytes;
};
