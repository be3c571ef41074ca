// Umbrella header: everything an application needs from klNetBase.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetHeader.h>
#include <klNetBase/core/klNetInterfaceOptions.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/core/klNetTypes.h>

#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klNetCipherBase.h>
#include <klNetBase/link/klNetLink.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketHandle.h>
#include <klNetBase/link/klSocketLink.h>

#include <klNetBase/runtime/klNetProgress.h>

#include <klNetBase/serial/klNetMessage.h>
#include <klNetBase/serial/klNetSerializer.h>
