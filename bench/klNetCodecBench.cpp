// The codecs of klNetBaseCodecs, on their own and in the compressing and decompressing stages:
//
//   codecs    compression and decompression throughput of one worker thread for each codec, on
//             rendered-looking image data (an RGBA gradient with sparse noise) and on random bytes
//   loopback  bulk transfer of the data over a socket link on 127.0.0.1, with and without the LZ4
//             stages (klNetCompressSender / klNetDecompressReceiver); every buffer is checked
//   veth      as root only: the image transfer between two network namespaces made for the run,
//             joined by a veth pair shaped to a rate (tbf, 1 Gbit/s by default), with and without
//             LZ4; the namespaces are removed at the end, on failure and on SIGINT/SIGTERM too
//
// Each figure is the median of the rounds. Run `klNetCodecBench --help` for the options.
#include "klBenchSupport.h"

#include <klNetBase/codecs/klNetCodecs.h>
#include <klNetBase/recv/klNetDecompressReceiver.h>
#include <klNetBase/send/klNetCompressSender.h>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace klbench;
using Buffer = std::shared_ptr<klNetBuffer>;

constexpr std::size_t kPayload = 131072;
constexpr const char* kProgram = "klNetCodecBench";
struct Options {
    double gib = 1.0;
    int rounds = 3;
    std::string rate = "1gbit";
    bool veth = true;
    std::string only;  // empty: every part
    bool runs(const char* part) const { return only.empty() || only == part; }
};

Options parse(int argc, char** argv) {
    Options options;
    klCommandLine cli(kProgram,
                      "Throughput of the LZ4 and Zstandard codecs per worker thread, bulk transfer "
                      "with and without the LZ4 stages over loopback and, as root, over a "
                      "rate-limited veth pair between two network namespaces that the benchmark "
                      "creates and removes.");
    CLI::App& app = cli.app();
    app.add_option("--size", options.gib, "data per bulk transfer in GiB (default 1)")
        ->type_name("GIB")
        ->check(klCommandLine::number(1.0 / 1024, 64));
    app.add_option("--rounds", options.rounds, "rounds per figure; figures are medians (default 3)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 100));
    app.add_option("--rate", options.rate,
                   "tbf rate of the veth pair, as tc takes it (default 1gbit)")
        ->type_name("RATE")
        ->check(CLI::Validator(
            [](std::string& rate) -> std::string {
                return !rate.empty() &&
                               rate.find_first_not_of("0123456789.kmgtbitps") == std::string::npos
                           ? ""
                           : "'" + rate + "' is not a rate such as 1gbit or 500mbit";
            },
            "", "rate"));
    app.add_option("--only", options.only, "run one part only: codecs, loopback or veth")
        ->type_name("PART")
        ->check(CLI::Validator(
            [](std::string& part) -> std::string {
                return part == "codecs" || part == "loopback" || part == "veth"
                           ? ""
                           : "'" + part + "' is none of codecs, loopback and veth";
            },
            "", "part"));
    bool noVeth = false;
    app.add_flag("--no-veth", noVeth, "skip the veth part even as root");
    app.footer(
        "Targets: LZ4 compression of image data at least 1 GB/s per core; the LZ4 stages on "
        "random bytes at most 10% over none, in time and in processor time; LZ4 over the rate-"
        "limited veth pair at least 2 times as fast as without.");
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        std::exit(*done);
    }
    options.veth = !noVeth;
    return options;
}

// ---- data ----

// A rendered-looking 1920x1080 RGBA frame cut into buffers: smooth gradients per channel, and on
// one pixel in 32 one channel off by up to 4, as sampling noise and anti-aliasing leave it. Buffer
// i carries sequence i so that the receiver can check it against its source.
std::vector<Buffer> imageBuffers() {
    constexpr std::size_t kWidth = 1920, kHeight = 1080;
    std::vector<unsigned char> frame(kWidth * kHeight * 4);
    std::mt19937 random(1);
    for (std::size_t y = 0; y < kHeight; ++y) {
        for (std::size_t x = 0; x < kWidth; ++x) {
            unsigned char* pixel = &frame[(y * kWidth + x) * 4];
            pixel[0] = static_cast<unsigned char>(x * 256 / kWidth);
            pixel[1] = static_cast<unsigned char>(y * 256 / kHeight);
            pixel[2] = static_cast<unsigned char>((x + y) / 12);
            pixel[3] = 255;
            if (random() % 32 == 0) {
                pixel[random() % 3] += static_cast<unsigned char>(random() % 5);
            }
        }
    }
    std::vector<Buffer> buffers;
    for (std::size_t at = 0; at + kPayload <= frame.size(); at += kPayload) {
        buffers.push_back(filledBuffer(kPayload, 0));
        std::memcpy(buffers.back()->getData(), &frame[at], kPayload);
        buffers.back()->setType(klNetMessageTypeImage);
        buffers.back()->setSequence(buffers.size() - 1);
    }
    return buffers;
}

