#include <klNetBase/serial/klNetStreamBuf.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetError.h>

klNetStreamBuf::klNetStreamBuf(klNetSerializer* serializer)
    : m_serializer(serializer),
      m_getArea(std::make_unique<char[]>(kAreaSize)),
      m_putArea(std::make_unique<char[]>(kAreaSize)) {}

klNetStreamBuf::~klNetStreamBuf() {
    try {
        writeChunk();
    } catch (...) {
        // A destructor must not throw; the connection's error shows at its next use.
    }
}

void klNetStreamBuf::writeEOF() {
    sync();
    m_serializer->putValue(std::uint32_t(0));
}

void klNetStreamBuf::writeChunk() {
    const std::uint32_t n = std::uint32_t(pptr() - pbase());
    if (n > 0) {
        m_serializer->putValue(n);
        m_serializer->putBytes(pbase(), n);
    }
    setp(m_putArea.get(), m_putArea.get() + kAreaSize);
}

klNetStreamBuf::int_type klNetStreamBuf::overflow(int_type c) {
    writeChunk();
    if (traits_type::eq_int_type(c, traits_type::eof())) {
        return 0;
    }
    return sputc(traits_type::to_char_type(c));
}

int klNetStreamBuf::sync() {
    overflow(traits_type::eof());
    return 0;
}

klNetStreamBuf::int_type klNetStreamBuf::underflow() {
    if (gptr() < egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    std::uint32_t n = 0;
    try {
        m_serializer->getValue(n);
    } catch (const klConnectionClosed&) {
        return traits_type::eof();
    }
    // Until a whole chunk is in, the get area is empty, so a rewind never exposes stale bytes.
    m_chunkLength = 0;
    setg(m_getArea.get(), m_getArea.get(), m_getArea.get());
    if (n == 0) {
        return traits_type::eof();
    }
    if (n > kAreaSize) {
        throw klNetError("Datastream out of sync");
    }
    m_serializer->getBytes(m_getArea.get(), n);
    m_chunkLength = n;
    setg(m_getArea.get(), m_getArea.get(), m_getArea.get() + n);
    return traits_type::to_int_type(m_getArea[0]);
}

klNetStreamBuf::pos_type klNetStreamBuf::seekoff(off_type off, std::ios_base::seekdir way,
                                                 std::ios_base::openmode which) {
    const pos_type invalid = pos_type(off_type(-1));
    if (way == std::ios_base::beg) {
        if ((which & std::ios_base::in) && off == 0) {
            setg(m_getArea.get(), m_getArea.get(), m_getArea.get() + m_chunkLength);
            m_position = pos_type(off_type(0));
        } else {
            m_position = pos_type(off);
        }
        return m_position;
    }
    if (way == std::ios_base::cur) {
        return m_position != pos_type(off_type(0)) ? m_position : invalid;
    }
    if (way == std::ios_base::end) {
        m_position = m_endPosition;
        return m_position;
    }
    return invalid;
}
