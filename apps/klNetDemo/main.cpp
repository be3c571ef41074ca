// klNetDemo: two endpoints of a klNetStream in two processes over loopback.
//
// The master (this process, rank 1) starts a node (the same program with --node <port>, rank 2),
// greets it, and then: writes typed values through the byte stream, exchanges a 1 MiB message,
// calls a remote operation that fails and gets its exception back, meets the node at a sync point,
// and streams 1 GiB to it with a progress bar, printing throughput figures.
#include <klNetBase/klNetBase.h>

#include "klCommandLine.h"
#include "klVersionInfo.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMasterRank = 1;
constexpr int kNodeRank = 2;
constexpr std::size_t kMessageBytes = std::size_t(1) << 20;
constexpr std::size_t kStreamBytes = std::size_t(1) << 30;
constexpr std::size_t kChunk = std::size_t(1) << 20;

// Requests of the master to the node, sent as one-value messages.
enum Request : std::int32_t { kEchoValues = 1, kEchoMessage, kFailingCall, kSync, kSink, kQuit };

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// One chunk of the 1 GiB stream: a fixed pattern with the chunk's offset in its first 8 bytes, so
// the node can check every byte and the order of the chunks at memory speed.
void stampChunk(std::vector<unsigned char>& chunk, std::uint64_t offset) {
    if (chunk[8] == 0 && chunk[9] == 0) {
        for (std::size_t i = 0; i < chunk.size(); ++i) {
            chunk[i] = static_cast<unsigned char>((i * 2654435761u) >> 13) | 1;
        }
    }
    std::memcpy(chunk.data(), &offset, sizeof(offset));
}

// Draws a bar on a terminal, or prints a line every 10 percent when the output is a file or pipe.
class ProgressPrinter : public klNetProgress::Handler {
public:
    ProgressPrinter() : m_terminal(::isatty(STDOUT_FILENO) == 1) {}

    void begin(const std::string& text, double) override {
        m_text = text;
        m_lastTenth = -1;
        m_start = Clock::now();
    }
    void progress(double percent) override {
        if (percent < 0) {
            return;
        }
        const double seconds = secondsSince(m_start);
        const double rate = seconds > 0 ? percent / 100.0 * double(kStreamBytes) / seconds : 0;
        if (m_terminal) {
            const int filled = int(percent / 100.0 * 40);
            std::printf("\r  %s [%-40s] %5.1f%%  %6.2f GB/s", m_text.c_str(),
                        std::string(std::size_t(filled), '#').c_str(), percent, rate / 1e9);
            if (percent >= 100.0) {
                std::printf("\n");
            }
        } else if (int(percent / 10) != m_lastTenth && percent > 0) {
            m_lastTenth = int(percent / 10);
            std::printf("  %s %3d%%  %6.2f GB/s\n", m_text.c_str(), m_lastTenth * 10, rate / 1e9);
        }
        std::fflush(stdout);
    }

private:
    bool m_terminal;
    std::string m_text;
    int m_lastTenth = -1;
    Clock::time_point m_start;
};

void sendRequest(klNetStream& stream, Request request) {
    klNetMessage message;
    message << std::int32_t(request);
    stream.sendMessage(message, kNodeRank);
}

// ---- the node -------------------------------------------------------------------------------

int runNode(int port) {
    auto link = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 10.0);
    link->signalHPCNetSocket();
    klNetStream stream(link);
    stream.setRank(kNodeRank);

    for (;;) {
        klNetMessage request;
        stream.recvMessage(request);
        std::int32_t code = 0;
        request >> code;
        switch (code) {
            case kEchoValues: {
                std::int64_t big;
                double real;
                bool flag;
                std::string text;
                std::vector<float> samples;
                stream >> big >> real >> flag >> text >> samples;
                klNetMessage reply;
                reply << big << real << flag << text << samples;
                stream.sendMessage(reply, kMasterRank);
                break;
            }
            case kEchoMessage: {
                klNetMessage data;
                stream.recvMessage(data);
                std::vector<unsigned char> bytes(data.getMessageSize());
                data.getBytes(bytes.data(), bytes.size());
                klNetMessage reply;
                reply.putBytes(bytes.data(), bytes.size());
                stream.sendMessage(reply, kMasterRank);
                break;
            }
            case kFailingCall:
                try {
                    throw std::runtime_error("render node 2: no such scene 'teapot.kls'");
                } catch (const std::exception& e) {
                    stream.sendException(e) << klNetStream::flush;
                }
                break;
            case kSync:
                stream.sendSync(stream.waitSync() + 1);
                break;
            case kSink: {
                std::vector<unsigned char> expected(kChunk), got(kChunk);
                bool intact = true;
                for (std::size_t offset = 0; offset < kStreamBytes; offset += kChunk) {
                    stream.getBytes(got.data(), kChunk);
                    stampChunk(expected, offset);
                    intact = intact && expected == got;
                }
                if (intact) {
                    stream.sendSuccess() << klNetStream::flush;
                } else {
                    stream.sendException(std::runtime_error("stream data corrupted"))
                        << klNetStream::flush;
                }
                break;
            }
            case kQuit:
                return 0;
            default:
                std::fprintf(stderr, "node: unknown request %d\n", int(code));
                return 1;
        }
    }
}

// ---- the master -----------------------------------------------------------------------------

pid_t startNode(const char* self, int port) {
    const std::string portText = std::to_string(port);
    char* argv[] = {const_cast<char*>(self), const_cast<char*>("--node"),
                    const_cast<char*>(portText.c_str()), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv, environ) != 0) {
        throw std::runtime_error("unable to start the node process");
    }
    return pid;
}

