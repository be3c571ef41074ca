#include <klNetBase/send/klNetSender.h>

#include <klNetBase/core/klNetBufferPool.h>

#include <klNetBase/send/klNetBalancedSender.h>
#include <klNetBase/send/klNetBufferedSender.h>
#include <klNetBase/send/klNetLinkSender.h>

#include <cstring>

klNetSender::klNetSender(const std::set<unsigned int>& destinations)
    : m_destinations(destinations) {}

klNetSender::klNetSender(const std::shared_ptr<klNetSender>& child)
    : m_children{child}, m_destinations(child->getDestinations()) {}

klNetSender::klNetSender(const std::shared_ptr<klNetSender>& a,
                         const std::shared_ptr<klNetSender>& b)
    : klNetSender(std::vector<std::shared_ptr<klNetSender>>{a, b}) {}

klNetSender::klNetSender(const std::vector<std::shared_ptr<klNetSender>>& children)
    : m_children(children) {
    for (const auto& child : m_children) {
        m_destinations.insert(child->getDestinations().begin(), child->getDestinations().end());
    }
}

klNetSender::~klNetSender() = default;

int klNetSender::getNodeAffinity() {
    for (const auto& child : m_children) {
        const int affinity = child->getNodeAffinity();
        if (affinity >= 0) {
            return affinity;
        }
    }
    return -1;
}

void klNetSender::sendFrom(const klNetHeader& header, const void* payload) {
    std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
    buffer->setSendMode(klNetSendModeDefault);
    *buffer->getHeader() = header;
    std::memcpy(buffer->getData(), payload, header.dataSize);
    send(buffer);
}

void klNetSender::resetStatistics() {
    for (const auto& child : m_children) {
        child->resetStatistics();
    }
}

std::uint64_t klNetSender::getCompressedBytes() {
    std::uint64_t bytes = 0;
    for (const auto& child : m_children) {
        bytes += child->getCompressedBytes();
    }
    return bytes;
}

void klNetSender::waitAllDataTransfered() {
    for (const auto& child : m_children) {
        child->waitAllDataTransfered();
    }
}

void klNetSender::getLinks(std::vector<std::shared_ptr<klNetLink>>& links) {
    for (const auto& child : m_children) {
        child->getLinks(links);
    }
}

std::vector<std::shared_ptr<klNetLink>> klNetSender::getLinks() {
    std::vector<std::shared_ptr<klNetLink>> links;
    getLinks(links);
    return links;
}

void klNetSender::shutdown() {
    for (const auto& link : getLinks()) {
        link->shutdown();
    }
}

std::shared_ptr<klNetSender> klNetSender::createBundle(
    std::vector<std::shared_ptr<klNetLink>> links, bool buffered,
    const std::set<unsigned int>& destinations) {
    std::vector<std::shared_ptr<klNetSender>> senders;
    senders.reserve(links.size());
    for (const auto& link : links) {
        senders.push_back(klNetLinkSender::create(link, destinations));
    }
    if (buffered) {
        return klNetBufferedSender::create(senders, -1);
    }
    return klNetBalancedSender::create(senders);
}
