#include <klNetBase/core/klConnectionTimeout.h>

klConnectionTimeout::klConnectionTimeout()
    : klNetError("recv error: Connected party did not properly respond after a period of time.") {}
