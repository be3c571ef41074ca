#include <klNetBase/core/klNetBuffer.h>

klNetBuffer::klNetBuffer() : m_sendMode(klNetSendModeDefault), m_padding(), m_header() {}
