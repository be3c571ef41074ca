#include <klNetBase/recv/klNetForwardReceiver.h>

#include <klNetBase/recv/klNetUnbundleReceiver.h>

klNetForwardReceiver::klNetForwardReceiver(const std::shared_ptr<klNetReceiver>& child,
                                           const std::shared_ptr<klNetSender>& sender, int nodeId)
    : klNetReceiver(child), m_child(child), m_sender(sender), m_nodeId(nodeId) {}

std::shared_ptr<klNetReceiver> klNetForwardReceiver::create(
    const std::shared_ptr<klNetReceiver>& child, const std::shared_ptr<klNetSender>& sender,
    int nodeId) {
    if (!sender) {
        return klNetUnbundleReceiver::create(child);
    }
    return klNetUnbundleReceiver::create(
        std::shared_ptr<klNetReceiver>(new klNetForwardReceiver(child, sender, nodeId)));
}

void klNetForwardReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    const auto self = static_cast<unsigned int>(m_nodeId);
    while (m_kept.empty()) {
        std::queue<std::shared_ptr<klNetBuffer>> batch;
        m_child->recvAvailable(batch);
        std::queue<std::shared_ptr<klNetBuffer>> forward;
        for (; !batch.empty(); batch.pop()) {
            const std::shared_ptr<klNetBuffer>& arrived = batch.front();
            const auto destination = static_cast<unsigned int>(arrived->getDestination());
            if (destination == 0 || destination == self) {
                m_kept.push(arrived);
            }
            // Multicast goes on to the others as well, whatever this node's own id (even 0).
            if (destination == 0 || destination != self) {
                forward.push(arrived);
            }
        }
        std::shared_ptr<klNetBuffer> out;
        while (klNetBuffer::tryBundle(forward, out)) {
            m_sender->send(out);
        }
    }
    buffer = std::move(m_kept.front());
    m_kept.pop();
}
