// klConnectionTimeout: a receive ran into its time-out. The connection stays usable.
#pragma once

#include <klNetBase/core/klNetError.h>

class KLNETBASE_EXPORT klConnectionTimeout : public klNetError {
public:
    klConnectionTimeout();
};
