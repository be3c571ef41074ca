#include <klNetBase/send/klNetMultiSender.h>

klNetMultiSender::klNetMultiSender(std::vector<std::shared_ptr<klNetSender>> senders)
    : klNetSender(senders) {}

std::shared_ptr<klNetSender> klNetMultiSender::create(
    const std::vector<std::shared_ptr<klNetSender>>& senders) {
    if (senders.size() == 1) {
        return senders.front();
    }
    return std::make_shared<klNetMultiSender>(senders);
}

void klNetMultiSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    auto& children = getChildren();
    if (buffer->isMulticast()) {
        const auto source = static_cast<unsigned int>(buffer->getSource());
        for (const auto& child : children) {
            if (!child->hasDestination(source)) {
                child->send(buffer);
            }
        }
        return;
    }
    const auto destination = static_cast<unsigned int>(buffer->getDestination());
    if (!hasDestination(destination)) {
        return;
    }
    do {
        m_index = int((std::size_t(m_index) + 1) % children.size());
    } while (!children[std::size_t(m_index)]->hasDestination(destination));
    children[std::size_t(m_index)]->send(buffer);
}
