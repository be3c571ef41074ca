#include <klNetBase/link/klSealedFrameError.h>

klSealedFrameError::~klSealedFrameError() = default;
