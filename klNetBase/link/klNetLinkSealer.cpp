#include <klNetBase/link/klNetLinkSealer.h>

klNetLinkSealer::~klNetLinkSealer() = default;
