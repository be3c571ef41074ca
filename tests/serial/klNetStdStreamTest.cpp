// The standard stream adapters between two klNetStreams over a loopback link.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/serial/klNetStdIStream.h>
#include <klNetBase/serial/klNetStdOStream.h>
#include <klNetBase/serial/klNetStream.h>

#include <gtest/gtest.h>

#include <iterator>

using kltest::hex;
using kltest::kBound;
using kltest::Task;

namespace {

struct Pair {
    Pair() {
        auto links = kltest::connectedPair();
        near = links.first;
        writer = std::make_shared<klNetStream>(links.first);
        reader = std::make_shared<klNetStream>(links.second);
    }
    // The next n bytes of the reader's byte stream.
    kltest::Bytes bytes(std::size_t n) {
        kltest::Bytes got(n);
        reader->getBytes(got.data(), n);
        return got;
    }
    std::shared_ptr<klSocketLink> near;
    std::shared_ptr<klNetStream> writer, reader;
};

constexpr std::uint32_t kSentinel = 0xDDCCBBAA;  // written after each case: nothing more came

}  // namespace

TEST(klNetStdOStream, WritesLengthPrefixedChunksAndAnEndMarkerOnlyOnClose) {
    struct Row {
        std::string text;
        bool close;
        const char* wire;
    };
    const Row rows[] = {
        {"abc", true, "03000000 616263 00000000"},
        {"", true, "00000000"},
        {"abc", false, "03000000 616263"},  // destroyed unclosed: the chunk, no marker
        {"", false, ""},
    };
    Pair pair;
    for (const Row& row : rows) {
        {
            klNetStdOStream out(*pair.writer);
            out << row.text;
            if (row.close)
                out.close();
        }
        pair.writer->putValue(kSentinel);
        *pair.writer << klNetStream::flush;
        kltest::Bytes expected = hex(row.wire + std::string("AABBCCDD"));
        EXPECT_EQ(expected, pair.bytes(expected.size())) << row.text << row.close;
    }
    // A full area makes a chunk of 1 MiB; the rest goes at the next flush.
    Task write([w = pair.writer] {
        klNetStdOStream out(*w);
        out << std::string(klNetStreamBuf::kAreaSize + 1, 'x') << std::flush;
        out.close();
        *w << klNetStream::flush;
    });
    EXPECT_EQ(hex("00001000"), pair.bytes(4));
    EXPECT_EQ(kltest::Bytes(klNetStreamBuf::kAreaSize, 'x'), pair.bytes(klNetStreamBuf::kAreaSize));
    EXPECT_EQ(hex("01000000 78 00000000"), pair.bytes(9));
    ASSERT_TRUE(write.finishedWithin(kBound));
}

TEST(klNetStdIStream, ReadsTextAcrossChunksUpToEachMarkerThenEndsQuietlyWhenTheLinkCloses) {
    Pair pair;
    std::string big(2 * klNetStreamBuf::kAreaSize + 12345, ' ');
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = char('a' + i * 7 % 26);
    Task write([w = pair.writer, near = pair.near, big] {
        klNetStdOStream out(*w);
        out << big;
        out.close();
        out << "second section" << std::flush;
        out.close();
        *w << klNetStream::flush;
        w->putValue(std::uint32_t(klNetStreamBuf::kAreaSize + 1));  // a length no writer makes
        *w << klNetStream::flush;
        near->shutdown();
    });
    klNetStdIStream in(*pair.reader);
    EXPECT_EQ(big, std::string(std::istreambuf_iterator<char>(in), {}));  // up to the marker
    std::string word;
    EXPECT_TRUE(in >> word);  // reading on starts the next section
    EXPECT_EQ("second", word);
    // Back to the start of the chunk, the only seek that moves data; a stored 0 reads as invalid.
    EXPECT_EQ(-1, in.seekg(0, std::ios::beg).tellg());
    EXPECT_TRUE(std::getline(in, word));
    EXPECT_EQ("second section", word);
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(17, in.seekg(17, std::ios::beg).tellg());
    EXPECT_EQ(-1, in.seekg(0, std::ios::end).tellg());
    in.clear();
    in.exceptions(std::ios::badbit);
    KL_EXPECT_THROW_TEXT(in >> word, klNetError, "Datastream out of sync");
    in.clear();
    EXPECT_FALSE(in >> word);  // closed connection: end-of-file, no exception
    EXPECT_TRUE(in.eof());
    ASSERT_TRUE(write.finishedWithin(kBound));
}
