#include <klNetBase/serial/klNetStdIStream.h>

klNetStdIStream::klNetStdIStream(klNetSerializer& serializer)
    : std::istream(nullptr), m_buffer(std::make_unique<klNetStreamBuf>(&serializer)) {
    rdbuf(m_buffer.get());
}

klNetStdIStream::~klNetStdIStream() = default;
