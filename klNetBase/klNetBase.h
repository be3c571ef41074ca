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

#include <klNetBase/serial/klNetMessage.h>
#include <klNetBase/serial/klNetSerializer.h>
#include <klNetBase/serial/klNetStdIStream.h>
#include <klNetBase/serial/klNetStdOStream.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/serial/klNetStreamBuf.h>

#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klNetCipherBase.h>
#include <klNetBase/link/klNetLink.h>
#include <klNetBase/link/klNetLinkSeal.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/link/klSealedFrameError.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketHandle.h>
#include <klNetBase/link/klSocketKeepAlive.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/link/klSocketPipe.h>

#include <klNetBase/send/klNetBalancedSender.h>
#include <klNetBase/send/klNetBufferedSender.h>
#include <klNetBase/send/klNetCompressSender.h>
#include <klNetBase/send/klNetCompressorBase.h>
#include <klNetBase/send/klNetLinkSender.h>
#include <klNetBase/send/klNetLockedSender.h>
#include <klNetBase/send/klNetMultiSender.h>
#include <klNetBase/send/klNetSender.h>
#include <klNetBase/send/klNetSwitchSender.h>

#include <klNetBase/recv/klNetBufferedReceiver.h>
#include <klNetBase/recv/klNetDecompressReceiver.h>
#include <klNetBase/recv/klNetForwardReceiver.h>
#include <klNetBase/recv/klNetLinkReceiver.h>
#include <klNetBase/recv/klNetMultiLinkReceiver.h>
#include <klNetBase/recv/klNetReadAheadReceiver.h>
#include <klNetBase/recv/klNetReceiver.h>
#include <klNetBase/recv/klNetSortReceiver.h>
#include <klNetBase/recv/klNetUnbundleReceiver.h>

#include <klNetBase/runtime/klNetActionManager.h>
#include <klNetBase/runtime/klNetAffinityManager.h>
#include <klNetBase/runtime/klNetMem.h>
#include <klNetBase/runtime/klNetProgress.h>
#include <klNetBase/runtime/klNetRuntimeBase.h>

#include <klNetBase/service/klNetPeerFilter.h>
#include <klNetBase/service/klNetServerProcess.h>
#include <klNetBase/service/klNetService.h>
#include <klNetBase/service/klNetServiceStatus.h>
#include <klNetBase/service/klNetUtils.h>
