// Writes the seed corpus of every fuzz target from traffic the library itself makes: values,
// records and messages serialised by it, buffers framed by a real socket link, requests as a
// client's stream writes them, and the packets of the hand-off pipe. Each file is one input in the
// target's own layout (described at the top of each target). The output is the same on every run,
// so regenerating changes nothing unless the wire formats changed.
//
//   klFuzzCorpusGen OUTPUT_DIR      writes OUTPUT_DIR/<target>/<name>, replacing files of the same
//                                   name and leaving every other file (regression inputs) alone
#include <klNetBase/codecs/klNetCodecs.h>
#include <klNetBase/klNetBase.h>

#ifdef KLFUZZ_WITH_RENDER
#include "klRenderProtocol.h"
#endif

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <queue>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

fs::path g_output;
int g_written = 0;

void write(const std::string& target, const std::string& name, const Bytes& bytes) {
    const fs::path directory = g_output / target;
    fs::create_directories(directory);
    std::ofstream file(directory / name, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    if (!file) {
        throw std::runtime_error("cannot write " + (directory / name).string());
    }
    ++g_written;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes le32(std::uint32_t value) {
    return {std::uint8_t(value), std::uint8_t(value >> 8), std::uint8_t(value >> 16),
            std::uint8_t(value >> 24)};
}

Bytes le64(std::uint64_t value) {
    return le32(std::uint32_t(value)) + le32(std::uint32_t(value >> 32));
}

// The payload bytes of everything written into a message, in order.
Bytes payloadOf(klNetMessage& message) {
    Bytes bytes;
    for (const auto& buffer : message.takeSendBuffers()) {
        bytes.insert(bytes.end(), buffer->getData(), buffer->getData() + buffer->getDataSize());
    }
    return bytes;
}

// A buffer in the normal framing: its header and payload as one run.
Bytes framed(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + buffer.getBufferSize());
}

// A link that keeps, in the normal framing, every buffer sent through it.
class CaptureLink : public klNetLink {
public:
    void send(const std::shared_ptr<klNetBuffer>& buffer) override {
        sent.push_back(buffer);
        bytes = bytes + framed(*buffer);
    }
    void recv(std::shared_ptr<klNetBuffer>&) override { throw klConnectionClosed(); }
    void shutdown() override {}
    unsigned int getRecvHandle() override { return ~0u; }
    void checkAlive() override {}

    std::vector<std::shared_ptr<klNetBuffer>> sent;
    Bytes bytes;
};

// The same cipher as the link target's.
class XorCipher final : public klNetCipherBase {
public:
    void encrypt(void* destination, const void* source, std::uint64_t length) override {
        auto* to = static_cast<unsigned char*>(destination);
        const auto* from = static_cast<const unsigned char*>(source);
        for (std::uint64_t i = 0; i < length; ++i) {
            to[i] = from[i] ^ 0x5A;
        }
    }
    void decrypt(void* destination, const void* source, std::uint64_t length) override {
        encrypt(destination, source, length);
    }
};

// What a real socket link puts on the wire while `traffic` writes through a stream over it.
Bytes onTheWire(const std::function<void(klNetStream&)>& traffic, bool compatibility = false,
                bool ciphered = false) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        throw std::runtime_error("socketpair failed");
    }
    Bytes bytes;
    std::thread reader([&bytes, fd = fds[1]] {
        std::uint8_t chunk[65536];
        for (ssize_t n; (n = ::read(fd, chunk, sizeof(chunk))) > 0;) {
            bytes.insert(bytes.end(), chunk, chunk + n);
        }
    });
    {
        auto link = std::make_shared<klSocketLink>(fds[0]);
        link->setCompatibilityMode(compatibility);
        if (ciphered) {
            link->setCipher(std::make_shared<XorCipher>());
        }
        klNetStream stream(link);
        stream.setRank(1);
        traffic(stream);
        stream.flush();
    }
    reader.join();
    ::close(fds[1]);
    return bytes;
}

// Traffic of a master talking to one node: stream data, a message spread over several buffers,
// a result of each kind and a sync point.
void typicalTraffic(klNetStream& stream) {
    stream << std::uint32_t(42) << std::string("render tile 7");
    stream.flush();
    klNetMessage message(64);
    message << std::int32_t(7) << std::string(150, 'm');
    stream.sendMessage(message, 2);
    stream.sendSuccess();
    stream.sendException(std::runtime_error("Tile out of range"));
    stream.flush();
    stream.sendSync(3);
}

