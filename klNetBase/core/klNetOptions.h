// klNetOptions: the compiled-in tuning of the transport.
//
// Every value is fixed, apart from the data and image compression that an application may choose
// for the whole process. Both ends of a connection must agree on the buffer sizes, so they are
// constants rather than settings.
//
// Thread safety: the fixed values may be read from any thread. The two compression settings are
// plain process-wide integers: set them once at start-up, before streams are created.
#pragma once

#include <klNetBase/core/klNetTypes.h>
#include <klNetBase/klNetBaseExport.h>

class KLNETBASE_EXPORT klNetOptions {
public:
    static int getLowLatencyClientThreshold() { return 8196; }
    static int getLowLatencyServerThreshold() { return 1024; }
    // Payload bytes a stream puts into one buffer.
    static int getStreamBufferSize() { return 0x20000; }
    static int getMaxIOBuffers() { return 256; }
    // Payload capacity of a buffer: the stream buffer size plus 530 bytes of room.
    static int getBufferSize() { return 0x20212; }
    static klNetCompression getDefaultDataCompression() { return klNetCompression(2); }
    static klNetCompression getDefaultImageCompression() { return klNetCompressionNone; }
    static int getMaxParallelCompressions() { return 0; }
    static int getMaxParallelDecompressions() { return 0; }
    // Payloads below this many bytes are not worth compressing.
    static int getCompressionThreshold() { return 4096; }
    // Seconds.
    static double getConnectionTimeout() { return 10.0; }
    static int getDefaultServicePort() { return 8889; }
    static int getTilesPerNode() { return 6; }
    static int getLowLatencyChannels() { return 6; }
    static int getImageChannels() { return 4; }
    static int getSyncChannels() { return 1; }

    // Stores the requested compression unchecked; a negative value selects the default.
    static void setDataCompression(klNetCompression compression);
    static klNetCompression getDataCompression();
    static void setImageCompression(klNetCompression compression);
    static klNetCompression getImageCompression();

private:
    static int s_dataCompression;
    static int s_imageCompression;
};
