// klNetForwardReceiver: lets a node relay traffic.
//
// Of every buffer that arrives it keeps what is addressed to this node or to everybody, and passes
// on through its sender, bundled, what is addressed to other nodes or to everybody. Made only by
// create(), which always puts an unbundle receiver on top.
//
// Thread safety: one reader thread at a time; the sender is called from the reader's thread, so it
// must accept that (a locked or buffered sender).
#pragma once

#include <klNetBase/recv/klNetReceiver.h>
#include <klNetBase/send/klNetSender.h>

class KLNETBASE_EXPORT klNetForwardReceiver : public klNetReceiver {
public:
    // Without a sender: an unbundle receiver over child. Otherwise an unbundle receiver over a
    // forward receiver over child.
    static std::shared_ptr<klNetReceiver> create(const std::shared_ptr<klNetReceiver>& child,
                                                 const std::shared_ptr<klNetSender>& sender,
                                                 int nodeId);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;

private:
    klNetForwardReceiver(const std::shared_ptr<klNetReceiver>& child,
                         const std::shared_ptr<klNetSender>& sender, int nodeId);

    std::shared_ptr<klNetReceiver> m_child;
    std::shared_ptr<klNetSender> m_sender;
    int m_nodeId;
    // Buffers for this node not yet handed out.
    std::queue<std::shared_ptr<klNetBuffer>> m_kept;
};