void messageRead() {
    const std::string target = "klNetMessageReadFuzz";
    klNetMessage message;
    klNetInterfaceOptions options;
    options.setIbDevice("mlx5_0");
    message << std::string("frame.png") << std::vector<std::int32_t>{1, -2, 3}
            << std::vector<std::string>{"a", "", "tile"};
    options.putValue(message);
    message << std::uint64_t(1) << true << std::vector<bool>{true, false, true};
    const Bytes payload = payloadOf(message);
    const Bytes plan = {0, 1, 2, 3, 4, 5, 7};
    for (const std::uint8_t piece : {255, 15, 0}) {
        write(target, "values-piece" + std::to_string(piece + 1),
              Bytes{piece, std::uint8_t(plan.size())} + plan + payload);
    }
    // Input references at a buffer edge.
    write(target, "references", Bytes{7, 3, 6 + 8 * 4, 6 + 8 * 4, 6 + 8 * 1} + payload);
}

void interfaceOptions() {
    const std::string target = "klNetInterfaceOptionsFuzz";
    klNetInterfaceOptions set;
    set.setNodeAffinity(1);
    set.setIbDevice("mlx5_0");
    set.setIbPort(1);
    set.setSyncChannels(2);
    set.setImageChannels(8);
    set.setLowLatencyChannels(6);
    set.setEncrypted(true);
    klNetMessage message;
    klNetInterfaceOptions().putValue(message);
    const Bytes defaults = payloadOf(message);
    set.putValue(message);
    const Bytes full = payloadOf(message);
    write(target, "default", Bytes{255} + defaults);
    write(target, "full", Bytes{255} + full);
    write(target, "two-records-piece5", Bytes{4} + full + defaults);
    // A device length of 0: an empty device with no bytes following.
    Bytes empty = defaults;
    empty.erase(empty.begin() + 4, empty.begin() + 9);
    empty.insert(empty.begin() + 4, {0, 0, 0, 0});
    write(target, "device-length-0", Bytes{255} + empty);
}

void serviceStatus() {
    const std::string target = "klNetServiceStatusFuzz";
    klNetMessage message;
    klNetServiceStatus().putValue(message);
    write(target, "default", Bytes{255} + payloadOf(message));
    klNetServiceStatus status;
    status.setIsRunning(true);
    status.setNumberOfClusterServers(2);
    status.setCPUUsage(12.5f);
    status.setFreeMemory(5000000000ull);
    status.setVersion("10.0");
    status.setBookingIds({"job-17", "job-18"});
    status.putValue(message);
    const Bytes full = payloadOf(message);
    write(target, "full", Bytes{255} + full);
    write(target, "full-piece3", Bytes{2} + full);
}

void bundles() {
    const std::string target = "klNetBundleSplitFuzz";
    std::queue<std::shared_ptr<klNetBuffer>> queue;
    for (int i = 0; i < 3; ++i) {
        klNetMessage message(100);
        message << std::string(std::size_t(40 + 30 * i), char('a' + i));
        for (const auto& buffer : message.takeSendBuffers()) {
            buffer->setDestination(2);
            queue.push(buffer);
        }
    }
    std::shared_ptr<klNetBuffer> bundle;
    klNetBuffer::tryBundle(queue, bundle);
    const Bytes records(bundle->getData(), bundle->getData() + bundle->getDataSize());
    write(target, "split-three-messages", Bytes{0} + records);

    // A bundle packed into another is copied flat.
    std::queue<std::shared_ptr<klNetBuffer>> outer;
    outer.push(bundle);
    klNetMessage tail(100);
    tail << std::uint32_t(9);
    auto last = tail.takeSendBuffers().front();
    last->setDestination(2);
    outer.push(last);
    std::shared_ptr<klNetBuffer> flat;
    klNetBuffer::tryBundle(outer, flat);
    write(target, "unbundle-bundle-and-plain", Bytes{1} + framed(*flat) + framed(*last));
}

