#include <support/klNetTestSupport.h>

using namespace kltest;

namespace {

Buffers takeWritten(klNetMessage& message, std::size_t bytes) {
    const Bytes data(bytes, 0x3C);
    message.putBytes(data.data(), data.size());
    return message.takeSendBuffers();
}

}  // namespace

TEST(klNetMessage, TakenBuffersShareOneIdAndTheBufferCountAndEveryTakeDrawsAnId) {
    dirtyFreeBuffers();
    klNetMessage message;
    const Buffers one = takeWritten(message, 131072);
    const Buffers two = takeWritten(message, 131073);
    ASSERT_EQ(1u, one.size());
    ASSERT_EQ(2u, two.size());
    EXPECT_EQ(1u, one[0]->getMessageBufferCount());
    const std::size_t id = two[1]->getMessageId();
    EXPECT_EQ((one[0]->getMessageId() + 1) & 0xFFFF, id);
    for (const auto& buffer : two) {
        EXPECT_EQ(buffer->getDataSize(), buffer->getOriginalDataSize());
        EXPECT_EQ(klNetMessageTypeMessage, buffer->getType());
        EXPECT_EQ(id, buffer->getMessageId());
        EXPECT_EQ(2u, buffer->getMessageBufferCount());  // on every buffer, not only the last
    }
    EXPECT_EQ(1u, two[1]->getDataSize());

    // Taking an empty message draws an id too; after 65536 the ids wrap.
    for (int i = 0; i < 65535; ++i) {
        EXPECT_TRUE(message.takeSendBuffers().empty());
    }
    const Buffers again = takeWritten(message, 1);
    ASSERT_EQ(1u, again.size());
    EXPECT_EQ(id, again[0]->getMessageId());
    EXPECT_EQ(1u, again[0]->getDataSize());
}

TEST(klNetMessage, ReadsItsBuffersInOrderAndStopsAtTheEnd) {
    const Bytes data = pattern(15);
    const Buffers buffers = {bufferWith(Bytes(&data[0], &data[5])),
                             bufferWith(Bytes(&data[5], &data[8])),
                             bufferWith(Bytes(&data[8], &data[15]))};
    klNetMessage message;
    message.setRecvBuffers(buffers);
    Bytes read(15);
    message.getBytes(read.data(), 6);
    EXPECT_EQ(3u + 7u, message.getMessageSize());  // the current buffer counts whole
    message.setRecvBuffers(buffers);               // starts over with the first
    EXPECT_EQ(15u, message.getMessageSize());
    message.getBytes(read.data(), read.size());
    EXPECT_EQ(data, read);
    for (int attempt = 0; attempt < 2; ++attempt) {  // and the message stays at its end
        KL_EXPECT_THROW_TEXT(message.getValue(read[0]), klNetError,
                             "klNetMessage: try to read beyond buffer end.");
    }
}

TEST(klNetMessage, MoveTakesTheWrittenBuffersAlong) {
    klNetMessage source;
    const Bytes data(131073, 0x42);
    source.putBytes(data.data(), data.size());
    klNetMessage moved(std::move(source));
    klNetMessage assigned;
    assigned = std::move(moved);
    EXPECT_TRUE(source.takeSendBuffers().empty());  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(moved.takeSendBuffers().empty());   // NOLINT(bugprone-use-after-move)
    const Buffers buffers = assigned.takeSendBuffers();
    ASSERT_EQ(2u, buffers.size());
    EXPECT_EQ(data, concatPayloads(buffers));
}
