// klConnectionTimeout: a receive ran into its time-out. The connection stays usable.
#pragma once

#include <klNetBase/core/klNetError.h>

class KLNETBASE_EXPORT klConnectionTimeout : public klNetError {
public:
    // "recv error: Connected party did not properly respond after a period of time."
    klConnectionTimeout();
    // The same, saying how long it waited: "... after a period of time (30 s)." (the default
    // text when seconds is not above 0).
    explicit klConnectionTimeout(double seconds);
};
