// Umbrella header of the codecs companion library: LZ4 and Zstandard compressors for the
// compressing and decompressing stages, and the ChaCha20 link cipher.
#pragma once

#include <klNetBase/codecs/klNetBlockCompressor.h>
#include <klNetBase/codecs/klNetChaChaCipher.h>
#include <klNetBase/codecs/klNetCodecsExport.h>
#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include <klNetBase/codecs/klNetLz4Compressor.h>
#include <klNetBase/codecs/klNetZstdCompressor.h>
