#include <klNetBase/core/klConnectionClosed.h>

klConnectionClosed::klConnectionClosed() : klNetError("Connection closed") {}
