#include <klNetBase/recv/klNetReceiver.h>

#include <klNetBase/core/klNetError.h>

klNetReceiver::klNetReceiver(const std::shared_ptr<klNetReceiver>& child) : m_children{child} {}

klNetReceiver::klNetReceiver(const std::vector<std::shared_ptr<klNetReceiver>>& children)
    : m_children(children) {}

klNetReceiver::~klNetReceiver() = default;

int klNetReceiver::getNodeAffinity() {
    for (const auto& child : m_children) {
        const int affinity = child->getNodeAffinity();
        if (affinity >= 0) {
            return affinity;
        }
    }
    return -1;
}

void klNetReceiver::recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) {
    std::shared_ptr<klNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
}

bool klNetReceiver::recvInto(void*, std::size_t, klNetMessageType, klNetHeader&,
                             std::shared_ptr<klNetBuffer>& buffer) {
    recv(buffer);
    return false;
}

void klNetReceiver::addToRecvQueue(const std::shared_ptr<klNetBuffer>&) {
    throw klNetError("Adding buffer to queue not supported by this receiver");
}

void klNetReceiver::getLinks(std::vector<std::shared_ptr<klNetLink>>& links) {
    for (const auto& child : m_children) {
        child->getLinks(links);
    }
}

std::vector<std::shared_ptr<klNetLink>> klNetReceiver::getLinks() {
    std::vector<std::shared_ptr<klNetLink>> links;
    getLinks(links);
    return links;
}

void klNetReceiver::shutdown() {
    for (const auto& link : getLinks()) {
        link->shutdown();
    }
}