void stream() {
    const std::string target = "klNetStreamFuzz";
    auto link = std::make_shared<CaptureLink>();
    {
        klNetStream sender(link);
        sender.setRank(1);
        typicalTraffic(sender);
    }
    // Settings: a node of rank 2; the plan reads stream data, a message, both results, a sync.
    const Bytes nodePlan = {2, 5, 0, 3, 3, 4};
    write(target, "node-typical",
          Bytes{0, std::uint8_t(nodePlan.size() - 1)} + nodePlan + link->bytes);
    write(target, "node-typical-sorted-unbundled",
          Bytes{8 | 16, std::uint8_t(nodePlan.size() - 1)} + nodePlan + link->bytes);

    // The message's buffers arriving in reverse order, then two sync replies to a master of two.
    Bytes reversed;
    std::vector<std::shared_ptr<klNetBuffer>> parts;
    for (const auto& buffer : link->sent) {
        if (buffer->getType() == klNetMessageTypeMessage && buffer->getMessageBufferCount() > 1) {
            parts.push_back(buffer);
        }
    }
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
        reversed = reversed + framed(**it);
    }
    auto replies = std::make_shared<CaptureLink>();
    for (const unsigned rank : {2u, 3u}) {
        klNetStream node(replies);
        node.setRank(int(rank));
        node.sendSync(5);
    }
    write(target, "master-reversed-message-and-sync-replies",
          Bytes{1 | (2 << 1), 1, 0, 4} + reversed + replies->bytes);
}

void socketLink() {
    const std::string target = "klSocketLinkRecvFuzz";
    write(target, "normal", Bytes{0} + onTheWire(typicalTraffic));
    write(target, "compatibility", Bytes{1} + onTheWire(typicalTraffic, true));
    write(target, "ciphered", Bytes{2} + onTheWire(typicalTraffic, false, true));
    // One more payload byte than a buffer holds: refused as out of sync.
    Bytes oversized = onTheWire(typicalTraffic);
    const Bytes limit = le32(std::uint32_t(klNetBuffer::getCapacity() + 1));
    std::copy(limit.begin(), limit.end(), oversized.begin());
    write(target, "size-past-limit", Bytes{0} + oversized);
}

void greeting() {
    const std::string target = "klSocketGreetingFuzz";
    const Bytes current = le32(klSocketLink::kGreeting);
    const Bytes older = le32(klSocketLink::kCompatibilityGreeting);
    // Accepting side (settings bit 0): the client's greeting, then its buffers.
    write(target, "accept-current", Bytes{1} + current + onTheWire(typicalTraffic));
    write(target, "accept-compatibility", Bytes{1} + older + onTheWire(typicalTraffic, true));
    const std::string http = "GET / HTTP/1.1\r\nHost: node\r\n\r\n";
    write(target, "accept-other-protocol", Bytes{1} + Bytes(http.begin(), http.end()));
    // Connecting side: the server's answer, then its buffers.
    write(target, "connect-current", Bytes{0} + current + onTheWire(typicalTraffic));
    write(target, "connect-wrong-answer", Bytes{0} + older);
}

// The accepting side of the sealed handshake (settings bit 0 clear): the client's opening after
// its greeting (magic, random, flags, the length-prefixed name it dialed), then its two proofs.
// The randoms and proofs are fixed bytes: a proof cannot be made without the target's key.
void farmSealer() {
    const std::string target = "klNetFarmSealerFuzz";
    const auto opening = [](const std::string& magic, std::size_t nameSize,
                            const std::string& name) {
        Bytes bytes(magic.begin(), magic.end());
        bytes.insert(bytes.end(), 32, 0x11);      // client random
        bytes.push_back(1);                       // flags: AES
        bytes.push_back(std::uint8_t(nameSize));  // name length
        bytes.insert(bytes.end(), name.begin(), name.end());
        return bytes;
    };
    const Bytes proofs(64, 0x22);
    write(target, "handshake-named", Bytes{0} + opening("KLSEAL02", 10, "node1:8889") + proofs);
    write(target, "handshake-other-node",
          Bytes{0} + opening("KLSEAL02", 10, "node2:8889") + proofs);
    write(target, "handshake-name-empty", Bytes{0} + opening("KLSEAL02", 0, "") + proofs);
    write(target, "handshake-name-longest",
          Bytes{0} + opening("KLSEAL02", 255, std::string(255, 'a')) + proofs);
    write(target, "handshake-name-invalid",
          Bytes{0} + opening("KLSEAL02", 10, "node1 8889") + proofs);
    write(target, "handshake-name-cut", Bytes{0} + opening("KLSEAL02", 10, "node1"));
    write(target, "handshake-older-version", Bytes{0} + opening("KLSEAL01", 10, "node1:8889"));
}

// A client's request as its stream frames it.
Bytes request(const std::function<void(klNetStream&)>& fields) {
    auto link = std::make_shared<CaptureLink>();
    klNetStream client(link);
    fields(client);
    client.flush();
    return link->bytes;
}

