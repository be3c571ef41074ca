// The service daemon end to end: the real KALDClusterService and the real render server, driven
// with raw requests so that every field is the test's own, and hostile clients against it.
#include <support/klNetServiceTestSupport.h>

#include <klNetBase/service/klNetService.h>
#include <klNetBase/service/klNetServiceStatus.h>
#include <klRenderProtocol.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <future>

namespace {

using kltest::outcome;
using kltest::ServiceDaemon;

constexpr std::uint32_t kStart = klNetService::kStartServer;
constexpr std::uint32_t kConnect = klNetService::kConnectServer;
constexpr std::uint32_t kStopService = klNetService::kStopService;
constexpr std::uint32_t kRelay = klNetService::kConnectService;
constexpr std::uint32_t kStopServer = klNetService::kStopServer;
constexpr std::uint32_t kStatus = klNetService::kGetStatus;
constexpr std::uint32_t kStopBooking = klNetService::kStopServerByBookingId;

struct StartFields {
    std::string version = "10.0";
    std::string bookingId;
    std::string extraArgument;
    // Which optional fields are written: display (9.0), booking id (9.2), stereo (10.0).
    bool display = true, booking = true, stereo = true;
};

void writeStart(klNetStream& stream, const StartFields& f) {
    stream << kStart << f.extraArgument << f.version << std::string();
    if (f.display) {
        stream << std::uint8_t(0);
    }
    stream << std::uint8_t(0) << std::uint8_t(0) << std::uint8_t(0);
    if (f.booking) {
        stream << f.bookingId;
    }
    if (f.stereo) {
        stream << std::uint8_t(0);
    }
    stream.flush();
}

// Starts a server; returns its id and leaves the stream connected to it.
std::uint32_t startServer(klNetStream& stream, const StartFields& fields) {
    writeStart(stream, fields);
    stream.recvResult();
    std::uint32_t id = 0;
    std::uint64_t freeMemory = 0;
    std::int32_t count = 0;
    stream >> id >> freeMemory >> count;
    EXPECT_GT(freeMemory, 0u);
    EXPECT_GT(count, 0);
    return id;
}

// One request whose answer is a bare result: "" for success, else the error text.
std::string request(const ServiceDaemon& service, std::uint32_t code,
                    const std::function<void(klNetStream&)>& fields = {}) {
    auto stream = service.connect();
    *stream << code;
    if (fields) {
        fields(*stream);
    }
    stream->flush();
    const std::string result = outcome([&] { stream->recvResult(); });
    return result == "returned" ? "" : result;
}

klNetServiceStatus status(const ServiceDaemon& service) {
    auto stream = service.connect();
    *stream << kStatus;
    stream->flush();
    stream->recvResult();
    klNetServiceStatus record;
    record.getValue(*stream);
    return record;
}

// A region rendered through a stream handed to a server equals the same region rendered here.
void expectRenders(klNetStream& stream) {
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 16;
    region.height = 16;
    EXPECT_EQ(klRenderPixels(region), klRenderClient::render(stream, region, {}));
}

TEST(klNetServiceTest, StartHandsTheClientToANewServerForEveryVersionItReads) {
    ServiceDaemon service;
    struct Case {
        StartFields fields;
        std::string error;
    } cases[] = {
        {{"SR1.SP3", "", "", false, false, false}, ""},
        {{"SR2", "", "", false, false, false}, ""},  // no service pack: version 0
        {{"9.1", "", "", true, false, false}, ""},
        {{"9.2", "nine-two", "", true, true, false}, ""},
        {{"10.0", "ten", "", true, true, true}, ""},
        {{"11.0", "", "", true, true, true}, "Incompatible versions: KALDClusterService 10.0 request from 11.0"},
    };
    std::uint32_t expectedId = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fields.version);
        auto stream = service.connect();
        if (!c.error.empty()) {
            writeStart(*stream, c.fields);
            EXPECT_EQ(c.error, outcome([&] { stream->recvResult(); }));
            continue;
        }
        EXPECT_EQ(expectedId++, startServer(*stream, c.fields));
        expectRenders(*stream);
    }
    const klNetServiceStatus record = status(service);
    EXPECT_EQ(5, record.getNumberOfClusterServers());
    EXPECT_EQ((std::vector<std::string>{"", "", "", "nine-two", "ten"}), record.getBookingIds());
    EXPECT_TRUE(record.getIsRunning());
    EXPECT_EQ("10.0", record.getVersion());
}

TEST(klNetServiceTest, StoppedServersLeaveTheTableOnlyAfterStopServerOrStart) {
    ServiceDaemon service;
    std::vector<std::unique_ptr<klNetStream>> clients;
    for (const char* booking : {"shared", "shared", "other"}) {
        clients.push_back(service.connect());
        StartFields fields;
        fields.bookingId = booking;
        startServer(*clients.back(), fields);
    }
    const auto id = [](std::uint32_t value) {
        return [value](klNetStream& s) { s << value; };
    };
    const auto text = [](std::string value) {
        return [value](klNetStream& s) { s << value; };
    };
    EXPECT_EQ("", request(service, kStopBooking, text("nobody")));
    EXPECT_EQ(3, status(service).getNumberOfClusterServers());
    EXPECT_EQ("", request(service, kStopBooking, text("shared")));
    EXPECT_EQ(std::vector<std::string>{"other"}, status(service).getBookingIds());
    // Stopped by booking id: no longer counted, but still listed, so the id is known.
    EXPECT_NE("Unknown server:1", request(service, kConnect, id(1)));
    EXPECT_EQ("", request(service, kStopServer, id(3)));
    EXPECT_EQ("Unknown server:1", request(service, kConnect, id(1)));
    EXPECT_EQ("Unknown server:3", request(service, kStopServer, id(3)));
    EXPECT_EQ("Unknown server:7", request(service, kStopServer, id(7)));
    EXPECT_EQ(0, status(service).getNumberOfClusterServers());
    EXPECT_EQ("Unknown service command", request(service, 0));
    EXPECT_EQ("Unknown service command", request(service, 8));

    // Ids are never reused; a second connection reaches a running server.
    auto first = service.connect();
    EXPECT_EQ(4u, startServer(*first, {}));
    auto second = service.connect();
    *second << kConnect << std::uint32_t(4);
    second->flush();
    second->recvResult();
    expectRenders(*second);
    expectRenders(*first);
}

