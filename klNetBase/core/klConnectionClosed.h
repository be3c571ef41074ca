// klConnectionClosed: the peer of a connection has gone away. Always "Connection closed".
//
// Every layer reports a lost peer with this class, never with a plain klNetError, so that the
// pipelines can tell an orderly end of a connection from a fault.
#pragma once

#include <klNetBase/core/klNetError.h>

class KLNETBASE_EXPORT klConnectionClosed : public klNetError {
public:
    klConnectionClosed();
};