std::vector<Buffer> randomBuffers() {
    std::mt19937_64 random(2);
    std::vector<Buffer> buffers;
    for (int i = 0; i < 63; ++i) {
        buffers.push_back(filledBuffer(kPayload, 0));
        auto* words = reinterpret_cast<std::uint64_t*>(buffers.back()->getData());
        for (std::size_t w = 0; w < kPayload / 8; ++w) {
            words[w] = random();
        }
        buffers.back()->setSequence(buffers.size() - 1);
    }
    return buffers;
}

struct DataSet {
    const char* name;
    std::vector<Buffer> buffers;
};

struct Codec {
    const char* name;
    std::shared_ptr<klNetBlockCompressor> compressor;
};

// ---- results ----

struct Row {
    std::string figure;
    std::string unit;
    double value;
    std::string target;  // empty when the figure has none
};

std::vector<Row> g_rows;

void report(const std::string& figure, const std::string& unit, double value,
            const std::string& target = "") {
    g_rows.push_back({figure, unit, value, target});
    std::printf("  %-44s %10.3f %s\n", figure.c_str(), value, unit.c_str());
    std::fflush(stdout);
}

// ---- codec throughput ----

double threadSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// Median GB/s of pass() over bytesPerPass, per second of this thread's processor time (so that
// other load on the machine does not count), each round at least a quarter second long.
double throughput(int rounds, std::size_t bytesPerPass, const std::function<void()>& pass) {
    std::vector<double> rates;
    for (int round = 0; round < rounds; ++round) {
        const double start = threadSeconds();
        std::size_t bytes = 0;
        do {
            pass();
            bytes += bytesPerPass;
        } while (threadSeconds() - start < 0.25);
        rates.push_back(double(bytes) / (threadSeconds() - start) / 1e9);
    }
    return median(rates);
}

void codecFigures(const Options& options, const std::vector<DataSet>& sets,
                  const std::vector<Codec>& codecs) {
    std::printf("codecs, GB/s per processor second of one thread, %d rounds\n", options.rounds);
    for (const DataSet& set : sets) {
        const std::size_t bytes = set.buffers.size() * kPayload;
        Buffer scratch = klNetBufferPool::pop();
        const double copy = throughput(options.rounds, bytes, [&] {
            for (const Buffer& buffer : set.buffers) {
                std::memcpy(scratch->getData(), buffer->getData(), kPayload);
            }
        });
        report(std::string(set.name) + " copy (reference)", "GB/s", copy);
        for (const Codec& codec : codecs) {
            std::vector<Buffer> packed;
            std::size_t packedBytes = 0;
            for (const Buffer& buffer : set.buffers) {
                packed.push_back(codec.compressor->compress(buffer));
                packedBytes += packed.back()->getDataSize();
            }
            const double compress = throughput(options.rounds, bytes, [&] {
                for (const Buffer& buffer : set.buffers) {
                    codec.compressor->compress(buffer);
                }
            });
            const std::string prefix = std::string(set.name) + " " + codec.name;
            const bool lz4Image =
                codec.name == std::string("LZ4") && set.name == std::string("image");
            report(prefix + " compress", "GB/s", compress, lz4Image ? ">= 1.0" : "");
            if (packedBytes < bytes) {  // otherwise there is nothing to decompress
                report(prefix + " decompress", "GB/s", throughput(options.rounds, bytes, [&] {
                           for (const Buffer& buffer : packed) {
                               codec.compressor->decompress(buffer);
                           }
                       }));
            }
            report(prefix + " ratio", "x", double(bytes) / double(packedBytes));
        }
    }
}

// ---- bulk transfer ----

struct LinkEnds {
    std::shared_ptr<klSocketLink> near;
    std::shared_ptr<klSocketLink> far;
};

LinkEnds loopbackEnds() {
    LinkPair pair;
    return {pair.client, pair.server};
}

