#include <support/klNetTestSupport.h>

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetOptions.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using kltest::readLE;

TEST(klNetBuffer, HeaderFieldsSitAtTheirWireOffsetsInLittleEndian) {
    auto buffer = std::make_unique<klNetBuffer>();
    EXPECT_EQ(24u, buffer->getBufferSize());
    EXPECT_TRUE(buffer->isMulticast());
    EXPECT_EQ(0u, readLE(buffer->getBuffer(), 0, 8) | readLE(buffer->getBuffer(), 8, 8) |
                      readLE(buffer->getBuffer(), 16, 8));
    EXPECT_EQ(buffer->getBuffer() + 24, buffer->getData());
    EXPECT_EQ(std::size_t(klNetOptions::getBufferSize()), klNetBuffer::getCapacity());

    buffer->setDataSize(0x11223344);
    buffer->setCompression(klNetCompression(0x5A), 0x55667788);
    buffer->setSequence(0x99AA);
    buffer->setType(klNetMessageTypeImage);
    buffer->setSource(0x01020304);
    buffer->setDestination(0x05060708);
    buffer->setMessageId(0xBBCC);
    buffer->setMessageBufferCount(0xDDEE);
    buffer->setSendMode(klNetSendModeSecondStage);  // local only: never in the header
    const unsigned char* wire = buffer->getBuffer();
    EXPECT_EQ(0x11223344u, readLE(wire, 0, 4));
    EXPECT_EQ(0x55667788u, readLE(wire, 4, 4));
    EXPECT_EQ(0x5A0299AAu, readLE(wire, 8, 4));  // sequence | type << 16 | compression << 24
    EXPECT_EQ(0x01020304u, readLE(wire, 12, 4));
    EXPECT_EQ(0x05060708u, readLE(wire, 16, 4));
    EXPECT_EQ(0xBBCCu, readLE(wire, 20, 2));
    EXPECT_EQ(0xDDEEu, readLE(wire, 22, 2));
    EXPECT_FALSE(buffer->isMulticast());
    EXPECT_EQ(klNetSendModeSecondStage, buffer->getSendMode());
}

TEST(klNetBuffer, GettersWidenAndSettersTruncateToTheFieldWidth) {
    auto buffer = std::make_unique<klNetBuffer>();
    buffer->setDataSize(0x1'0000'0005);
    EXPECT_EQ(5u, buffer->getDataSize());
    buffer->setDataSize(0xFFFF'FFFF);
    EXPECT_EQ(std::size_t{0xFFFF'FFFF} + 24, buffer->getBufferSize());  // no 32-bit wrap
    buffer->setSource(0x2'0000'0007);
    EXPECT_EQ(7u, buffer->getSource());
    buffer->setDestination(0x1'0000'0000);
    EXPECT_TRUE(buffer->isMulticast());
    buffer->setSequence(0x1'2345);
    EXPECT_EQ(0x2345u, buffer->getSequence());
    buffer->setMessageId(0x1'0001);
    EXPECT_EQ(1u, buffer->getMessageId());
    buffer->setMessageBufferCount(0x3'0002);
    EXPECT_EQ(2u, buffer->getMessageBufferCount());
    EXPECT_EQ(klNetMessageTypeStream, buffer->getType());  // neighbours untouched
    EXPECT_EQ(0xFFFF'FFFFu, buffer->getDataSize());

    // The size as it travels: originalDataSize uncompressed, dataSize compressed.
    buffer->setDataSize(100);
    buffer->setCompression(klNetCompressionNone, 0x1'0000'012C);
    EXPECT_EQ(300u, buffer->getCompressedDataSize());
    EXPECT_EQ(100u, buffer->getDataSize());
    buffer->setCompression(klNetCompression(2), 300);
    EXPECT_EQ(100u, buffer->getCompressedDataSize());
    EXPECT_EQ(300u, buffer->getOriginalDataSize());
}

TEST(klNetBuffer, CopyTakesTheWholeRecordAndCopyHeaderOnlyTheHeader) {
    auto source = std::make_unique<klNetBuffer>();
    auto target = std::make_unique<klNetBuffer>();
    const std::size_t last = klNetBuffer::getCapacity() - 1;
    std::memset(source->getData(), 0x11, klNetBuffer::getCapacity());
    std::memset(target->getData(), 0x22, klNetBuffer::getCapacity());
    source->setDataSize(3);
    source->setMessageId(42);
    source->setSendMode(klNetSendModeFirstStage);
    target->setSendMode(klNetSendModeSecondStage);

    target->copyHeaderFrom(*source);
    EXPECT_EQ(0, std::memcmp(source->getBuffer(), target->getBuffer(), 24));
    EXPECT_EQ(klNetSendModeSecondStage, target->getSendMode());
    EXPECT_EQ(0x22, target->getData()[0]);

    *target = *source;  // every payload byte, not only the first dataSize ones
    EXPECT_EQ(klNetSendModeFirstStage, target->getSendMode());
    EXPECT_EQ(0x11, target->getData()[last]);
    target->getData()[last] = 0x22;
    *target = std::move(*source);
    EXPECT_EQ(0x11, target->getData()[last]);
}
