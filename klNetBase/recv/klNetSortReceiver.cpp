#include <klNetBase/recv/klNetSortReceiver.h>

namespace {

constexpr unsigned int kSequenceRange = 65536;

}  // namespace

klNetSortReceiver::klNetSortReceiver(std::shared_ptr<klNetReceiver> child)
    : klNetReceiver(child), m_child(std::move(child)) {}

std::shared_ptr<klNetReceiver> klNetSortReceiver::create(
    const std::shared_ptr<klNetReceiver>& child) {
    return std::make_shared<klNetSortReceiver>(child);
}

void klNetSortReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    const auto held = m_held.find(m_expected);
    if (held != m_held.end()) {
        buffer = std::move(held->second);
        m_held.erase(held);
        m_expected = (m_expected + 1) % kSequenceRange;
        return;
    }
    m_child->recv(buffer);
    if (!buffer->isMulticast()) {
        return;
    }
    while (buffer->getSequence() != m_expected) {
        m_held[unsigned(buffer->getSequence())] = std::move(buffer);
        m_child->recv(buffer);
        if (!buffer->isMulticast()) {
            return;
        }
    }
    m_expected = (unsigned(buffer->getSequence()) + 1) % kSequenceRange;
}

bool klNetSortReceiver::isReadable() {
    return !m_held.empty() || m_child->isReadable();
}