// Processor seconds of the whole process so far, every thread, user and system.
double processSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

struct Cost {
    double seconds = 0;    // wall time from the first send to the last buffer received
    double processor = 0;  // processor seconds of the process in that time
};

// Sends count buffers, cycling through the data, from near to far, through the compressing and
// decompressing stages when a compressor is given; the receiver checks every payload against its
// source. wire gets the bytes that travelled (payload + header).
Cost transfer(const LinkEnds& ends, const std::vector<Buffer>& data, std::size_t count,
              const std::shared_ptr<klNetCompressorBase>& compressor, const std::string& label,
              std::uint64_t& wire) {
    std::shared_ptr<klNetReceiver> receiver = klNetLinkReceiver::create(ends.far);
    std::shared_ptr<klNetSender> sender = klNetLinkSender::create(ends.near);
    if (compressor) {
        std::vector<std::shared_ptr<klNetReceiver>> children{receiver};
        receiver = klNetDecompressReceiver::create(compressor, children);
        sender = klNetCompressSender::create(compressor, klNetLockedSender::create(sender));
    }
    ends.far->setRecvTimeout(30.0);
    const std::size_t mib = count * kPayload >> 20;
    auto received = std::async(std::launch::async, [&] {
        const auto start = Clock::now();
        double shown = 0;
        for (std::size_t i = 0; i < count; ++i) {
            Buffer buffer;
            receiver->recv(buffer);
            const Buffer& source = data.at(buffer->getSequence());
            require(buffer->getDataSize() == kPayload && buffer->getCompression() == 0 &&
                        std::memcmp(buffer->getData(), source->getData(), kPayload) == 0,
                    "a buffer arrived damaged");
            if (secondsSince(start) - shown > 0.5 || i + 1 == count) {
                shown = secondsSince(start);
                char line[96];
                std::snprintf(line, sizeof(line), "    %-40s %6zu / %zu MiB", label.c_str(),
                              (i + 1) * kPayload >> 20, mib);
                progressLine(stderr, line);
            }
        }
        progressLine(stderr, std::string(78, ' ') + "\r");
    });
    const auto start = Clock::now();
    const double processorStart = processSeconds();
    for (std::size_t i = 0; i < count; ++i) {
        sender->send(data[i % data.size()]);
    }
    sender->waitAllDataTransfered();
    received.get();
    const Cost cost{secondsSince(start), processSeconds() - processorStart};
    wire = compressor ? sender->getCompressedBytes() : count * (kPayload + 24);
    return cost;
}

// Runs none and LZ4 round by round, interleaved, on fresh link ends each time; reports GB/s of
// payload, processor time per GiB and the wire volume. Returns the medians of {none, LZ4}.
std::pair<Cost, Cost> bulkFigures(const std::string& where, const Options& options,
                                  const DataSet& set, const std::function<LinkEnds()>& connect) {
    const std::size_t count = std::size_t(options.gib * double(1 << 30)) / kPayload;
    auto lz4 = klNetLz4Compressor::create();
    // The settings say whether to compress image and other data; the compressor says how.
    klNetOptions::setImageCompression(klNetLz4Compressor::kMethod);
    klNetOptions::setDataCompression(klNetLz4Compressor::kMethod);
    std::uint64_t plainWire = 0, packedWire = 0;
    // Lets the buffer pool grow to what the stages hold, before anything is timed.
    transfer(connect(), set.buffers, 512, lz4, where + " warm-up", packedWire);
    std::vector<double> seconds[2], processor[2];
    for (int round = 0; round < options.rounds; ++round) {
        for (int packed : {0, 1}) {
            const std::string label = where + " " + set.name + (packed ? " LZ4" : " none");
            const Cost cost = transfer(connect(), set.buffers, count, packed ? lz4 : nullptr, label,
                                       packed ? packedWire : plainWire);
            seconds[packed].push_back(cost.seconds);
            processor[packed].push_back(cost.processor);
        }
    }
    const double gib = double(count * kPayload) / double(1 << 30);
    const Cost plain{median(seconds[0]), median(processor[0])};
    const Cost packed{median(seconds[1]), median(processor[1])};
    const std::string prefix = where + " " + set.name;
    report(prefix + " none", "GB/s", gib * double(1 << 30) / plain.seconds / 1e9);
    report(prefix + " LZ4", "GB/s", gib * double(1 << 30) / packed.seconds / 1e9);
    report(prefix + " none, processor", "s/GiB", plain.processor / gib);
    report(prefix + " LZ4, processor", "s/GiB", packed.processor / gib);
    report(prefix + " LZ4 wire volume", "%", 100.0 * double(packedWire) / double(plainWire));
    return {plain, packed};
}

