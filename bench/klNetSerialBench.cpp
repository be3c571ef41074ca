// Throughput and per-operation cost of the serializer, the message and the buffer pool.
//
//   BM_SerializerBulk        64 MiB through putBytes into a klNetMessage, handed to a reading
//                            message with setRecvBuffers and read back with getBytes
//   BM_MemcpyBulk            the same two copies of the same 64 MiB with plain memcpy
//   BM_PutValueU64           1 Mi 8-byte values written one by one with putValue
//   BM_GetValueU64           1 Mi 8-byte values read one by one with getValue
//   BM_BufferPoolPopRelease  klNetBufferPool::pop() and release, one and two threads
//
// After the usual table the program prints a summary: one line per figure with the measured value,
// the goal and PASS or MISS. The Google Benchmark options that make sense here are handed on to it
// (--benchmark_filter, --benchmark_repetitions, ..., see --help); with a --benchmark_format other
// than console the summary is left out so that the output stays machine-readable.
#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/serial/klNetMessage.h>

#include <benchmark/benchmark.h>

#include "klCommandLine.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBulkBytes = std::size_t(64) << 20;
constexpr std::size_t kChunk = 131072;
constexpr std::size_t kValueCount = std::size_t(1) << 20;
// Buffers a message of kValueCount values fills at the default threshold of 131072 bytes.
constexpr int kValueBuffers = int(kValueCount * sizeof(std::uint64_t) / kChunk);

// Names of the counters the summary reads back.
constexpr const char* kBytesPerSecond = "bytes_per_second";
constexpr const char* kTimePerValue = "time_per_value";
constexpr const char* kTimePerPair = "time_per_pair";

struct AlignedFree {
    void operator()(unsigned char* p) const { std::free(p); }
};
using Block = std::unique_ptr<unsigned char, AlignedFree>;

// Page-aligned and touched once, so that neither alignment nor first-touch page faults differ
// between the serializer and the memcpy baseline.
Block makeBlock(std::size_t size) {
    auto* p = static_cast<unsigned char*>(std::aligned_alloc(4096, size));
    if (p == nullptr) {
        std::fprintf(stderr, "klNetSerialBench: out of memory\n");
        std::abort();
    }
    std::memset(p, 0, size);
    return Block(p);
}

// The memory both bulk benchmarks copy from and to, allocated once for the whole run.
struct BulkData {
    Block source = makeBlock(kBulkBytes);
    Block intermediate = makeBlock(kBulkBytes);
    Block destination = makeBlock(kBulkBytes);

    BulkData() {
        unsigned char* s = source.get();
        for (std::size_t i = 0; i < kBulkBytes; ++i) {
            s[i] = static_cast<unsigned char>((i * 131) ^ (i >> 13));
        }
    }
};

BulkData& bulkData() {
    static BulkData data;
    return data;
}

// Makes sure the pool holds at least n free buffers, so that no timed iteration pays for growing
// it (new buffers are allocated and zeroed).
void primePool(int n) {
    std::vector<std::shared_ptr<klNetBuffer>> buffers;
    klNetBufferPool::popMany(n, buffers);
}

// One round trip of the bulk data through two messages: written in kChunk pieces, handed over as
// the list of buffers, read back in kChunk pieces. Each buffer goes back to the pool as soon as the
// reader has consumed it.
void serializerRoundTrip(const unsigned char* source, unsigned char* destination) {
    klNetMessage writer;
    for (std::size_t offset = 0; offset < kBulkBytes; offset += kChunk) {
        writer.putBytes(source + offset, kChunk);
    }
    std::vector<std::shared_ptr<klNetBuffer>> buffers = writer.takeSendBuffers();
    klNetMessage reader;
    reader.setRecvBuffers(buffers);
    buffers.clear();
    for (std::size_t offset = 0; offset < kBulkBytes; offset += kChunk) {
        reader.getBytes(destination + offset, kChunk);
    }
}

