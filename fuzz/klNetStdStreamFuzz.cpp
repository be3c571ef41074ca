// Fuzz target: a standard input stream (klNetStdIStream over klNetStreamBuf) reading the chunks of
// whatever stream data a peer sends.
//
// Input: a byte choosing the cut of the data into stream-data buffers (0-127: 1 to 128 bytes
// each, 128-255: 1 to 128 KiB), a byte of settings (bit 0: run the plan instead of the check; bit
// 1: the stream throws on badbit), a 16-bit count of characters after which the check rewinds to
// the start of the current chunk (0: never), a byte giving the length of a plan (1 to 16 bytes),
// the plan, then the stream data: chunk lengths and characters as a writer sends them, or
// anything else.
//
// The check reads character by character through the stream's buffer and compares what it gets
// with what the chunk format says the data holds: each marked section's characters followed by
// end-of-file, then end-of-file when the data ends before a chunk length, "Datastream out of
// sync" for a length above 1 MiB, or klConnectionClosed when the data ends inside a chunk. Any
// difference (a lost, repeated or invented character) is a finding. The plan instead applies the
// standard stream operations in the order it names (formatted and unformatted reads, seeks,
// clear after end-of-file), which must end in a value, a stream state or klNetError.
#include "klFuzzSupport.h"

#include <ios>
#include <istream>
#include <string>

namespace {

constexpr int kEof = -1;

// What reading the data must yield: the characters and end-of-file events in order, and how the
// reading ends.
struct Expected {
    enum End { kClosed, kOutOfSync, kCutInChunk };
    std::vector<int> events;
    End end = kClosed;
};

// The chunk format read by hand. rewindAfter: the reader goes back to the start of the current
// chunk once it has taken that many characters, and so takes that chunk's characters so far
// again.
Expected expectedFrom(const std::vector<std::uint8_t>& data, std::size_t rewindAfter) {
    Expected expected;
    std::size_t characters = 0;
    std::size_t at = 0;
    while (true) {
        if (data.size() - at < 4) {
            expected.events.push_back(kEof);  // the connection closes before a length
            expected.end = Expected::kClosed;
            return expected;
        }
        const std::uint32_t length = std::uint32_t(data[at]) | std::uint32_t(data[at + 1]) << 8 |
                                     std::uint32_t(data[at + 2]) << 16 |
                                     std::uint32_t(data[at + 3]) << 24;
        at += 4;
        if (length == 0) {
            expected.events.push_back(kEof);  // end of a marked section
            continue;
        }
        if (length > klNetStreamBuf::kAreaSize) {
            expected.end = Expected::kOutOfSync;
            return expected;
        }
        if (data.size() - at < length) {
            expected.end = Expected::kCutInChunk;
            return expected;
        }
        for (std::size_t i = 0; i < length; ++i) {
            expected.events.push_back(data[at + i]);
            if (++characters == rewindAfter) {
                expected.events.insert(expected.events.end(), data.begin() + long(at),
                                       data.begin() + long(at + i + 1));
            }
        }
        at += length;
    }
}

void check(klNetStdIStream& stream, const std::vector<std::uint8_t>& data,
           std::size_t rewindAfter) {
    const Expected expected = expectedFrom(data, rewindAfter);
    // Reading stops after the last end-of-file expected, or one more when an error should end it
    // instead: enough to show a difference, and a bound should the buffer report end-of-file for
    // ever.
    std::size_t eofLimit = expected.end == Expected::kClosed ? 0 : 1;
    for (const int event : expected.events) {
        eofLimit += event == kEof ? 1 : 0;
    }

    std::streambuf& buffer = *stream.rdbuf();
    std::vector<int> events;
    Expected::End end = Expected::kClosed;
    std::size_t characters = 0;
    std::size_t eofs = 0;
    try {
        while (eofs < eofLimit) {
            if (characters == rewindAfter && rewindAfter != 0) {
                buffer.pubseekoff(0, std::ios_base::beg, std::ios_base::in);
                rewindAfter = 0;
            }
            const int c = buffer.sbumpc();
            if (c == std::streambuf::traits_type::eof()) {
                events.push_back(kEof);
                ++eofs;
            } else {
                events.push_back(c);
                ++characters;
            }
        }
    } catch (const klConnectionClosed&) {
        end = Expected::kCutInChunk;
    } catch (const klNetError& e) {
        if (std::string(e.what()) != "Datastream out of sync") {
            std::fprintf(stderr, "fuzz harness: unexpected error text \"%s\"\n", e.what());
            std::abort();
        }
        end = Expected::kOutOfSync;
    }
    if (events != expected.events || end != expected.end) {
        std::fprintf(stderr,
                     "fuzz harness: read %zu events ending %d, the chunks hold %zu ending %d\n",
                     events.size(), int(end), expected.events.size(), int(expected.end));
        std::size_t same = 0;
        while (same < events.size() && same < expected.events.size() &&
               events[same] == expected.events[same]) {
            ++same;
        }
        std::fprintf(stderr, "fuzz harness: first difference at event %zu: %d, not %d\n", same,
                     same < events.size() ? events[same] : -2,
                     same < expected.events.size() ? expected.events[same] : -2);
        std::abort();
    }
}

// One input stream for the whole run, brought back to its state after construction between
// inputs: a new stream buffer allocates and zeroes 2 MiB, which would cost more than all the
// reading an input does.
class Reader {
public:
    static Reader& instance() {
        static Reader reader;
        return reader;
    }