void serviceRequest() {
    const std::string target = "klNetServiceRequestFuzz";
    const auto start = [](const std::string& version, bool display, bool booking, bool stereo) {
        return request([=](klNetStream& s) {
            s << std::uint32_t(klNetService::kStartServer) << std::string("-scene julia") << version
              << std::string();
            if (display) {
                s << std::uint8_t(0);
            }
            s << std::uint8_t(1) << std::uint8_t(1) << std::uint8_t(0);
            if (booking) {
                s << std::string("job-17");
            }
            if (stereo) {
                s << std::uint8_t(0);
            }
        });
    };
    write(target, "start-10.0", start("10.0", true, true, true));
    write(target, "start-9.1", start("9.1", true, false, false));
    write(target, "start-SR1.SP3", start("SR1.SP3", false, false, false));
    write(target, "start-newer-client", start("11.0", true, true, true));
    write(target, "status",
          request([](klNetStream& s) { s << std::uint32_t(klNetService::kGetStatus); }));
    write(target, "stop-server-7", request([](klNetStream& s) {
              s << std::uint32_t(klNetService::kStopServer) << std::uint32_t(7);
          }));
    write(target, "connect-server-3", request([](klNetStream& s) {
              s << std::uint32_t(klNetService::kConnectServer) << std::uint32_t(3);
          }));
    write(target, "stop-booking", request([](klNetStream& s) {
              s << std::uint32_t(klNetService::kStopServerByBookingId) << std::string("job-17");
          }));
    write(target, "stop-service",
          request([](klNetStream& s) { s << std::uint32_t(klNetService::kStopService); }));
    write(target, "unknown-command", request([](klNetStream& s) { s << std::uint32_t(8); }));
    write(target, "relay", request([](klNetStream& s) {
              s << std::uint32_t(klNetService::kConnectService) << std::string("[::1]:8890")
                << std::uint32_t(8889);
          }));
}

void socketPipe() {
    const std::string target = "klSocketPipeFuzz";
    // Packets: length, descriptor count, bytes. The hand-off socket is descriptor 700.
    const auto packet = [](const Bytes& bytes, std::uint8_t descriptors = 0) {
        return Bytes{std::uint8_t(bytes.size()), descriptors} + bytes;
    };
    const Bytes processId = le32(4242);
    const Bytes acknowledgement = le64(700);
    // Service side: the server's process id, then its acknowledgement of each socket.
    write(target, "service-two-hand-offs",
          Bytes{0} + packet(processId) + packet(acknowledgement) + packet(acknowledgement));
    write(target, "service-wrong-acknowledgement",
          Bytes{0} + packet(processId) + packet(le64(701)));
    write(target, "service-short-process-id", Bytes{0} + packet(Bytes{1, 2}));
    // Server side: each socket value with its descriptor attached.
    write(target, "server-two-sockets", Bytes{1} + packet(le64(9), 1) + packet(le64(10), 1));
    write(target, "server-socket-without-descriptor", Bytes{1} + packet(le64(9)));
    write(target, "server-two-descriptors", Bytes{1} + packet(le64(9), 2));
}

// The stream data a stream sends while `traffic` writes through it: the payloads of its
// stream-data buffers, in order.
Bytes streamDataOf(const std::function<void(klNetStream&)>& traffic) {
    auto link = std::make_shared<CaptureLink>();
    {
        klNetStream stream(link);
        traffic(stream);
        stream.flush();
    }
    Bytes bytes;
    for (const auto& buffer : link->sent) {
        if (buffer->getType() == klNetMessageTypeStream) {
            bytes.insert(bytes.end(), buffer->getData(), buffer->getData() + buffer->getDataSize());
        }
    }
    return bytes;
}

