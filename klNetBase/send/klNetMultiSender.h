// klNetMultiSender: routes buffers to children by destination.
//
// A multicast buffer (destination 0) goes to every child except those that reach its source, so
// a buffer never travels back towards the node it came from; the same buffer object goes to each.
// A directed buffer goes to the next child, in rotation, that reaches its destination; one for a
// destination not in this stage's own set is dropped silently. The own set is trusted to name only
// destinations some child serves.
//
// Thread safety: none (the rotation index is plain); wrap in klNetLockedSender for several callers.
#pragma once

#include <klNetBase/send/klNetSender.h>

class KLNETBASE_EXPORT klNetMultiSender : public klNetSender {
public:
    explicit klNetMultiSender(std::vector<std::shared_ptr<klNetSender>> senders);

    // Exactly one sender: that sender itself; otherwise a multi sender over the senders.
    static std::shared_ptr<klNetSender> create(
        const std::vector<std::shared_ptr<klNetSender>>& senders);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;

private:
    int m_index = 0;
};
