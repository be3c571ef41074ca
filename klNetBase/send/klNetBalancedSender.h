// klNetBalancedSender: spreads buffers over equivalent children (typically several links to one
// peer) in round robin; destinations are not consulted.
// Thread safety: none (the rotation index is plain).
#pragma once

#include <klNetBase/send/klNetSender.h>

class KLNETBASE_EXPORT klNetBalancedSender : public klNetSender {
public:
    explicit klNetBalancedSender(const std::vector<std::shared_ptr<klNetSender>>& senders);

    // Exactly one sender: that sender itself; otherwise a balanced sender over the senders.
    static std::shared_ptr<klNetSender> create(
        const std::vector<std::shared_ptr<klNetSender>>& senders);

    // Without children there is nobody to send through: klNetError.
    void send(const std::shared_ptr<klNetBuffer>& buffer) override;

private:
    int m_index = 0;
};
