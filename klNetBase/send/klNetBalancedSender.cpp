#include <klNetBase/send/klNetBalancedSender.h>

#include <klNetBase/core/klNetError.h>

klNetBalancedSender::klNetBalancedSender(const std::vector<std::shared_ptr<klNetSender>>& senders)
    : klNetSender(senders) {}

std::shared_ptr<klNetSender> klNetBalancedSender::create(
    const std::vector<std::shared_ptr<klNetSender>>& senders) {
    if (senders.size() == 1) {
        return senders.front();
    }
    return std::make_shared<klNetBalancedSender>(senders);
}

void klNetBalancedSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    auto& children = getChildren();
    if (children.empty()) {
        throw klNetError("klNetBalancedSender: no sender to send through");
    }
    m_index = int(std::uint64_t(std::int64_t(m_index) + 1) % children.size());
    children[std::size_t(m_index)]->send(buffer);
}
