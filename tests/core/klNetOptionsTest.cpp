#include <support/klNetTestSupport.h>

#include <klNetBase/core/klNetInterfaceOptions.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/serial/klNetMessage.h>

#include <gtest/gtest.h>

using kltest::Bytes;
using kltest::hex;

namespace {

Bytes serialise(const klNetInterfaceOptions& options) {
    klNetMessage message;
    options.putValue(message);
    return kltest::concatPayloads(message.takeSendBuffers());
}

klNetInterfaceOptions deserialise(const Bytes& wire) {
    klNetMessage message;
    message.setRecvBuffer(kltest::bufferWith(wire));
    klNetInterfaceOptions options;  // every field is overwritten
    options.setIbDevice("stale");
    options.setEncrypted(true);
    options.getValue(message);
    return options;
}

}  // namespace

TEST(klNetOptions, NegativeCompressionSettingSelectsTheDefault) {
    struct Restore {
        ~Restore() {
            klNetOptions::setDataCompression(klNetCompression(-1));
            klNetOptions::setImageCompression(klNetCompression(-1));
        }
    } restore;
    EXPECT_EQ(klNetCompression(2), klNetOptions::getDataCompression());
    EXPECT_EQ(klNetCompressionNone, klNetOptions::getImageCompression());
    klNetOptions::setDataCompression(klNetCompression(0));
    klNetOptions::setImageCompression(klNetCompression(3));
    EXPECT_EQ(klNetCompressionNone, klNetOptions::getDataCompression());
    EXPECT_EQ(klNetCompression(3), klNetOptions::getImageCompression());
    klNetOptions::setDataCompression(klNetCompression(-5));
    klNetOptions::setImageCompression(klNetCompression(-1));
    EXPECT_EQ(klNetCompression(2), klNetOptions::getDataCompression());
    EXPECT_EQ(klNetCompressionNone, klNetOptions::getImageCompression());
}

TEST(klNetInterfaceOptions, ChannelsFallBackToDefaultsWhenNotPositive) {
    klNetInterfaceOptions options;
    EXPECT_EQ(1, options.getChannels(klNodeConnectionSync));
    EXPECT_EQ(4, options.getChannels(klNodeConnectionImage));
    EXPECT_EQ(6, options.getChannels(klNodeConnectionLowLatency));
    EXPECT_EQ(4, options.getChannels(klNodeConnectionType(0)));
    EXPECT_EQ(4, options.getChannels(klNodeConnectionType(7)));
    options.setSyncChannels(0);
    options.setImageChannels(3);
    options.setLowLatencyChannels(9);
    EXPECT_EQ(1, options.getChannels(klNodeConnectionSync));
    EXPECT_EQ(3, options.getChannels(klNodeConnectionImage));
    EXPECT_EQ(9, options.getChannels(klNodeConnectionLowLatency));
}

TEST(klNetInterfaceOptions, AddMergesWhatTheOtherSetsWithItsAsymmetries) {
    klNetInterfaceOptions base;
    base.setNodeAffinity(3);
    base.setIbDevice("mlx5_0");
    base.setIbPort(2);
    base.setSyncChannels(5);
    base.setImageChannels(6);
    base.setLowLatencyChannels(7);
    base.setEncrypted(true);
    klNetInterfaceOptions unset;  // defaults and a sync count of 0 set nothing
    unset.setSyncChannels(0);
    base.add(unset);
    EXPECT_EQ(3, base.getNodeAffinity());
    EXPECT_EQ("mlx5_0", base.getIbDevice());
    EXPECT_EQ(2, base.getIbPort());
    EXPECT_EQ(5, base.getSyncChannels());
    EXPECT_EQ(6, base.getImageChannels());
    EXPECT_TRUE(base.getEncrypted());  // never switched off

    klNetInterfaceOptions other;  // 0 is a set node and port
    other.setNodeAffinity(0);
    other.setIbPort(0);
    other.setLowLatencyChannels(8);  // lands in the image channels
    base.add(other);
    EXPECT_EQ(0, base.getNodeAffinity());
    EXPECT_EQ(0, base.getIbPort());
    EXPECT_EQ(8, base.getImageChannels());
    EXPECT_EQ(7, base.getLowLatencyChannels());

    other.setImageChannels(10);  // the low-latency count still wins
    other.setSyncChannels(12);
    other.setIbDevice("ib1");
    base.add(other);
    EXPECT_EQ(8, base.getImageChannels());
    EXPECT_EQ(12, base.getSyncChannels());
    EXPECT_EQ("ib1", base.getIbDevice());

    klNetInterfaceOptions plain;
    plain.add(base);
    EXPECT_TRUE(plain.getEncrypted());
    EXPECT_EQ(-1, plain.getLowLatencyChannels());
}

TEST(klNetInterfaceOptions, WireFormIsPinnedAndReadsBack) {
    const Bytes defaults = hex("FFFFFFFF 01000000 00 FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF 00");
    EXPECT_EQ(defaults, serialise(klNetInterfaceOptions()));
    const klNetInterfaceOptions defaultsBack = deserialise(defaults);
    EXPECT_EQ("", defaultsBack.getIbDevice());
    EXPECT_FALSE(defaultsBack.getEncrypted());
    EXPECT_EQ(-1, defaultsBack.getSyncChannels());

    klNetInterfaceOptions set;
    set.setNodeAffinity(1);
    set.setIbDevice(std::string("ib0\0tail", 8));  // travels up to the first NUL
    set.setIbPort(0x0102);
    set.setSyncChannels(2);
    set.setImageChannels(3);
    set.setLowLatencyChannels(4);
    set.setEncrypted(true);
    const Bytes wire = serialise(set);
    EXPECT_EQ(hex("01000000 04000000 69623000 02010000 02000000 03000000 04000000 01"), wire);
    const klNetInterfaceOptions back = deserialise(wire);
    EXPECT_EQ(1, back.getNodeAffinity());
    EXPECT_EQ("ib0", back.getIbDevice());
    EXPECT_EQ(0x0102, back.getIbPort());
    EXPECT_EQ(2, back.getSyncChannels());
    EXPECT_EQ(3, back.getImageChannels());
    EXPECT_EQ(4, back.getLowLatencyChannels());
    EXPECT_TRUE(back.getEncrypted());

    // A zero length is an empty device with no bytes; any non-zero flag byte is true.
    const klNetInterfaceOptions odd =
        deserialise(hex("05000000 00000000 06000000 07000000 08000000 09000000 02"));
    EXPECT_EQ(5, odd.getNodeAffinity());
    EXPECT_EQ("", odd.getIbDevice());
    EXPECT_EQ(6, odd.getIbPort());
    EXPECT_EQ(9, odd.getLowLatencyChannels());
    EXPECT_TRUE(odd.getEncrypted());
}