void stdStream() {
    const std::string target = "klNetStdStreamFuzz";
    // Two marked sections (a render log and a scene description), then characters left pending
    // when the writer went away without an end marker.
    const Bytes data = streamDataOf([](klNetStream& stream) {
        {
            klNetStdOStream renderLog(stream);
            renderLog << "tile 7 of 120 rendered in " << 41.5 << " ms\n"
                      << 120 << ' ' << -3 << '\n';
            renderLog.flush();
            renderLog << "frame done\n";
            renderLog.close();
        }
        {
            klNetStdOStream scene(stream);
            scene << "camera 0 0 -5\nlight 1 1 1\n" << std::string(3000, 'x') << '\n';
            scene.close();
        }
        klNetStdOStream pending(stream);
        pending << "cut off";
    });
    // Settings: cut, mode, rewind after (16 bits), plan length - 1, plan; then the data.
    const auto input = [&data](std::uint8_t cut, std::uint8_t mode, std::uint16_t rewind,
                               const Bytes& plan) {
        return Bytes{cut, mode, std::uint8_t(rewind), std::uint8_t(rewind >> 8),
                     std::uint8_t(plan.size() - 1)} +
               plan + data;
    };
    write(target, "check-whole", input(255, 0, 0, {0}));
    write(target, "check-cut7-rewind-in-chunk", input(6, 0, 20, {0}));
    // The first chunk holds the 41 characters before the first flush.
    write(target, "check-cut1-rewind-at-chunk-end", input(0, 0, 41, {0}));
    // Lines, words and numbers, a rewind, then on into the next section.
    write(target, "plan-lines", input(255, 1, 0, {1, 1, 1, 6, 1, 1}));
    write(target, "plan-formatted-throwing", input(9, 3, 0, {4, 4, 4, 15, 3, 3, 5, 4, 6, 2 | 16}));
    write(target, "plan-seek-and-peek", input(40, 1, 0, {0, 8, 9 | 32, 14, 10, 11, 12, 13, 7, 5}));
    // A length above 1 MiB where a chunk should start.
    const std::size_t firstChunk = 4 + data[0];
    write(target, "check-out-of-sync",
          Bytes{255, 0, 0, 0, 0, 0} + Bytes(data.begin(), data.begin() + long(firstChunk)) +
              le32(0x100001));
}

// A payload like the ones the codecs meet: serialised values with repeats and some variety.
Bytes sampleTraffic() {
    klNetMessage message;
    for (std::int32_t tile = 0; tile < 64; ++tile) {
        message << std::string("render tile") << tile << double(tile) * 0.75
                << std::vector<std::int32_t>(16, tile % 5);
    }
    return payloadOf(message);
}

template <class Codec>
void codec(const std::string& target, Codec& compressor, klNetCompression otherMethod) {
    const Bytes traffic = sampleTraffic();
    std::shared_ptr<klNetBuffer> plain = klNetBufferPool::pop();
    std::copy(traffic.begin(), traffic.end(), plain->getData());
    plain->setDataSize(traffic.size());
    plain->setCompression(klNetCompressionNone, traffic.size());
    plain->setType(klNetMessageTypeMessage);
    plain->setDestination(2);
    const std::shared_ptr<klNetBuffer> packed = compressor.compress(plain);
    if (packed == plain) {
        throw std::runtime_error(target + ": sample traffic did not compress");
    }
    // A peer's buffer: settings byte 0, then the buffer in the normal framing.
    write(target, "peer-compressed", Bytes{0} + framed(*packed));
    write(target, "peer-uncompressed", Bytes{0} + framed(*plain));
    Bytes otherCodec = framed(*packed);
    otherCodec[11] = std::uint8_t(otherMethod);
    write(target, "peer-other-method", Bytes{0} + otherCodec);
    Bytes shortClaim = framed(*packed);
    const Bytes oneLess = le32(std::uint32_t(packed->getOriginalDataSize() - 1));
    std::copy(oneLess.begin(), oneLess.end(), shortClaim.begin() + 4);
    write(target, "peer-original-size-short", Bytes{0} + shortClaim);
    // A round trip: settings byte 1, tuning, original size, damage and its value, then the
    // bytes repeated to fill the payload.
    const auto roundTrip = [&](std::uint8_t tune, std::uint32_t size, std::uint8_t damage,
                               std::uint32_t value) {
        return Bytes{1, tune} + le32(size) + Bytes{damage} + le32(value) +
               Bytes(traffic.begin(), traffic.begin() + 2000);
    };
    write(target, "round-trip-whole-buffer",
          roundTrip(0, std::uint32_t(klNetBuffer::getCapacity()), 0, 0));
    write(target, "round-trip-flipped-byte", roundTrip(3, 9000, 1, 0x80000011));
    write(target, "round-trip-truncated", roundTrip(0, 20000, 2, 5));
    write(target, "round-trip-original-size-plus-one", roundTrip(0, 20000, 4, 2 * 17));
}

void codecs() {
    klNetLz4Compressor lz4;
    codec("klNetLz4DecompressFuzz", lz4, klNetZstdCompressor::kMethod);
    klNetZstdCompressor zstd;
    codec("klNetZstdDecompressFuzz", zstd, klNetLz4Compressor::kMethod);
}

