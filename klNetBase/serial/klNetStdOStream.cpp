#include <klNetBase/serial/klNetStdOStream.h>

klNetStdOStream::klNetStdOStream(klNetSerializer& serializer)
    : std::ostream(nullptr), m_buffer(std::make_unique<klNetStreamBuf>(&serializer)) {
    rdbuf(m_buffer.get());
}

// The owned buffer writes what is pending as it goes; the base destructor never touches it.
klNetStdOStream::~klNetStdOStream() = default;

void klNetStdOStream::close() {
    m_buffer->writeEOF();
}