void BM_SerializerBulk(benchmark::State& state) {
    BulkData& data = bulkData();
    const unsigned char* source = data.source.get();
    unsigned char* destination = data.destination.get();
    // An untimed round first: the pool grows to the 512 buffers a round needs and their pages are
    // faulted in.
    primePool(int(kBulkBytes / kChunk) + 1);
    serializerRoundTrip(source, destination);
    std::memset(destination, 0, kBulkBytes);

    for (auto _ : state) {
        serializerRoundTrip(source, destination);
        benchmark::ClobberMemory();
    }

    if (std::memcmp(source, destination, kBulkBytes) != 0) {
        state.SkipWithError("bytes read back differ from the bytes written");
        return;
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kBulkBytes));
}

void BM_MemcpyBulk(benchmark::State& state) {
    BulkData& data = bulkData();
    const unsigned char* source = data.source.get();
    unsigned char* intermediate = data.intermediate.get();
    unsigned char* destination = data.destination.get();
    std::memset(destination, 0, kBulkBytes);

    for (auto _ : state) {
        for (std::size_t offset = 0; offset < kBulkBytes; offset += kChunk) {
            std::memcpy(intermediate + offset, source + offset, kChunk);
        }
        // Keeps the compiler from folding the two passes into one copy.
        benchmark::ClobberMemory();
        for (std::size_t offset = 0; offset < kBulkBytes; offset += kChunk) {
            std::memcpy(destination + offset, intermediate + offset, kChunk);
        }
        benchmark::ClobberMemory();
    }

    if (std::memcmp(source, destination, kBulkBytes) != 0) {
        state.SkipWithError("bytes copied differ from the source");
        return;
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kBulkBytes));
}

// A kIsRate | kInvert counter: seconds per item, shown as e.g. "1.2n" for 1.2 ns.
benchmark::Counter timePerItem(std::int64_t items) {
    return benchmark::Counter(double(items),
                              benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void setValueCounters(benchmark::State& state) {
    const std::int64_t values = std::int64_t(state.iterations()) * std::int64_t(kValueCount);
    state.SetItemsProcessed(values);
    state.counters[kTimePerValue] = timePerItem(values);
}

// Writes 0, 1, ..., kValueCount - 1 and returns the filled buffers.
std::vector<std::shared_ptr<klNetBuffer>> writeValues() {
    klNetMessage message;
    for (std::uint64_t i = 0; i < kValueCount; ++i) {
        // A fresh copy per value: the slow path takes the value's address, which would otherwise
        // keep the loop counter in memory.
        const std::uint64_t value = i;
        message.putValue(value);
    }
    return message.takeSendBuffers();
}

std::size_t payloadBytes(const std::vector<std::shared_ptr<klNetBuffer>>& buffers) {
    std::size_t total = 0;
    for (const auto& buffer : buffers) {
        total += buffer->getDataSize();
    }
    return total;
}

void BM_PutValueU64(benchmark::State& state) {
    primePool(kValueBuffers + 1);
    if (payloadBytes(writeValues()) != kValueCount * sizeof(std::uint64_t)) {
        state.SkipWithError("message holds the wrong number of bytes");
        return;
    }

    for (auto _ : state) {
        // The stores cannot be dropped: takeSendBuffers() is an out-of-line call that receives the
        // message, so every byte written must be in the buffers by then.
        std::vector<std::shared_ptr<klNetBuffer>> buffers = writeValues();
        benchmark::DoNotOptimize(buffers.data());
    }
    setValueCounters(state);
}

void BM_GetValueU64(benchmark::State& state) {
    const std::vector<std::shared_ptr<klNetBuffer>> buffers = writeValues();
    std::uint64_t sum = 0;

    for (auto _ : state) {
        klNetMessage message;
        message.setRecvBuffers(buffers);
        // Summing makes every value a live result at the cost of one add per value.
        std::uint64_t s = 0;
        for (std::size_t i = 0; i < kValueCount; ++i) {
            std::uint64_t value;
            message.getValue(value);
            s += value;
        }
        benchmark::DoNotOptimize(s);
        sum = s;
    }

    if (sum != std::uint64_t(kValueCount) * (kValueCount - 1) / 2) {
        state.SkipWithError("values read back differ from the values written");
        return;
    }
    setValueCounters(state);
}

void BM_BufferPoolPopRelease(benchmark::State& state) {
    primePool(state.threads() + 1);

    for (auto _ : state) {
        std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
        benchmark::DoNotOptimize(buffer.get());
    }
    state.counters[kTimePerPair] = timePerItem(std::int64_t(state.iterations()));
}

// A bulk iteration copies 128 MiB (15 ms or so): a second of it gives a steady figure. The others
// keep the default minimum time, so --benchmark_min_time still applies to them.
BENCHMARK(BM_SerializerBulk)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_MemcpyBulk)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PutValueU64)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetValueU64)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BufferPoolPopRelease)->Threads(1)->Threads(2);