    // Leaves the buffer as construction did: no characters in its get area, no current chunk,
    // position 0; the stream in good state without exceptions; nothing in the connection.
    void reset() {
        stream.exceptions(std::ios_base::goodbit);
        stream.clear();
        std::streambuf& buffer = *stream.rdbuf();
        while (buffer.in_avail() > 0) {
            buffer.sbumpc();
        }
        connection.discardUnread();
        // An end marker empties the get area and forgets the chunk; a rewind then sets position 0.
        connection.setReceiver(klNetLinkReceiver::create(
            std::make_shared<klfuzz::StreamDataLink>(std::vector<std::uint8_t>(4, 0), 4)));
        buffer.sgetc();
        buffer.pubseekoff(0, std::ios_base::beg, std::ios_base::in);
    }

    // A stream without chains that can drop the rest of its receive buffer.
    class Connection : public klNetStream {
    public:
        void discardUnread() { discardRecvBuffer(); }
    };

    Connection connection;
    klNetStdIStream stream{connection};

private:
    Reader() = default;
};

void step(klNetStdIStream& stream, std::uint8_t operation) {
    const std::size_t amount = std::size_t(operation >> 4) * 97 + 1;
    switch (operation % 16) {
        case 0:
            stream.get();
            break;
        case 1: {
            std::string line;
            std::getline(stream, line);
            break;
        }
        case 2: {
            char chunk[16 * 97];
            stream.read(chunk, std::streamsize(amount));
            break;
        }
        case 3: {
            int value = 0;
            stream >> value;
            break;
        }
        case 4: {
            std::string word;
            stream >> word;
            break;
        }
        case 5:
            stream.seekg(0);
            break;
        case 6:
            stream.clear();  // read on into the next marked section
            break;
        case 7:
            stream.ignore(std::streamsize(amount));
            break;
        case 8:
            stream.tellg();
            break;
        case 9:
            stream.seekg(std::streamoff(amount));
            break;
        case 10:
            stream.seekg(0, std::ios_base::end);
            break;
        case 11:
            stream.peek();
            break;
        case 12:
            stream.unget();
            break;
        case 13: {
            char chunk[16 * 97];
            stream.readsome(chunk, std::streamsize(amount));
            break;
        }
        case 14:
            stream.seekg(std::streamoff(amount), std::ios_base::cur);
            break;
        default: {
            double value = 0;
            stream >> value;
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const std::uint8_t cut = input.u8();
    const std::size_t piece = cut < 128 ? std::size_t(cut) + 1 : std::size_t(cut - 127) * 1024;
    const std::uint8_t settings = input.u8();
    const std::size_t rewindAfter = input.u16();
    const std::vector<std::uint8_t> plan = input.bytes(std::size_t(input.u8() % 16) + 1);
    const std::vector<std::uint8_t> streamData = input.rest();

    Reader& reader = Reader::instance();
    klNetStdIStream& stream = reader.stream;
    reader.connection.setReceiver(
        klNetLinkReceiver::create(std::make_shared<klfuzz::StreamDataLink>(streamData, piece)));
    if ((settings & 1) == 0) {
        check(stream, streamData, rewindAfter);
    } else {
        if ((settings & 2) != 0) {
            stream.exceptions(std::ios_base::badbit);
        }
        // Every operation either takes characters or changes nothing once the data is gone; the
        // bound only keeps rewinds from re-reading one chunk without end.
        for (std::size_t i = 0; i < 256 && !plan.empty(); ++i) {
            try {
                step(stream, plan[i % plan.size()]);
            } catch (const klNetError&) {
                // Out of sync or closed inside a chunk, passed on by the stream (badbit).
            } catch (const std::ios_base::failure&) {
                // badbit set by the stream itself (a failed unget).
            }
        }
    }
    reader.reset();
    return 0;
}
