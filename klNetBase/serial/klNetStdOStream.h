// klNetStdOStream: a std::ostream that writes into a klNetSerializer (usually a klNetStream) in
// the chunk format of klNetStreamBuf. close() ends the stream with the end marker; a stream
// destroyed without close() writes its pending characters but no marker.
//
// Ownership: owns its klNetStreamBuf; the serializer is borrowed and must outlive the stream.
// Thread safety: none; one thread at a time.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/serial/klNetStreamBuf.h>

#include <memory>
#include <ostream>

class KLNETBASE_EXPORT klNetStdOStream : public std::ostream {
public:
    explicit klNetStdOStream(klNetSerializer& serializer);
    ~klNetStdOStream() override;

    klNetStdOStream(const klNetStdOStream&) = delete;
    klNetStdOStream& operator=(const klNetStdOStream&) = delete;

    // Writes pending characters and the end marker.
    void close();

private:
    std::unique_ptr<klNetStreamBuf> m_buffer;
};
