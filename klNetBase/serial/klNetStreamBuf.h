// klNetStreamBuf: a std::streambuf over a klNetSerializer, for code that speaks the standard
// character streams.
//
// Characters travel as chunks inside the serializer's byte stream, each a length followed by the
// characters; a length of 0 marks the end of a stream:
//
//   +-------------+---------------+-------------+---------------+--   --+-------------+
//   | n1 (u32 LE) | n1 characters | n2 (u32 LE) | n2 characters |  ...  | 0 (u32 LE)  |
//   +-------------+---------------+-------------+---------------+--   --+-------------+
//
// Writing collects characters in a put area of 1 MiB and writes them as one chunk when the area
// is full and at every sync(); writeEOF() adds the end marker. Reading takes one chunk at a time
// into a get area of 1 MiB and reports end-of-file at the end marker, or when the connection
// closes before a chunk length; reading on after the marker starts on the next marked section. A
// chunk length above 1 MiB means the byte stream is not what this reader expects: "Datastream out
// of sync".
//
// Positions: only seeking the input to offset 0 from the beginning moves data (back to the start
// of the current chunk); every other seek only records or reports a position.
//
// Ownership: the serializer is borrowed and must outlive the buffer. The destructor writes
// characters still pending as a chunk (without end marker) and never throws.
//
// Thread safety: none; one thread at a time, like the serializer.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/serial/klNetSerializer.h>

#include <cstdint>
#include <memory>
#include <streambuf>

class KLNETBASE_EXPORT klNetStreamBuf : public std::streambuf {
public:
    static constexpr std::size_t kAreaSize = 1048576;

    explicit klNetStreamBuf(klNetSerializer* serializer);
    ~klNetStreamBuf() override;

    klNetStreamBuf(const klNetStreamBuf&) = delete;
    klNetStreamBuf& operator=(const klNetStreamBuf&) = delete;

    // Writes pending characters as a chunk, then the end marker.
    void writeEOF();

protected:
    int_type overflow(int_type c) override;
    int_type underflow() override;
    pos_type seekoff(off_type off, std::ios_base::seekdir way,
                     std::ios_base::openmode which) override;
    int sync() override;

private:
    // Writes the put area as one chunk, if it holds anything, and empties it.
    void writeChunk();

    klNetSerializer* m_serializer;
    std::unique_ptr<char[]> m_getArea;
    std::unique_ptr<char[]> m_putArea;
    // Length of the chunk in the get area.
    std::uint32_t m_chunkLength = 0;
    pos_type m_position = pos_type(off_type(0));
    pos_type m_endPosition = pos_type(off_type(-1));
};