// The console table as usual, plus the finalized counters of every successful run, kept for the
// summary. Aggregates (mean, median, ...) are skipped: the summary averages the repetitions itself.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    using benchmark::ConsoleReporter::ConsoleReporter;

    void ReportRuns(const std::vector<Run>& runs) override {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                m_runs.push_back({run.run_name.function_name, run.threads, run.counters});
            }
        }
    }

    void printSummary(std::ostream& out) const;

private:
    struct Measured {
        std::string function;
        std::int64_t threads;
        benchmark::UserCounters counters;
    };

    // Mean of the counter over every run of the function at the given thread count; false when
    // there is none (filtered out or failed).
    bool mean(const std::string& function, std::int64_t threads, const char* counter,
              double& value) const;

    std::vector<Measured> m_runs;
};

bool SummaryReporter::mean(const std::string& function, std::int64_t threads, const char* counter,
                           double& value) const {
    double total = 0;
    int count = 0;
    for (const Measured& run : m_runs) {
        if (run.function != function || run.threads != threads) {
            continue;
        }
        const auto it = run.counters.find(counter);
        if (it != run.counters.end()) {
            total += it->second.value;
            ++count;
        }
    }
    if (count == 0) {
        return false;
    }
    value = total / count;
    return true;
}

// The value as text with the given number of decimals.
std::string fixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

void SummaryReporter::printSummary(std::ostream& out) const {
    if (m_runs.empty()) {
        return;
    }
    auto print = [&out](const std::string& figure, const std::string& measured,
                        const std::string& goal, const std::string& verdict) {
        out << "  " << std::left << std::setw(30) << figure << std::setw(34) << measured
            << std::setw(12) << goal << verdict << '\n';
    };
    auto verdict = [](bool pass) { return pass ? "PASS" : "MISS"; };

    out << "\nSummary\n";
    print("figure", "measured", "target", "result");

    double serializer = 0;
    double baseline = 0;
    if (mean("BM_SerializerBulk", 1, kBytesPerSecond, serializer) &&
        mean("BM_MemcpyBulk", 1, kBytesPerSecond, baseline) && baseline > 0) {
        const double ratio = serializer / baseline;
        print("bulk serializer/memcpy",
              fixed(ratio, 2) + " (" + fixed(serializer / 1e9, 2) + " / " +
                  fixed(baseline / 1e9, 2) + " GB/s)",
              ">= 0.50", verdict(ratio >= 0.5));
    } else {
        print("bulk serializer/memcpy", "not run", ">= 0.50", "-");
    }

    struct PerItem {
        const char* figure;
        const char* function;
        std::int64_t threads;
        const char* counter;
        const char* unit;
        double limit;  // ns; 0 when the figure is for information only
    };
    const PerItem items[] = {
        {"putValue(uint64_t) write", "BM_PutValueU64", 1, kTimePerValue, " ns/value", 2.0},
        {"getValue(uint64_t) read", "BM_GetValueU64", 1, kTimePerValue, " ns/value", 2.0},
        {"pool pop+release, 1 thread", "BM_BufferPoolPopRelease", 1, kTimePerPair, " ns/pair",
         100.0},
        {"pool pop+release, 2 threads", "BM_BufferPoolPopRelease", 2, kTimePerPair,
         " ns/pair/thread", 0.0},
    };
    for (const PerItem& item : items) {
        const std::string goal = item.limit > 0 ? "< " + fixed(item.limit, 0) + " ns" : "-";
        double seconds = 0;
        if (!mean(item.function, item.threads, item.counter, seconds)) {
            print(item.figure, "not run", goal, "-");
            continue;
        }
        const double ns = seconds * 1e9;
        print(item.figure, fixed(ns, 2) + item.unit, goal,
              item.limit > 0 ? verdict(ns < item.limit) : "info");
    }
    out.flush();
}

