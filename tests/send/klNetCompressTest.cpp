// The compressing sender and the decompressing receiver, alone and back to back over loopback.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/recv/klNetDecompressReceiver.h>
#include <klNetBase/recv/klNetLinkReceiver.h>
#include <klNetBase/send/klNetCompressSender.h>
#include <klNetBase/send/klNetLinkSender.h>
#include <klNetBase/send/klNetLockedSender.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

using kltest::Buffer;
using kltest::Bytes;
using kltest::kBound;
using kltest::kQuiet;
using kltest::taggedBuffer;
using kltest::Task;
using kltest::waitUntil;

namespace {

// Sets the process-wide compression settings for one test; the defaults come back after it.
struct Settings {
    Settings(int data, int image) {
        klNetOptions::setDataCompression(klNetCompression(data));
        klNetOptions::setImageCompression(klNetCompression(image));
    }
    ~Settings() {
        klNetOptions::setDataCompression(klNetCompression(-1));
        klNetOptions::setImageCompression(klNetCompression(-1));
    }
};

// (count, byte) pairs.
Bytes runLength(const unsigned char* data, std::size_t size) {
    Bytes out;
    for (std::size_t i = 0; i < size;) {
        std::size_t run = 1;
        while (i + run < size && run < 255 && data[i + run] == data[i])
            ++run;
        out.push_back(static_cast<unsigned char>(run));
        out.push_back(data[i]);
        i += run;
    }
    return out;
}

// Run-length codec; a buffer that would not shrink is passed on as it is. hook runs first in
// compress() and may throw.
class RunLengthCompressor : public klNetCompressorBase {
public:
    using klNetCompressorBase::getRequestedCompression;

    Buffer compress(const Buffer& in) override {
        if (hook)
            hook(in);
        const Bytes packed = runLength(in->getData(), in->getDataSize());
        if (packed.size() >= in->getDataSize())
            return in;
        Buffer out = klNetBufferPool::pop();
        out->copyHeaderFrom(*in);
        std::copy(packed.begin(), packed.end(), out->getData());
        out->setDataSize(packed.size());
        out->setCompression(getRequestedCompression(in), in->getDataSize());
        return out;
    }
    Buffer decompress(const Buffer& in) override {
        Buffer out = klNetBufferPool::pop();
        out->copyHeaderFrom(*in);
        std::size_t size = 0;
        for (std::size_t i = 0; i + 1 < in->getDataSize(); i += 2) {
            const std::size_t run = in->getData()[i];
            if (size + run > in->getOriginalDataSize())
                break;
            std::fill_n(out->getData() + size, run, in->getData()[i + 1]);
            size += run;
        }
        if (size != in->getOriginalDataSize() || in->getDataSize() % 2 != 0) {
            throw klNetError("bad run-length data");
        }
        out->setDataSize(size);
        out->setCompression(klNetCompressionNone, size);
        return out;
    }
    bool isCompressible(const Buffer& buffer) override { return buffer->getDataSize() >= 64; }

    std::function<void(const Buffer&)> hook;
};

// size bytes in runs of run, starting at first.
Buffer runs(std::size_t size, std::size_t run, unsigned char first, klNetMessageType type) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(first + i / run);
    Buffer buffer = kltest::bufferWith(bytes);
    buffer->setType(type);
    buffer->setCompression(klNetCompressionNone, size);
    return buffer;
}

std::size_t threadCount() {
    auto tasks = std::filesystem::directory_iterator("/proc/self/task");
    return std::size_t(std::distance(begin(tasks), end(tasks)));
}

}  // namespace

TEST(klNetCompressorBase, DecidesByHeaderAndTheSettingOfTheBuffersType) {
    struct Row {
        klNetMessageType type;
        int compression, original, data, image;
        bool should;
        int requested;
    };
    const Row rows[] = {
        {klNetMessageTypeStream, 0, 100, 2, 0, true, 2},
        {klNetMessageTypeMessage, 0, 50, 3, 0, true, 3},  // original below data size is fine
        {klNetMessageTypeMessage, 0, 100, 0, 4, false, 0},
        {klNetMessageTypeImage, 0, 100, 0, 4, true, 4},
        {klNetMessageTypeImage, 0, 100, 2, 0, false, 0},
        {klNetMessageTypeBundle, 0, 100, 2, 2, false, 2},
        {klNetMessageTypeStream, 2, 100, 2, 2, false, 2},  // compressed already
        {klNetMessageTypeStream, 0, 101, 2, 2, false, 2},  // shrunk already
    };
    RunLengthCompressor codec;
    for (const Row& row : rows) {
        Settings settings(row.data, row.image);
        Buffer buffer = taggedBuffer(100, 1);
        buffer->setType(row.type);
        buffer->setCompression(klNetCompression(row.compression), row.original);
        EXPECT_EQ(row.should, codec.shouldCompress(buffer)) << &row - rows;
        EXPECT_EQ(row.requested, codec.getRequestedCompression(buffer)) << &row - rows;
    }
}