bool check(bool ok, const char* what) {
    std::printf("  %-52s %s\n", what, ok ? "ok" : "MISMATCH");
    return ok;
}

int runMaster(const char* self) {
    std::printf("klNetBase %s transport demo\n\n", klVersionInfo::the().getVersionString().c_str());

    klBoundSocketLink listener(0);
    const int port = listener.getAddress().getPort();
    const pid_t node = startNode(self, port);
    std::shared_ptr<klSocketLink> link;
    {
        klSocketLink accepted(listener);
        link = klSocketLink::checkForHPCNetSocket(accepted.takeDescriptor());
    }
    if (!link) {
        throw std::runtime_error("the node did not greet");
    }
    std::printf("node process %d connected: %s (port %d)\n", int(node), link->getLinkName().c_str(),
                port);
    klNetStream stream(link);
    stream.setRank(kMasterRank);
    // The master's sender names the node it reaches, so that a sync point waits for its answer.
    stream.setSender(klNetLinkSender::create(link, {kNodeRank}));
    bool ok = true;

    std::printf("\nbyte stream, read back by the node and returned as a message:\n");
    std::vector<float> samples(50000);
    std::iota(samples.begin(), samples.end(), 0.5f);
    sendRequest(stream, kEchoValues);
    stream << std::int64_t(-1234567890123) << 2.718281828 << true
           << std::string("frame 0042 of shot 7") << samples << klNetStream::flush;
    klNetMessage echoed;
    stream.recvMessage(echoed);
    std::int64_t big = 0;
    double real = 0;
    bool flag = false;
    std::string text;
    std::vector<float> samplesBack;
    echoed >> big >> real >> flag >> text >> samplesBack;
    ok &= check(big == -1234567890123 && real == 2.718281828 && flag, "int64, double, bool");
    ok &= check(text == "frame 0042 of shot 7", "string");
    ok &= check(samplesBack == samples, "50000 floats across buffers");

    std::printf("\nwhole messages:\n");
    std::vector<unsigned char> payload(kMessageBytes);
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    sendRequest(stream, kEchoMessage);
    klNetMessage message;
    message.putBytes(payload.data(), payload.size());
    const Clock::time_point messageStart = Clock::now();
    stream.sendMessage(message, kNodeRank);
    klNetMessage answer;
    stream.recvMessage(answer);
    const double roundTrip = secondsSince(messageStart);
    std::vector<unsigned char> back(answer.getMessageSize());
    answer.getBytes(back.data(), back.size());
    ok &= check(back == payload, "1 MiB message there and back");
    std::printf("  round trip of 2 x 1 MiB: %.2f ms\n", roundTrip * 1e3);

    std::printf("\nremote call that fails:\n");
    sendRequest(stream, kFailingCall);
    try {
        stream.recvResult();
        ok &= check(false, "remote exception arrives");
    } catch (const klNetError& e) {
        std::printf("  klNetError: %s\n", e.what());
        ok &= check(std::string(e.what()) == "render node 2: no such scene 'teapot.kls'",
                    "remote exception text arrives intact");
    }

    std::printf("\nsync point:\n");
    sendRequest(stream, kSync);
    stream.sendSync(41);
    ok &= check(stream.waitSync() == 42, "master sends 41, node answers 42");

    std::printf("\nstreaming 1 GiB to the node:\n");
    ProgressPrinter printer;
    klNetProgress::set(&printer);
    sendRequest(stream, kSink);
    klNetProgress::start("1 GiB", double(kStreamBytes / kChunk));
    std::vector<unsigned char> chunk(kChunk);
    const std::uint64_t sentBefore = stream.getSentBytes();
    const Clock::time_point streamStart = Clock::now();
    for (std::size_t offset = 0; offset < kStreamBytes; offset += kChunk) {
        stampChunk(chunk, offset);
        stream.putBytes(chunk.data(), chunk.size());
        klNetProgress::add(1);
    }
    stream.flush();
    bool intact = true;
    try {
        stream.recvResult();
    } catch (const klNetError& e) {
        std::printf("  node: %s\n", e.what());
        intact = false;
    }
    const double streamSeconds = secondsSince(streamStart);
    klNetProgress::reset();
    ok &= check(intact, "every byte checked by the node");
    const double wireBytes = double(stream.getSentBytes() - sentBefore);
    std::printf("  %.0f MiB on the wire in %.2f s: %.2f GB/s, checked by the node\n",
                wireBytes / 1048576.0, streamSeconds, wireBytes / streamSeconds / 1e9);

    sendRequest(stream, kQuit);
    int status = 0;
    waitpid(node, &status, 0);
    ok &= check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "node finished cleanly");
    std::printf("\nsent %" PRIu64 " bytes, received %" PRIu64 " bytes\n%s\n", stream.getSentBytes(),
                stream.getRecevedBytes(), ok ? "everything arrived as written" : "DEMO FAILED");
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    klCommandLine cli("klNetDemo",
                      "Starts a second process as the other end of a stream over loopback and "
                      "shows typed values, a 1 MiB message, a remote exception, a sync point and "
                      "a 1 GiB stream with its throughput (a progress bar on a terminal, a line "
                      "every tenth otherwise).");
    int node = 0;
    cli.app()
        .add_option("--node", node,
                    "run as the demo's second process, connecting to this port of 127.0.0.1 "
                    "(the demo starts it so)")
        ->type_name("PORT")
        ->check(klCommandLine::integer(1, 65535));
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        return *done;
    }
    try {
        return node != 0 ? runNode(node) : runMaster(argv[0]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "klNetDemo: %s\n", e.what());
        return 1;
    }
}