#ifdef KLFUZZ_WITH_RENDER
void renderRequest() {
    const std::string target = "klRenderRequestFuzz";
    const auto requests = [](const std::vector<klRenderRequest>& list) {
        return streamDataOf([&list](klNetStream& stream) {
            for (const klRenderRequest& request : list) {
                request.write(stream);
            }
        });
    };
    // A corner of a Mandelbrot frame, small enough to render in the target.
    klRenderRequest corner = klRenderRequest::defaultFrame(64, 48);
    corner.x0 = 60;
    corner.y0 = 40;
    corner.width = 4;
    corner.height = 3;
    corner.maxIterations = 200;
    klRenderRequest julia = corner;
    julia.fractal = klRenderFractal::julia;
    julia.x0 = 0;
    julia.y0 = 0;
    klRenderRequest outside = corner;
    outside.x0 = 62;
    const klRenderRequest whole = klRenderRequest::defaultFrame(1920, 1080);

    write(target, "small", Bytes{255} + requests({corner}));
    write(target, "refused-then-julia-cut5", Bytes{4} + requests({outside, julia}));
    write(target, "whole-frame", Bytes{255} + requests({whole}));
    Bytes version2 = requests({corner});
    version2[4] = 2;
    write(target, "version-2", Bytes{255} + version2);
    const std::string http = "GET / HTTP/1.1\r\nHost: node\r\n\r\n";
    write(target, "other-protocol", Bytes{255} + Bytes(http.begin(), http.end()));
    const Bytes cutShort = requests({corner, julia});
    write(target, "second-cut-short", Bytes{255} + Bytes(cutShort.begin(), cutShort.end() - 9));
}

// A server's answers to a region of 4 x 3 pixels from row 40: success, the bands given (first
// row, rows, payload bytes; the pixels a render makes where there are enough), success.
void renderAnswer() {
    struct Band : klNetMessage {
        klNetMessageType getMessageType() override { return klNetMessageTypeImage; }
    };
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 40, region.width = 4, region.height = 3;
    const Bytes pixels = klRenderPixels(region);
    const auto answer = [&](const std::vector<std::array<std::uint32_t, 3>>& bands) {
        auto link = std::make_shared<CaptureLink>();
        klNetStream server(link);
        server.sendSuccess().flush();
        for (const auto& [y, rows, bytes] : bands) {
            Band band;
            band << y << rows;
            band.putValueSize(bytes);
            Bytes payload(pixels);
            payload.resize(bytes);
            band.putBytes(payload.data(), bytes);
            server.sendMessage(band, 0);
        }
        server.sendSuccess().flush();
        return Bytes{3, 2} + link->bytes;
    };
    const std::string target = "klRenderAnswerFuzz";
    write(target, "whole", answer({{40, 3, 36}}));
    write(target, "two-bands", answer({{40, 1, 12}, {41, 2, 24}}));
    write(target, "band-past-the-region", answer({{40, 2, 24}, {42, 2, 24}}));
    write(target, "band-of-other-size", answer({{40, 3, 48}}));
}
#endif

void usage(std::FILE* to) {
    std::fprintf(to,
                 "usage: klFuzzCorpusGen OUTPUT_DIR\n"
                 "Writes the seed corpus of every fuzz target into OUTPUT_DIR/<target>/, from\n"
                 "traffic the library makes. Files of other names are left alone.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        usage(stdout);
        return 0;
    }
    if (argc != 2) {
        std::fprintf(stderr, "klFuzzCorpusGen: expected one OUTPUT_DIR (see --help)\n");
        return 2;
    }
    if (argv[1][0] == '-') {
        std::fprintf(stderr, "klFuzzCorpusGen: unknown option '%s' (see --help)\n", argv[1]);
        return 2;
    }
    g_output = argv[1];
    try {
        messageRead();
        interfaceOptions();
        serviceStatus();
        bundles();
        stream();
        socketLink();
        greeting();
        serviceRequest();
        socketPipe();
        stdStream();
        codecs();
        farmSealer();
#ifdef KLFUZZ_WITH_RENDER
        renderRequest();
        renderAnswer();
#endif
    } catch (const std::exception& e) {
        std::fprintf(stderr, "klFuzzCorpusGen: %s\n", e.what());
        return 1;
    }
    std::printf("wrote %d corpus files into %s\n", g_written, g_output.c_str());
    return 0;
}
