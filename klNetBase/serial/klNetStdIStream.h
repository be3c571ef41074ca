// klNetStdIStream: a std::istream that reads from a klNetSerializer (usually a klNetStream) in
// the chunk format of klNetStreamBuf. It meets end-of-file at the writer's end marker or when the
// connection closes; clear() and read on to take the next marked section.
//
// Errors inside the buffer ("Datastream out of sync", a failing connection) follow the standard
// stream rules: they set badbit, and are rethrown when exceptions(badbit) is set.
//
// Ownership: owns its klNetStreamBuf; the serializer is borrowed and must outlive the stream.
// Thread safety: none; one thread at a time.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/serial/klNetStreamBuf.h>

#include <istream>
#include <memory>

class KLNETBASE_EXPORT klNetStdIStream : public std::istream {
public:
    explicit klNetStdIStream(klNetSerializer& serializer);
    ~klNetStdIStream() override;

    klNetStdIStream(const klNetStdIStream&) = delete;
    klNetStdIStream& operator=(const klNetStdIStream&) = delete;

private:
    std::unique_ptr<klNetStreamBuf> m_buffer;
};
