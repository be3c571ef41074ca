#include <klNetBase/recv/klNetUnbundleReceiver.h>

klNetUnbundleReceiver::klNetUnbundleReceiver(const std::shared_ptr<klNetReceiver>& child)
    : klNetReceiver(child), m_child(child) {}

std::shared_ptr<klNetReceiver> klNetUnbundleReceiver::create(
    const std::shared_ptr<klNetReceiver>& child) {
    return std::make_shared<klNetUnbundleReceiver>(child);
}

void klNetUnbundleReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    // A bundle without records yields no parts; the next buffer is read then.
    while (m_parts.empty()) {
        m_child->recv(buffer);
        if (buffer->getType() != klNetMessageTypeBundle) {
            return;
        }
        buffer->split(m_parts);
    }
    buffer = std::move(m_parts.front());
    m_parts.pop();
}