TEST(klNetServiceTest, RelaysToAnotherListenerAndStopServiceEndsTheDaemon) {
    ServiceDaemon service;
    klBoundSocketLink listener(0);
    auto echo = std::async(std::launch::async, [&] {
        klSocketLink accepted(listener);
        auto link = klSocketLink::checkForHPCNetSocket(accepted.takeDescriptor());
        std::shared_ptr<klNetBuffer> buffer;
        link->recv(buffer);
        link->send(buffer);
    });
    auto stream = service.connect();
    *stream << kRelay << std::string("127.0.0.1") << std::uint32_t(listener.getAddress().getPort());
    stream->flush();
    stream->recvResult();
    *stream << std::string("through the relay") << klNetStream::flush;
    std::string echoed;
    *stream >> echoed;
    EXPECT_EQ("through the relay", echoed);
    echo.get();

    EXPECT_EQ("", request(service, kStopService));
    EXPECT_EQ(0, service.exitStatus(30.0));
}

// A program directory of the test's own: the daemon (hard-linked, so that it looks for its
// server beside itself here) and a stand-in render server script.
class FakeServerDir {
public:
    explicit FakeServerDir(const std::string& script)
        : m_dir(kltest::programDir() + "/fake-" + std::to_string(::getpid())) {
        std::filesystem::create_directories(m_dir);
        std::filesystem::create_hard_link(kltest::programDir() + "/KALDClusterService",
                                          m_dir + "/KALDClusterService");
        std::ofstream(m_dir + "/KALDClusterServer") << "#!/bin/sh\n" << script << "\n";
        ::chmod((m_dir + "/KALDClusterServer").c_str(), 0755);
    }
    ~FakeServerDir() { std::filesystem::remove_all(m_dir); }
    const std::string& path() const { return m_dir; }

private:
    std::string m_dir;
};

TEST(klNetServiceTest, ServersThatNeverTakeTheirSocket) {
    {
        FakeServerDir dir("exit 3");
        ServiceDaemon service({}, dir.path());
        auto stream = service.connect();
        writeStart(*stream, {});
        EXPECT_EQ("Failed to connect started server", outcome([&] { stream->recvResult(); }));
    }
    FakeServerDir dir("exec sleep 60");
    ServiceDaemon service({}, dir.path());
    auto stream = service.connect();
    StartFields fields;
    fields.bookingId = "slow";
    writeStart(*stream, fields);
    // The start request waits for the server to open its pipe; stopping it ends the wait.
    for (int i = 0; i < 2000 && status(service).getNumberOfClusterServers() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ("", request(service, kStopBooking, [](klNetStream& s) { s << std::string("slow"); }));
    EXPECT_EQ("Server manually aborted", outcome([&] { stream->recvResult(); }));
}

TEST(klNetServiceTest, HostileClientsNeitherKnockItOverNorLeak) {
    ServiceDaemon service({"--request-timeout", "1", "--max-requests", "64"});
    status(service);
    const std::size_t descriptors = service.openDescriptorCount();
    const std::size_t threads = service.threadCount();
    const std::uint64_t resident = service.residentBytes();
    const klSocketAddress address("127.0.0.1", service.port());

    for (int i = 0; i < 1000; ++i) {  // port scans: connect and close
        klSocketLink scan(address, 10.0);
    }
    {  // 200 clients at once that connect and then say nothing
        std::vector<std::unique_ptr<klSocketLink>> idle;
        for (int i = 0; i < 200; ++i) {
            idle.push_back(std::make_unique<klSocketLink>(address, 10.0));
        }
    }
    const kltest::Bytes hostile[] = {
        kltest::pattern(5000),                                 // random bytes, no greeting
        kltest::hex("C6 A4 05 06 ff ff ff 7f"),                // greeting, then an absurd frame
        kltest::hex("C6 A4 05 06 10 00 00 00 00 00 00 00"),    // greeting, truncated frame
    };
    for (const auto& bytes : hostile) {
        klSocketLink link(address, 10.0);
        link.send(bytes.data(), bytes.size());
    }
    // A string field that claims 4 GiB is refused before anything is allocated for it.
    EXPECT_EQ("String field too long (4294967295 bytes, at most 65536)",
              request(service, kStopBooking, [](klNetStream& s) {
                  s << std::uint32_t(0xFFFFFFFF) << std::string(100, 'x');
              }));

    // Every request thread ends by the request time-out; the service answers and holds no more
    // descriptors or memory than before.
    // (The first count may still hold the closing connection of the status request.)
    std::size_t now = 0;
    for (int i = 0; i < 1000 && (now = service.openDescriptorCount()) > descriptors; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_LE(now, descriptors);
    for (int i = 0; i < 1000 && (now = service.threadCount()) > threads; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_LE(now, threads);
    EXPECT_EQ(0, status(service).getNumberOfClusterServers());
    EXPECT_LT(service.residentBytes(), resident + 64 * 1024 * 1024);
}

}  // namespace

int main(int argc, char** argv) {
    // Writes to a client that has gone must not end the test.
    ::signal(SIGPIPE, SIG_IGN);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
