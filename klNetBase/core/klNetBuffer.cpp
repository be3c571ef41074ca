#include <klNetBase/core/klNetBuffer.h>

#include <klNetBase/core/klNetBufferPool.h>

#include <algorithm>
#include <cstring>
#include <vector>

klNetBuffer::klNetBuffer() : m_sendMode(klNetSendModeDefault), m_padding(), m_header() {}

void klNetBuffer::addToBundle(const std::shared_ptr<klNetBuffer>& buffer) {
    const klNetBuffer& packed = *buffer;
    unsigned char* end = m_data + m_header.dataSize;
    if (packed.getType() == klNetMessageTypeBundle) {
        std::memcpy(end, packed.m_data, packed.m_header.dataSize);
        m_header.dataSize += packed.m_header.dataSize;
    } else {
        const std::size_t size = packed.getBufferSize();
        std::memcpy(end, packed.getBuffer(), size);
        m_header.dataSize += std::uint32_t(size);
    }
}

bool klNetBuffer::tryAddToRun(std::shared_ptr<klNetBuffer>& run, bool& packed,
                              const std::shared_ptr<klNetBuffer>& next) {
    // The first buffer's room counts its header even when it is a bundle whose records go in
    // without it: the first test is 24 bytes stricter than it need be.
    const std::uint64_t used = packed ? run->getDataSize() : run->getDataSize() + kHeaderSize;
    if (run->getDataSize() == 0 || next->getDataSize() == 0 ||
        next->getDestination() != run->getDestination() ||
        next->getDataSize() + used + kHeaderSize >= kCapacity) {
        return false;
    }
    if (!packed) {
        std::shared_ptr<klNetBuffer> bundle = klNetBufferPool::pop();
        bundle->copyHeaderFrom(*run);
        bundle->setType(klNetMessageTypeBundle);
        bundle->setDataSize(0);
        bundle->setCompression(klNetCompressionNone, 0);
        bundle->setSequence(0);
        bundle->addToBundle(run);
        run = std::move(bundle);
        packed = true;
    }
    run->addToBundle(next);
    return true;
}

bool klNetBuffer::tryBundle(std::queue<std::shared_ptr<klNetBuffer>>& queue,
                            std::shared_ptr<klNetBuffer>& out) {
    if (queue.empty()) {
        return false;
    }
    std::shared_ptr<klNetBuffer> run = std::move(queue.front());
    queue.pop();
    bool packed = false;
    while (!queue.empty() && tryAddToRun(run, packed, queue.front())) {
        queue.pop();
    }
    out = std::move(run);
    return true;
}

bool klNetBuffer::hasRecordAt(std::size_t position) const {
    // Records start within the bundle's dataSize and are read as their headers say, but never
    // beyond this buffer's payload area: a header that does not fit is dropped.
    return position < std::min<std::size_t>(m_header.dataSize, kCapacity) &&
           position + kHeaderSize <= kCapacity;
}

std::size_t klNetBuffer::copyRecordTo(std::size_t position, klNetBuffer& part) const {
    const std::size_t payload = position + kHeaderSize;
    std::memcpy(&part.m_header, m_data + position, kHeaderSize);
    // The header's own size goes to find the next record; the copy stops at the area's edge.
    const std::size_t next = payload + std::size_t(part.m_header.dataSize);
    const std::size_t length = std::min<std::size_t>(part.m_header.dataSize, kCapacity - payload);
    std::memcpy(part.m_data, m_data + payload, length);
    part.m_header.dataSize = std::uint32_t(length);
    return next;
}

void klNetBuffer::split(std::queue<std::shared_ptr<klNetBuffer>>& out) const {
    std::size_t count = 0;
    for (std::size_t position = 0; hasRecordAt(position); ++count) {
        klNetHeader header;
        std::memcpy(&header, m_data + position, kHeaderSize);
        position += kHeaderSize + std::size_t(header.dataSize);
    }
    // All buffers at once, so that the pool is asked once per bundle.
    std::vector<std::shared_ptr<klNetBuffer>> buffers;
    klNetBufferPool::popMany(int(count), buffers);
    std::size_t position = 0;
    for (auto& buffer : buffers) {
        position = copyRecordTo(position, *buffer);
        out.push(std::move(buffer));
    }
}
