#include <support/klNetTestSupport.h>

#include <gtest/gtest.h>

using namespace kltest;

TEST(klNetBuffer, HeaderFieldsSitAtTheirWireOffsetsAndSettersTruncateToTheFieldWidth) {
    auto buffer = std::make_unique<klNetBuffer>();
    EXPECT_EQ(Bytes(24, 0), headerOf(*buffer));
    EXPECT_TRUE(buffer->isMulticast());
    EXPECT_EQ(buffer->getBuffer() + 24, buffer->getData());
    EXPECT_EQ(std::size_t(klNetOptions::getBufferSize()), klNetBuffer::getCapacity());

    // Every value has one bit more than its field holds.
    buffer->setDataSize(0x1'FFFF'FFF0);
    buffer->setCompression(klNetCompression(0x5A), 0x1'5566'7788);
    buffer->setSequence(0x1'99AA);
    buffer->setType(klNetMessageTypeImage);
    buffer->setSource(0x1'0102'0304);
    buffer->setDestination(0x1'0506'0708);
    buffer->setMessageId(0x1'BBCC);
    buffer->setMessageBufferCount(0x1'DDEE);
    buffer->setSendMode(klNetSendModeSecondStage);  // local only: never in the header
    EXPECT_EQ(hex("F0FFFFFF 88776655 AA99 02 5A 04030201 08070605 CCBB EEDD"), headerOf(*buffer));
    EXPECT_EQ(0x1'0000'0008u, buffer->getBufferSize());       // no 32-bit wrap
    EXPECT_EQ(0xFFFFFFF0u, buffer->getCompressedDataSize());  // compressed: dataSize
    EXPECT_FALSE(buffer->isMulticast());
    buffer->setDestination(0x1'0000'0000);
    EXPECT_TRUE(buffer->isMulticast());
    buffer->setCompression(klNetCompressionNone, 300);  // uncompressed: originalDataSize
    EXPECT_EQ(300u, buffer->getCompressedDataSize());
}

TEST(klNetBuffer, CopyTakesTheWholeRecordAndCopyHeaderOnlyTheHeader) {
    auto source = std::make_unique<klNetBuffer>();
    auto target = std::make_unique<klNetBuffer>();
    std::memset(source->getData(), 0x11, klNetBuffer::getCapacity());
    std::memset(target->getData(), 0x22, klNetBuffer::getCapacity());
    source->setDataSize(3);
    source->setMessageId(42);
    source->setSendMode(klNetSendModeFirstStage);
    target->setSendMode(klNetSendModeSecondStage);

    target->copyHeaderFrom(*source);
    EXPECT_EQ(headerOf(*source), headerOf(*target));
    EXPECT_EQ(klNetSendModeSecondStage, target->getSendMode());
    EXPECT_EQ(0x22, target->getData()[0]);

    *target = *source;  // every payload byte, not only the first dataSize ones
    EXPECT_EQ(klNetSendModeFirstStage, target->getSendMode());
    EXPECT_EQ(0x11, target->getData()[klNetBuffer::getCapacity() - 1]);
}
