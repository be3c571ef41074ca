// klSealedFrameError: a frame of a sealed link did not open (its bytes were changed, cut,
// replayed or reordered on the way, or its length is impossible). The link is shut down and
// nothing of the frame was delivered. Distinct from klNetError so that a caller can tell a
// tampered connection from an error its peer reported.
#pragma once

#include <klNetBase/core/klNetError.h>

class KLNETBASE_EXPORT klSealedFrameError : public klNetError {
public:
    using klNetError::klNetError;
    ~klSealedFrameError() override;
};
