// Value types shared by every layer: the header field enumerations and the kinds of node
// connection. All are 32-bit enumerations in the interface; the buffer header stores the message
// type and the compression method in one byte each.
#pragma once

#include <cstdint>

// What a buffer carries (header byte at offset 10).
enum klNetMessageType : std::int32_t {
    klNetMessageTypeStream = 0,   // data written through a stream
    klNetMessageTypeMessage = 1,  // a buffer of a whole message
    klNetMessageTypeImage = 2,    // image data; compressed with the image compression setting
    klNetMessageTypeBundle = 3,   // a buffer whose payload is a run of other buffers
};

// Compression method of a payload (header byte at offset 11). 0 means not compressed; every other
// value names a method of the application's compressor.
enum klNetCompression : std::int32_t {
    klNetCompressionNone = 0,
};

// Local routing hint for the switch sender; it never travels.
enum klNetBufferSendMode : std::int32_t {
    klNetSendModeDefault = 0,     // first stage only when the payload is above the size threshold
    klNetSendModeFirstStage = 1,  // always the first stage
    klNetSendModeSecondStage = 2  // this and every other value: the second stage
};

// The kind of a connection between nodes; selects the number of parallel channels.
enum klNodeConnectionType : std::int32_t {
    klNodeConnectionSync = 1,
    klNodeConnectionImage = 2,
    klNodeConnectionLowLatency = 3,
};
