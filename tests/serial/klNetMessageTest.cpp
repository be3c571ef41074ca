#include <support/klNetTestSupport.h>

#include <klNetBase/serial/klNetMessage.h>

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

using kltest::Bytes;
using kltest::readLE;

namespace {

using BufferList = std::vector<std::shared_ptr<klNetBuffer>>;

BufferList takeWritten(std::size_t bytes) {
    klNetMessage message;
    const Bytes data(bytes, 0x3C);
    message.putBytes(data.data(), data.size());
    return message.takeSendBuffers();
}

std::size_t idOf(const BufferList& buffers) {
    EXPECT_FALSE(buffers.empty());
    return buffers.empty() ? 0 : readLE(buffers.front()->getBuffer(), 20, 2);
}

}  // namespace

TEST(klNetMessage, TakenBuffersShareOneIdAndTheBufferCount) {
    kltest::dirtyFreeBuffers();
    const BufferList one = takeWritten(131072);
    ASSERT_EQ(1u, one.size());
    EXPECT_EQ(1u, readLE(one[0]->getBuffer(), 22, 2));
    const BufferList two = takeWritten(131073);
    ASSERT_EQ(2u, two.size());
    const std::size_t id = idOf(two);
    EXPECT_EQ((idOf(one) + 1) & 0xFFFF, id);
    const std::size_t sizes[] = {131072, 1};
    for (std::size_t i = 0; i < two.size(); ++i) {
        const unsigned char* wire = two[i]->getBuffer();
        EXPECT_EQ(sizes[i], readLE(wire, 0, 4));
        EXPECT_EQ(sizes[i], readLE(wire, 4, 4));
        EXPECT_EQ(std::uint64_t(klNetMessageTypeMessage), readLE(wire, 10, 2));  // uncompressed
        EXPECT_EQ(0u, readLE(wire, 16, 4));
        EXPECT_EQ(id, readLE(wire, 20, 2));
        EXPECT_EQ(2u, readLE(wire, 22, 2));  // on every buffer, not only the last
    }
    // The full one was flushed on the way: source and sequence cleared.
    EXPECT_EQ(0u, readLE(two[0]->getBuffer(), 8, 2));
    EXPECT_EQ(0u, readLE(two[0]->getBuffer(), 12, 4));
}

TEST(klNetMessage, IdsAreConsecutiveEvenForEmptyMessagesAndWrapAt65536) {
    const std::size_t first = idOf(takeWritten(1));
    klNetMessage empty;
    EXPECT_TRUE(empty.takeSendBuffers().empty());
    const std::size_t third = idOf(takeWritten(1));
    EXPECT_EQ((first + 2) & 0xFFFF, third);
    for (int i = 0; i < 65535; ++i) {
        empty.takeSendBuffers();
    }
    EXPECT_EQ(third, idOf(takeWritten(1)));

    // The same object can be written again and draws a new id.
    klNetMessage reused;
    reused << std::uint8_t(1);
    const std::size_t a = idOf(reused.takeSendBuffers());
    reused << std::uint8_t(2);
    const BufferList again = reused.takeSendBuffers();
    EXPECT_EQ((a + 1) & 0xFFFF, idOf(again));
    ASSERT_EQ(1u, again.size());
    EXPECT_EQ(Bytes{2}, kltest::payloadOf(*again[0]));
}

TEST(klNetMessage, ReadsItsBuffersInOrderAndStopsAtTheEnd) {
    const Bytes data = kltest::pattern(15);
    const BufferList buffers = {kltest::bufferWith(Bytes(&data[0], &data[5])),
                                kltest::bufferWith(Bytes(&data[5], &data[8])),
                                kltest::bufferWith(Bytes(&data[8], &data[15]))};
    klNetMessage message;
    message.setRecvBuffers(buffers);
    EXPECT_EQ(15u, message.getMessageSize());
    Bytes read(6);
    message.getBytes(read.data(), read.size());
    EXPECT_EQ(Bytes(&data[0], &data[6]), read);
    EXPECT_EQ(3u + 7u, message.getMessageSize());  // the current buffer counts whole

    message.setRecvBuffers(buffers);  // starts over with the first
    EXPECT_EQ(15u, message.getMessageSize());
    read.resize(15);
    message.getBytes(read.data(), read.size());
    EXPECT_EQ(data, read);
    EXPECT_EQ(0u, message.getMessageSize());
    std::uint8_t beyond = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {  // and the message stays as it is
        KL_EXPECT_THROW_TEXT(message.getValue(beyond), klNetError,
                             "klNetMessage: try to read beyond buffer end.");
    }
}

TEST(klNetMessage, MoveTakesTheWrittenBuffersAlong) {
    klNetMessage source;
    const Bytes data(131073, 0x42);
    source.putBytes(data.data(), data.size());
    klNetMessage moved(std::move(source));
    EXPECT_TRUE(source.takeSendBuffers().empty());  // NOLINT(bugprone-use-after-move)
    klNetMessage assigned;
    assigned = std::move(moved);
    EXPECT_TRUE(moved.takeSendBuffers().empty());  // NOLINT(bugprone-use-after-move)
    const BufferList buffers = assigned.takeSendBuffers();
    ASSERT_EQ(2u, buffers.size());
    EXPECT_EQ(data, kltest::concatPayloads(buffers));
}