bool isFalse(std::string value) {
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return value == "0" || value == "f" || value == "false" || value == "n" || value == "no" ||
           value == "off";
}

// The console options Google Benchmark's own main would pick for these option values.
benchmark::ConsoleReporter::OutputOptions consoleOptions(const std::string& color,
                                                         const std::string& tabular) {
    int options = benchmark::ConsoleReporter::OO_None;
    bool useColor = !isFalse(color);
    if (color == "auto") {
        const char* term = std::getenv("TERM");
        useColor = isatty(STDOUT_FILENO) != 0 && term != nullptr && std::strcmp(term, "dumb") != 0;
    }
    if (useColor) {
        options |= benchmark::ConsoleReporter::OO_Color;
    }
    if (!isFalse(tabular)) {
        options |= benchmark::ConsoleReporter::OO_Tabular;
    }
    return benchmark::ConsoleReporter::OutputOptions(options);
}

// The Google Benchmark options that apply here, handed on to it as --benchmark_NAME=VALUE.
struct PassedOption {
    const char* name;
    const char* description;
};
const PassedOption kPassedOptions[] = {
    {"filter", "run only the benchmarks whose names match this regular expression"},
    {"min_time", "seconds each benchmark runs at least"},
    {"repetitions", "runs of each benchmark"},
    {"report_aggregates_only", "true: report mean, median and deviation only"},
    {"display_aggregates_only", "true: show mean, median and deviation only"},
    {"format", "console (the default, with the summary), json or csv"},
    {"out", "a file to write the results to as well"},
    {"out_format", "json (the default), console or csv: the format of --benchmark_out"},
    {"color", "auto (the default), true or false"},
    {"counters_tabular", "true: counters in columns"},
    {"list_tests", "true: list the benchmarks and run none"},
};

}  // namespace

int main(int argc, char** argv) {
    klCommandLine cli("klNetSerialBench",
                      "Throughput and per-operation cost of the serializer, the message and the "
                      "buffer pool, against memcpy, on Google Benchmark; after its table a summary "
                      "of every figure against its target.");
    std::vector<std::string> values(std::size(kPassedOptions));
    std::vector<CLI::Option*> given;
    for (std::size_t i = 0; i < values.size(); ++i) {
        given.push_back(cli.app()
                            .add_option(std::string("--benchmark_") + kPassedOptions[i].name,
                                        values[i], kPassedOptions[i].description)
                            ->type_name("VALUE"));
    }
    cli.app().footer(
        "Targets: the bulk serializer at least 0.50 of memcpy, putValue and getValue of a "
        "uint64_t below 2 ns each, a pool pop and release below 100 ns on one thread.");
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        return *done;
    }
    std::vector<std::string> forwarded{argv[0]};
    std::string color = "auto", tabular = "false", format = "console";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (given[i]->count() == 0) {
            continue;
        }
        const std::string name = kPassedOptions[i].name;
        forwarded.push_back("--benchmark_" + name + "=" + values[i]);
        if (name == "color") {
            color = values[i];
        } else if (name == "counters_tabular") {
            tabular = values[i];
        } else if (name == "format") {
            format = values[i];
        }
    }
    std::vector<char*> args;
    for (std::string& arg : forwarded) {
        args.push_back(arg.data());
    }
    int count = int(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 2;
    }
    if (format != "console") {
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        return 0;
    }
    SummaryReporter reporter(consoleOptions(color, tabular));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printSummary(reporter.GetOutputStream());
    benchmark::Shutdown();
    return 0;
}