TEST(klNetCompressSender, BuffersNotToCompressGoOutOnTheCallersThreadCountedAndStartNoWorker) {
    Settings settings(0, 0);
    auto probe = std::make_shared<kltest::ProbeSender>(std::set<unsigned int>{1});
    std::vector<std::thread::id> callers;
    probe->recorder->hook = [&](const Buffer&) { callers.push_back(std::this_thread::get_id()); };
    const std::size_t threads = threadCount();
    auto sender = klNetCompressSender::create(std::make_shared<RunLengthCompressor>(), probe);
    sender->send(runs(1000, 100, 0, klNetMessageTypeStream));
    sender->send(runs(0, 1, 0, klNetMessageTypeStream));
    EXPECT_EQ(1024u + 24u, sender->getCompressedBytes());
    {
        Settings compressing(2, 2);  // still bypassing: compressed already, bundle, empty
        Buffer done = runs(500, 100, 0, klNetMessageTypeStream);
        done->setCompression(klNetCompression(2), 800);
        sender->send(done);
        sender->send(runs(300, 100, 0, klNetMessageTypeBundle));
        sender->send(runs(0, 1, 0, klNetMessageTypeImage));
    }
    EXPECT_EQ(threads, threadCount()) << "a worker started without anything to compress";
    EXPECT_EQ(std::vector<std::thread::id>(5, std::this_thread::get_id()), callers);
    EXPECT_EQ(1048u + 524u + 324u + 24u, sender->getCompressedBytes());
    sender->resetStatistics();
    EXPECT_EQ(0u, sender->getCompressedBytes());
    EXPECT_EQ(0, probe->resets) << "children are not reset";
}

TEST(klNetCompressSender, ACompressorErrorIsRethrownOnTheCallersThreadByEveryLaterCall) {
    Settings settings(2, 0);
    auto codec = std::make_shared<RunLengthCompressor>();
    codec->hook = [](const Buffer& buffer) {
        if (buffer->getData()[0] == 7)
            throw klNetError("codec broke on 7");
    };
    auto probe = std::make_shared<kltest::ProbeSender>(std::set<unsigned int>{1});
    auto sender = klNetCompressSender::create(codec, probe);
    for (unsigned char first : {1, 2, 7}) {  // the failing one last: no send can meet its error
        sender->send(runs(4000, 40, first, klNetMessageTypeStream));
    }
    Task wait([sender] { sender->waitAllDataTransfered(); });
    ASSERT_TRUE(wait.finishedWithin(kBound));
    KL_EXPECT_THROW_TEXT(wait.get(), klNetError, "codec broke on 7");
    KL_EXPECT_THROW_TEXT(sender->send(runs(10, 1, 0, klNetMessageTypeImage)), klNetError,
                         "codec broke on 7");
    KL_EXPECT_THROW_TEXT(sender->waitAllDataTransfered(), klNetError, "codec broke on 7");
    EXPECT_GE(2u, probe->recorder->taken().size());
    Task destroy([s = std::move(sender)]() mutable { s.reset(); });
    EXPECT_TRUE(destroy.finishedWithin(kBound));
}

