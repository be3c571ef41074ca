#include <klNetBase/recv/klNetSortReceiver.h>

#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>

#include <cstring>
#include <sstream>

namespace {

constexpr unsigned int kSequenceRange = 65536;
// Held as they are before any is copied.
constexpr std::size_t kHeldAsIs = 64;
// The largest buffer, on the wire, worth copying out of its pool buffer.
constexpr std::size_t kLargestCopied = 16 * 1024;

}  // namespace

klNetSortReceiver::klNetSortReceiver(std::shared_ptr<klNetReceiver> child)
    : klNetReceiver(child), m_child(std::move(child)) {}

std::shared_ptr<klNetReceiver> klNetSortReceiver::create(
    const std::shared_ptr<klNetReceiver>& child) {
    return std::make_shared<klNetSortReceiver>(child);
}

std::size_t klNetSortReceiver::costOf(const Held& held) {
    return held.buffer ? sizeof(klNetBuffer) : held.bytes.size();
}

void klNetSortReceiver::hold(std::shared_ptr<klNetBuffer>& buffer) {
    const unsigned int sequence = unsigned(buffer->getSequence());
    Held held;
    if (m_heldAsIs < kHeldAsIs || buffer->getBufferSize() > kLargestCopied) {
        held.buffer = std::move(buffer);
    } else {
        held.bytes.assign(buffer->getBuffer(), buffer->getBuffer() + buffer->getBufferSize());
        held.sendMode = buffer->getSendMode();
    }
    const auto replaced = m_held.find(sequence);
    const std::size_t freed = replaced == m_held.end() ? 0 : costOf(replaced->second);
    if (m_heldBytes - freed + costOf(held) > m_maxHeldBytes) {
        throw klNetError(std::ostringstream()
                         << "Multicast buffer " << m_expected << " never arrived: more than "
                         << m_maxHeldBytes << " bytes held after it");
    }
    if (replaced != m_held.end()) {
        m_heldAsIs -= replaced->second.buffer ? 1 : 0;
        m_held.erase(replaced);
    }
    m_heldBytes = m_heldBytes - freed + costOf(held);
    m_heldAsIs += held.buffer ? 1 : 0;
    m_held.emplace(sequence, std::move(held));
    buffer.reset();
}

void klNetSortReceiver::release(std::map<unsigned int, Held>::iterator held,
                                std::shared_ptr<klNetBuffer>& buffer) {
    m_heldBytes -= costOf(held->second);
    if (held->second.buffer) {
        --m_heldAsIs;
        buffer = std::move(held->second.buffer);
    } else {
        const std::vector<unsigned char>& bytes = held->second.bytes;
        buffer = klNetBufferPool::pop();
        std::memcpy(buffer->getBuffer(), bytes.data(), bytes.size());
        buffer->setSendMode(held->second.sendMode);
    }
    m_held.erase(held);
}

void klNetSortReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    const auto held = m_held.find(m_expected);
    if (held != m_held.end()) {
        release(held, buffer);
        m_expected = (m_expected + 1) % kSequenceRange;
        return;
    }
    m_child->recv(buffer);
    if (!buffer->isMulticast()) {
        return;
    }
    while (buffer->getSequence() != m_expected) {
        hold(buffer);
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
