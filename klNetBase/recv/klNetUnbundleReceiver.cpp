#include <klNetBase/recv/klNetUnbundleReceiver.h>

#include <klNetBase/core/klNetBufferPool.h>

klNetUnbundleReceiver::klNetUnbundleReceiver(const std::shared_ptr<klNetReceiver>& child)
    : klNetReceiver(child), m_child(child) {}

std::shared_ptr<klNetReceiver> klNetUnbundleReceiver::create(
    const std::shared_ptr<klNetReceiver>& child) {
    return std::make_shared<klNetUnbundleReceiver>(child);
}

void klNetUnbundleReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    // A bundle without records yields no parts; the next buffer is read then.
    while (!m_bundle) {
        m_child->recv(buffer);
        if (buffer->getType() != klNetMessageTypeBundle) {
            return;
        }
        if (buffer->hasRecordAt(0)) {
            m_bundle = std::move(buffer);
            m_position = 0;
        }
    }
    std::shared_ptr<klNetBuffer> part = klNetBufferPool::pop();
    m_position = m_bundle->copyRecordTo(m_position, *part);
    if (!m_bundle->hasRecordAt(m_position)) {
        m_bundle.reset();
    }
    buffer = std::move(part);
}
