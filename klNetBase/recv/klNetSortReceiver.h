// klNetSortReceiver: puts multicast buffers back into sequence order.
//
// Stages with several threads or paths deliver buffers in any order. Multicast buffers are handed
// out strictly by sequence number, starting at 0 and wrapping at 65536; early ones are held until
// their turn. Directed buffers bypass the ordering and are handed out at once. A multicast buffer
// that never arrives stalls the multicast order.
//
// Thread safety: one reader thread at a time.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

#include <map>

class KLNETBASE_EXPORT klNetSortReceiver : public klNetReceiver {
public:
    explicit klNetSortReceiver(std::shared_ptr<klNetReceiver> child);

    static std::shared_ptr<klNetReceiver> create(const std::shared_ptr<klNetReceiver>& child);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // True while buffers are held, otherwise as the child says.
    bool isReadable() override;

private:
    std::shared_ptr<klNetReceiver> m_child;
    // The sequence number of the next multicast buffer to hand out.
    unsigned int m_expected = 0;
    // Early multicast buffers by sequence number.
    std::map<unsigned int, std::shared_ptr<klNetBuffer>> m_held;
};
