#include <support/klNetTestSupport.h>

#include <sstream>

using namespace kltest;

namespace {

klNetInterfaceOptions make(int node, const std::string& device, int port, int sync, int image,
                           int lowLatency, bool encrypted) {
    klNetInterfaceOptions options;
    options.setNodeAffinity(node);
    options.setIbDevice(device);
    options.setIbPort(port);
    options.setSyncChannels(sync);
    options.setImageChannels(image);
    options.setLowLatencyChannels(lowLatency);
    options.setEncrypted(encrypted);
    return options;
}

// "node/device/port/sync/image/lowLatency/encrypted"
std::string fields(const klNetInterfaceOptions& o) {
    std::ostringstream text;
    text << o.getNodeAffinity() << '/' << o.getIbDevice() << '/' << o.getIbPort() << '/'
         << o.getSyncChannels() << '/' << o.getImageChannels() << '/' << o.getLowLatencyChannels()
         << '/' << o.getEncrypted();
    return text.str();
}

Bytes serialise(const klNetInterfaceOptions& options) {
    klNetMessage message;
    options.putValue(message);
    return concatPayloads(message.takeSendBuffers());
}

klNetInterfaceOptions deserialise(const Bytes& wire) {
    klNetMessage message;
    message.setRecvBuffer(bufferWith(wire));
    auto options = make(9, "stale", 9, 9, 9, 9, true);  // every field is overwritten
    options.getValue(message);
    return options;
}

}  // namespace

TEST(klNetOptions, NegativeCompressionSettingSelectsTheDefault) {
    for (const int setting : {0, 3, -5, -1}) {  // ends as the process started
        klNetOptions::setDataCompression(klNetCompression(setting));
        klNetOptions::setImageCompression(klNetCompression(setting));
        EXPECT_EQ(setting < 0 ? 2 : setting, klNetOptions::getDataCompression());
        EXPECT_EQ(setting < 0 ? 0 : setting, klNetOptions::getImageCompression());
    }
}

TEST(klNetInterfaceOptions, ChannelsFallBackToDefaultsWhenNotPositive) {
    const auto channels = [](const klNetInterfaceOptions& o) {
        return std::vector<int>{
            o.getChannels(klNodeConnectionSync), o.getChannels(klNodeConnectionImage),
            o.getChannels(klNodeConnectionLowLatency), o.getChannels(klNodeConnectionType(0))};
    };
    EXPECT_EQ((std::vector<int>{1, 4, 9, 4}), channels(make(-1, "", -1, 0, -1, 9, false)));
    EXPECT_EQ((std::vector<int>{2, 3, 6, 4}), channels(make(-1, "", -1, 2, 3, 0, false)));
}

TEST(klNetInterfaceOptions, AddMergesWhatTheOtherSetsWithItsAsymmetries) {
    auto base = make(3, "mlx5_0", 2, 5, 6, 7, true);
    base.add(make(-1, "", -1, 0, -1, -1, false));  // sets nothing; encryption is never switched off
    EXPECT_EQ("3/mlx5_0/2/5/6/7/1", fields(base));
    base.add(make(0, "", 0, -1, -1, 8, false));     // 0 is a set node and port
    EXPECT_EQ("0/mlx5_0/0/5/8/7/1", fields(base));  // low latency lands in the image channels
    base.add(make(-1, "ib1", -1, 12, 10, 8, false));
    EXPECT_EQ("0/ib1/0/12/8/7/1", fields(base));  // and wins over the image count
    klNetInterfaceOptions plain;
    plain.add(base);
    EXPECT_EQ("0/ib1/0/12/7/-1/1", fields(plain));
}

TEST(klNetInterfaceOptions, WireFormIsPinnedAndReadsBack) {
    const Bytes defaults = hex("FFFFFFFF 01000000 00 FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF 00");
    EXPECT_EQ(defaults, serialise(klNetInterfaceOptions()));
    EXPECT_EQ("-1//-1/-1/-1/-1/0", fields(deserialise(defaults)));
    // The device travels up to its first zero byte.
    const Bytes wire = serialise(make(1, std::string("ib0\0tail", 8), 0x0102, 2, 3, 4, true));
    EXPECT_EQ(hex("01000000 04000000 69623000 02010000 02000000 03000000 04000000 01"), wire);
    EXPECT_EQ("1/ib0/258/2/3/4/1", fields(deserialise(wire)));
    // A zero length is an empty device with no bytes; any non-zero flag byte is true.
    EXPECT_EQ("5//6/7/8/9/1",
              fields(deserialise(hex("05000000 00000000 06000000 07000000 08000000 09000000 02"))));
}