// ---- network namespaces ----

// Output and status of a shell command line built from fixed words.
int run(const std::string& command, std::string* output = nullptr) {
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    std::string text;
    char chunk[256];
    while (std::fgets(chunk, sizeof(chunk), pipe) != nullptr) {
        text += chunk;
    }
    const int status = ::pclose(pipe);
    if (output != nullptr) {
        *output = text;
    }
    return status;
}

constexpr const char* kNamespacePrefix = "klCodecBench-";

// Two network namespaces joined by a veth pair (10.231.255.1 and .2), the egress of both ends
// shaped by tbf. What create() made is removed by remove() or the destructor; remove() may also be
// called from the signal watcher at any time.
class VethPair {
public:
    VethPair() = default;
    ~VethPair() { remove(); }
    VethPair(const VethPair&) = delete;
    VethPair& operator=(const VethPair&) = delete;

    // Throws the first failing command and its first line of output, after removing what it made.
    void create(const std::string& rate) {
        const std::string pid = std::to_string(::getpid());
        m_a = kNamespacePrefix + pid + "-a";
        m_b = kNamespacePrefix + pid + "-b";
        const std::string va = "klcb" + pid + "a", vb = "klcb" + pid + "b";
        const std::string shape = " root tbf rate " + rate + " burst 256kb latency 25ms";
        for (const std::string& name : {m_a, m_b}) {
            // Recorded first: a signal during the command must still remove the namespace.
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_made.push_back(name);
            }
            step("ip netns add " + name);
        }
        step("ip link add " + va + " netns " + m_a + " type veth peer name " + vb + " netns " +
             m_b);
        step("ip -n " + m_a + " addr add 10.231.255.1/30 dev " + va);
        step("ip -n " + m_b + " addr add 10.231.255.2/30 dev " + vb);
        step("ip -n " + m_a + " link set " + va + " up");
        step("ip -n " + m_b + " link set " + vb + " up");
        step("tc -n " + m_a + " qdisc add dev " + va + shape);
        step("tc -n " + m_b + " qdisc add dev " + vb + shape);
    }

    // Deleting a namespace deletes its end of the veth pair, and with it the other end.
    void remove() {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const std::string& name : m_made) {
            run("ip netns del " + name);
        }
        m_made.clear();
    }

    // A connected link pair: near opened in namespace a, far accepted in namespace b. A socket
    // stays in the namespace it was made in, whichever thread uses it later.
    LinkEnds connect() const {
        auto listener = std::async(std::launch::async, [this] {
                            enter(m_b);
                            return std::make_unique<klBoundSocketLink>(0);
                        }).get();
        auto far = std::async(std::launch::async,
                              [&] { return std::make_shared<klSocketLink>(*listener); });
        try {
            const int port = listener->getAddress().getPort();
            auto near = std::async(std::launch::async, [this, port] {
                            enter(m_a);
                            return std::make_shared<klSocketLink>(
                                klSocketAddress("10.231.255.2", port), 5.0);
                        }).get();
            return {near, far.get()};
        } catch (...) {
            listener->shutdown();  // ends the accept
            far.wait();
            throw;
        }
    }

private:
    void step(const std::string& command) {
        std::string output;
        if (run(command, &output) != 0) {
            remove();
            throw std::runtime_error("'" + command +
                                     "' failed: " + output.substr(0, output.find('\n')));
        }
    }

    // Moves the calling thread (only) into the namespace.
    static void enter(const std::string& name) {
        const int fd = ::open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        const bool entered = fd >= 0 && ::setns(fd, CLONE_NEWNET) == 0;
        if (fd >= 0) {
            ::close(fd);
        }
        require(entered, "cannot enter a network namespace");
    }

    std::string m_a, m_b;
    // Guards m_made: the namespaces that may exist and are ours to delete.
    std::mutex m_mutex;
    std::vector<std::string> m_made;
};

