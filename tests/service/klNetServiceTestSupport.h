// Helpers for the tests of the service daemon: raw requests with every field the test's own, the
// daemon's answers and logs, and a program directory with a stand-in render server.
#pragma once

#include <support/klNetProcessTestSupport.h>

#include <klRenderProtocol.h>
#include <klServiceClient.h>

namespace kltest {

constexpr std::uint32_t kConnect = klNetService::kConnectServer;
constexpr std::uint32_t kStopServer = klNetService::kStopServer;
constexpr std::uint32_t kStopBooking = klNetService::kStopServerByBookingId;

// Writes a start request with the fields a client of that version sends: the display flag from
// 9.0 on, the booking id from 9.2 on, the stereo flag from 10.0 on.
inline void writeStart(klNetStream& stream, const std::string& version,
                       const std::string& booking = "") {
    const double number = std::atof(version.c_str());
    stream << std::uint32_t(klNetService::kStartServer) << std::string() << version
           << std::string();
    if (number >= 9.0) {
        stream << std::uint8_t(0);
    }
    stream << std::uint8_t(0) << std::uint8_t(0) << std::uint8_t(0);
    if (number >= 9.2) {
        stream << booking;
    }
    if (number >= 10.0) {
        stream << std::uint8_t(0);
    }
    stream.flush();
}

// How the request already written to stream was answered: "returned", or the error text.
inline std::string resultOf(klNetStream& stream) {
    return outcome([&] { stream.recvResult(); });
}

// How a start request of that version is answered: "returned", or the error text.
inline std::string startResult(const ServiceDaemon& service, const std::string& version) {
    auto stream = service.connect();
    writeStart(*stream, version);
    return resultOf(*stream);
}

// Starts a server; returns its id and leaves the stream connected to it.
inline std::uint32_t startServer(klNetStream& stream, const std::string& booking = "",
                                 const std::string& version = "10.0") {
    writeStart(stream, version, booking);
    stream.recvResult();
    std::uint32_t id = 0;
    std::uint64_t freeMemory = 0;
    std::int32_t count = 0;
    stream >> id >> freeMemory >> count;
    EXPECT_TRUE(freeMemory > 0 && count > 0);
    return id;
}

// One request whose answer is a bare result: "" for success, else the error text.
template <class... Fields>
std::string request(const ServiceDaemon& service, std::uint32_t code, const Fields&... fields) {
    auto stream = service.connect();
    ((*stream << code) << ... << fields) << klNetStream::flush;
    const std::string result = resultOf(*stream);
    return result == "returned" ? "" : result;
}

inline klNetServiceStatus status(const ServiceDaemon& service) {
    return klServiceClient("127.0.0.1", service.port()).status();
}

// The whole text of a file; empty when there is none.
inline std::string fileText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The distinct lines of a text.
inline std::set<std::string> linesOf(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.insert(line);
    }
    return lines;
}

// A region rendered through a stream handed to a server equals the same region rendered here.
inline void expectRenders(klNetStream& stream) {
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 16;
    region.height = 16;
    EXPECT_EQ(klRenderPixels(region), klRenderClient::render(stream, region, {}));
}

// One GET over a plain socket; the whole answer, headers and body.
inline std::string httpGet(int port, const std::string& path,
                           const std::string& host = "127.0.0.1") {
    klSocketLink link(klSocketAddress(host, port), 10.0);
    link.setRecvTimeout(10.0);
    const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
    link.send(request.data(), request.size());
    std::string answer;
    char chunk[4096];
    for (ssize_t n; (n = ::recv(link.getDescriptor(), chunk, sizeof(chunk), 0)) > 0;) {
        answer.append(chunk, std::size_t(n));
    }
    return answer;
}

// The port of the metrics listener a service started with "--metrics 0" announces.
inline int metricsPortOf(ServiceDaemon& service) {
    const std::string line = service.readLine();
    EXPECT_EQ(0u, line.find("metrics on port ")) << line;
    return line.size() > 16 ? std::stoi(line.substr(16)) : 0;
}

// A program directory of the test's own with the daemon hard-linked into it (so that it looks for
// its server beside itself there) and a stand-in render server script.
inline void linkServiceWithServer(const TempDir& dir, const std::string& serverScript) {
    std::filesystem::create_hard_link(programDir() + "/KALDClusterService",
                                      dir.path("KALDClusterService"));
    dir.addProgram("KALDClusterServer", serverScript);
}

}  // namespace kltest
