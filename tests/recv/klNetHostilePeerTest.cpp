// A node's receiving stream (sort over unbundle over the link, as a striped node reads) against a
// peer that writes crafted frames straight into a loopback TCP connection: whatever the headers
// claim, the process's resident memory stays bounded while the stream lives and goes back once it
// is gone, and a peer that exceeds a bound gets the exact error.
#include <support/klNetProcessTestSupport.h>

using namespace kltest;

namespace {

constexpr std::size_t kMiB = std::size_t(1) << 20;
// Sanitizers add shadow memory for what the process touches: ThreadSanitizer several times over.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t kSlack = 5;
#elif defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kSlack = 2;
#else
constexpr std::size_t kSlack = 1;
#endif
// While the stream holds what the peer sent, and once it is gone (the pool keeps 16 free buffers).
constexpr std::size_t kHeldBound = 80 * kMiB * kSlack;
constexpr std::size_t kAfterBound = 16 * kMiB * kSlack;

// The header of one frame; a payload of size zero bytes follows it on the connection.
klNetHeader crafted(std::uint32_t size, unsigned sequence, klNetMessageType type, unsigned source,
                    unsigned destination, unsigned messageId, unsigned count) {
    return {size,   size,        std::uint16_t(sequence),  std::uint8_t(type),  0,
            source, destination, std::uint16_t(messageId), std::uint16_t(count)};
}

// The stream's rank: directed frames go to it, so the sort receiver lets them pass.
constexpr unsigned kNode = 2;

struct Pattern {
    const char* name;
    int frames;
    std::function<klNetHeader(unsigned)> headerAt;
    bool readMessages;  // else stream data
    const char* outcome;
};

const Pattern kPatterns[] = {
    // 5483 records of an empty header each.
    {"AllZeroBundle", 1,
     [](unsigned) { return crafted(131602, 0, klNetMessageTypeBundle, 0, 0, 0, 0); }, false,
     "closed"},
    {"TwoBufferMessagesNeverCompleted", 5000,
     [](unsigned i) { return crafted(0, i, klNetMessageTypeMessage, 7, kNode, i, 2); }, true,
     "Too many incomplete messages from source 7: more than 256 buffers waiting"},
    // The 257th waiting buffer is the first one refused.
    {"OneBufferBeyondTheBoundPerSource", 257,
     [](unsigned i) { return crafted(0, i, klNetMessageTypeMessage, 7, kNode, i, 2); }, true,
     "Too many incomplete messages from source 7: more than 256 buffers waiting"},
    {"OneMessageOf65535Buffers", 5000,
     [](unsigned i) { return crafted(0, i, klNetMessageTypeMessage, 7, kNode, 9, 65535); }, true,
     "Too many incomplete messages from source 7: more than 256 buffers waiting"},
    {"EveryBufferFromAnotherSource", 5000,
     [](unsigned i) { return crafted(0, i, klNetMessageTypeMessage, i + 1, kNode, 9, 2); }, true,
     "Too many incomplete messages: more than 512 buffers waiting (the last from source 513)"},
    // Multicast 0 never comes: everything after it waits, small buffers copied out of the pool.
    {"EmptyMulticastBuffersAfterAGap", 65535,
     [](unsigned i) { return crafted(0, i + 1, klNetMessageTypeStream, 1, 0, 0, 0); }, false,
     "closed"},
    {"FullMulticastBuffersAfterAGap", 1000,
     [](unsigned i) { return crafted(131072, i + 1, klNetMessageTypeStream, 1, 0, 0, 0); }, false,
     "Multicast buffer 0 never arrived: more than 33554432 bytes held after it"},
};

// Names the case in test names and failures.
void PrintTo(const Pattern& pattern, std::ostream* os) {
    *os << pattern.name;
}

class HostilePeer : public testing::TestWithParam<Pattern> {};

TEST_P(HostilePeer, MemoryStaysBoundedAndExcessGetsItsError) {
    const Pattern& pattern = GetParam();
    klNetBufferPool::s_instance.setFreeLimit(16);
    const std::size_t start = residentBytes(::getpid());
    {
        const auto [raw, link] = connectedPair();
        klNetStream stream(link);
        stream.setRank(int(kNode));
        stream.setReceiver(klNetSortReceiver::create(
            klNetUnbundleReceiver::create(klNetLinkReceiver::create(link))));

        // Writes every frame until done or shut down below, then ends the stream. Payloads come
        // from one block of zeros, so that the test's own memory does not grow with them.
        const int fd = raw->getDescriptor();
        Task peer([fd, pattern] {
            static const Bytes zeros(klNetBuffer::kCapacity);
            for (int i = 0; i < pattern.frames; ++i) {
                const klNetHeader next = pattern.headerAt(unsigned(i));
                if (::send(fd, &next, sizeof(next), MSG_NOSIGNAL) < 0 ||
                    ::send(fd, zeros.data(), next.dataSize, MSG_NOSIGNAL) < 0) {
                    return;
                }
            }
            ::shutdown(fd, SHUT_WR);
        });
        const std::string outcome = kltest::outcome([&] {
            for (unsigned char byte = 0;;) {
                if (pattern.readMessages) {
                    klNetMessage message;
                    stream.recvMessage(message);
                } else {
                    stream >> byte;
                }
            }
        });
        const std::size_t held = residentBytes(::getpid());
        ::shutdown(fd, SHUT_RDWR);  // a peer still writing stops
        EXPECT_TRUE(peer.finishedWithin(kBound));
        EXPECT_EQ(pattern.outcome, outcome);
        RecordProperty("heldKiB", int((long(held) - long(start)) / 1024));
        EXPECT_LT(held, start + kHeldBound) << (held - start) / kMiB << " MiB more than at start";
    }
    const std::size_t after = residentBytes(::getpid());
    RecordProperty("afterKiB", int((long(after) - long(start)) / 1024));
    EXPECT_LT(after, start + kAfterBound) << (after - start) / kMiB << " MiB more than at start";
    klNetBufferPool::s_instance.setFreeLimit(klNetBufferPool::kDefaultFreeLimit);
}

INSTANTIATE_TEST_SUITE_P(Patterns, HostilePeer, testing::ValuesIn(kPatterns),
                         [](const testing::TestParamInfo<Pattern>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