// Compressing sender -> loopback link -> decompressing receiver: every buffer comes back with
// its header and bytes, whichever path it took and in whatever order it arrives.
TEST(klNetCompressPipeline, ManyBuffersRoundTripExactlyAndTheSenderCountsWhatTravelled) {
    Settings settings(3, 0);
    auto [near, far] = kltest::connectedPair();
    far->setRecvTimeout(20.0);  // a lost buffer fails the test instead of hanging it
    auto codec = std::make_shared<RunLengthCompressor>();
    auto sender = klNetCompressSender::create(
        codec, klNetLockedSender::create(klNetLinkSender::create(near)));
    std::vector<std::shared_ptr<klNetReceiver>> children{klNetLinkReceiver::create(far)};
    auto receiver = klNetDecompressReceiver::create(codec, children);

    constexpr int kCount = 400;  // well past the queue's 256
    std::map<std::size_t, Bytes> expected;
    std::vector<Buffer> buffers;
    std::uint64_t travelling = 0;
    for (int i = 0; i < kCount; ++i) {
        // Types cycle through compressed (0, 1) and bypassing (2: image setting 0; 3: bundle).
        const auto type = klNetMessageType(i % 4);
        const std::size_t size = 1 + std::size_t(i) * 7919 % (i % 10 ? 8192 : 131072);
        Buffer buffer = i % 5 == 0 ? taggedBuffer(size, 9) : runs(size, 1 + i % 300, i, type);
        buffer->setType(type);
        buffer->setSequence(std::size_t(i));
        buffer->setSource(std::size_t(i) * 3);
        buffer->setMessageId(std::size_t(i) ^ 0x5a5a);
        expected[std::size_t(i)] = kltest::payloadOf(*buffer);
        const std::size_t packed = runLength(buffer->getData(), size).size();
        travelling += (type < 2 && packed < size ? packed : size) + 24;
        buffers.push_back(buffer);
    }
    Task write([sender, buffers] {
        for (const Buffer& buffer : buffers)
            sender->send(buffer);
        sender->waitAllDataTransfered();
    });
    std::map<std::size_t, Buffer> got;
    for (int i = 0; i < kCount; ++i) {
        Buffer buffer;
        receiver->recv(buffer);
        got[buffer->getSequence()] = buffer;
    }
    ASSERT_TRUE(write.finishedWithin(kBound));
    write.get();
    ASSERT_EQ(std::size_t(kCount), got.size());
    for (const auto& [sequence, buffer] : got) {
        ASSERT_EQ(expected[sequence], kltest::payloadOf(*buffer)) << sequence;
        EXPECT_EQ(0, buffer->getCompression());
        EXPECT_EQ(sequence % 4, std::size_t(buffer->getType()));
        EXPECT_EQ(sequence * 3, buffer->getSource());
        EXPECT_EQ(sequence ^ 0x5a5a, buffer->getMessageId());
    }
    EXPECT_EQ(travelling, sender->getCompressedBytes());
}

TEST(klNetDecompressReceiver, DeliversRestoredAndInjectedBuffersThenTheLinksErrorWithoutHanging) {
    Settings settings(2, 0);
    auto [near, far] = kltest::connectedPair();
    auto codec = std::make_shared<RunLengthCompressor>();
    std::vector<std::shared_ptr<klNetReceiver>> children{klNetLinkReceiver::create(far)};
    auto receiver = klNetDecompressReceiver::create(codec, children);
    EXPECT_FALSE(receiver->isReadable());

    const Buffer plain = runs(3000, 30, 5, klNetMessageTypeStream);
    near->send(codec->compress(plain));
    ASSERT_TRUE(waitUntil([&] { return receiver->isReadable(); }));
    Buffer got;
    receiver->recv(got);
    EXPECT_EQ(kltest::payloadOf(*plain), kltest::payloadOf(*got));
    EXPECT_EQ(0, got->getCompression());

    // Injected: compressed on the way in only with image method 4, and only when compressible.
    for (const auto& [image, size, arrivesCompressed] :
         {std::tuple{4, 3000, true}, std::tuple{4, 63, false}, std::tuple{2, 3000, false}}) {
        Settings injecting(2, image);
        const Buffer local = runs(std::size_t(size), 30, 1, klNetMessageTypeImage);
        receiver->addToRecvQueue(local);
        receiver->recv(got);
        EXPECT_EQ(arrivesCompressed, got->getCompression() == 4) << image << " " << size;
        EXPECT_EQ(arrivesCompressed, got != local);
    }

    // A corrupt payload fails the worker that takes it; what arrived around it still comes
    // through. Then the link's end surfaces, and keeps surfacing rather than leaving the reader
    // waiting.
    Buffer corrupt = codec->compress(plain);
    corrupt->setDataSize(3);
    for (const Buffer& buffer : {codec->compress(plain), corrupt, plain})
        near->send(buffer);
    Task read([receiver, near = near] {
        const auto next = [&] {
            return kltest::outcome([&] {
                Buffer buffer;
                receiver->recv(buffer);
                if (buffer->getDataSize() != 3000)
                    throw std::logic_error("wrong buffer");
            });
        };
        std::vector<std::string> outcomes{next(), next(), next()};
        std::sort(outcomes.begin(), outcomes.end());
        EXPECT_EQ((std::vector<std::string>{"bad run-length data", "returned", "returned"}),
                  outcomes);
        near->shutdown();
        EXPECT_EQ("closed", next());
        EXPECT_EQ("closed", next());
    });
    ASSERT_TRUE(read.finishedWithin(kBound));
    read.get();
    Task destroy([r = std::move(receiver)]() mutable { r.reset(); });
    EXPECT_TRUE(destroy.finishedWithin(kBound));
}