// Namespaces of earlier runs that died without cleaning up (SIGKILL): their process is gone.
void removeStaleNamespaces() {
    DIR* dir = ::opendir("/var/run/netns");
    if (dir == nullptr) {
        return;
    }
    std::vector<std::string> stale;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.rfind(kNamespacePrefix, 0) != 0) {
            continue;
        }
        const long pid = std::atol(name.c_str() + std::strlen(kNamespacePrefix));
        if (pid > 0 && ::kill(pid_t(pid), 0) != 0 && errno == ESRCH) {
            stale.push_back(name);
        }
    }
    ::closedir(dir);
    for (const std::string& name : stale) {
        run("ip netns del " + name);
    }
}

// Handles SIGINT, SIGTERM and SIGHUP on a thread of its own, so that an interrupted run still
// removes what it made: the cleanup runs, then the process ends with 128 + the signal. Blocks the
// signals in the calling thread, so every thread started later inherits the mask.
class SignalWatcher {
public:
    explicit SignalWatcher(std::function<void()> cleanup) : m_cleanup(std::move(cleanup)) {
        sigemptyset(&m_signals);
        for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
            sigaddset(&m_signals, signal);
        }
        pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
        m_thread = std::thread([this] {
            int signal = 0;
            while (sigwait(&m_signals, &signal) == 0 && signal != SIGUSR1) {
                std::fprintf(stderr, "\n%s: interrupted, cleaning up\n", kProgram);
                m_cleanup();
                std::_Exit(128 + signal);
            }
        });
    }
    ~SignalWatcher() {
        pthread_kill(m_thread.native_handle(), SIGUSR1);
        m_thread.join();
    }
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

private:
    std::function<void()> m_cleanup;
    sigset_t m_signals;
    std::thread m_thread;
};

// ---- main ----

void printTable() {
    std::printf("\n| figure | unit | value | target |\n|---|---|---|---|\n");
    for (const Row& row : g_rows) {
        std::printf("| %s | %s | %.3f | %s |\n", row.figure.c_str(), row.unit.c_str(), row.value,
                    row.target.c_str());
    }
}

int runBenchmark(const Options& options) {
    // The veth pair in use, for the signal watcher; guarded by vethMutex.
    std::shared_ptr<VethPair> veth;
    std::mutex vethMutex;
    SignalWatcher watcher([&] {
        std::shared_ptr<VethPair> pair;
        {
            std::lock_guard<std::mutex> lock(vethMutex);
            pair = veth;
        }
        if (pair) {
            pair->remove();
        }
    });
    auto publish = [&](std::shared_ptr<VethPair> pair) {
        std::lock_guard<std::mutex> lock(vethMutex);
        veth = std::move(pair);
    };

    int status = 0;
    std::printf("preparing data\n");
    const std::vector<DataSet> sets = {{"image", imageBuffers()}, {"random", randomBuffers()}};
    const std::vector<Codec> codecs = {{"LZ4", klNetLz4Compressor::create()},
                                       {"zstd-1", klNetZstdCompressor::create(1)}};
    if (options.runs("codecs")) {
        codecFigures(options, sets, codecs);
    }
    if (options.runs("loopback")) {
        std::printf("loopback, %.3g GiB per transfer, %d rounds\n", options.gib, options.rounds);
        bulkFigures("loopback", options, sets[0], loopbackEnds);
        const auto [plain, packed] = bulkFigures("loopback", options, sets[1], loopbackEnds);
        report("loopback random LZ4 / none, time", "x", packed.seconds / plain.seconds, "<= 1.10");
        report("loopback random LZ4 / none, processor", "x", packed.processor / plain.processor,
               "<= 1.10");
    }
    if (!options.runs("veth")) {
        printTable();
        return 0;
    }
    std::printf("veth, %s, %.3g GiB per transfer, %d rounds\n", options.rate.c_str(), options.gib,
                options.rounds);
    if (!options.veth) {
        std::printf("  skipped (--no-veth)\n");
    } else if (::geteuid() != 0) {
        std::printf("  skipped: creating network namespaces needs root\n");
    } else {
        removeStaleNamespaces();
        auto pair = std::make_shared<VethPair>();
        publish(pair);
        try {
            pair->create(options.rate);
            const auto [vethPlain, vethPacked] =
                bulkFigures("veth", options, sets[0], [&] { return pair->connect(); });
            report("veth image LZ4 speed-up", "x", vethPlain.seconds / vethPacked.seconds,
                   ">= 2.0");
        } catch (const std::exception& error) {
            std::printf("  failed: %s\n", error.what());
            status = 1;
        }
        publish(nullptr);
        pair->remove();
    }
    printTable();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    try {
        return runBenchmark(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", kProgram, error.what());
        return 1;
    }
}
