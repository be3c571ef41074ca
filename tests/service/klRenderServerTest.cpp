// The render protocol and the reference render server: frames split into regions render byte for
// byte like the whole, requests and answers that break the protocol are refused with exact texts,
// and the real KALDClusterServer, handed client sockets through a socket pipe, serves them and
// ends cleanly when stopped.
#include <support/klNetProcessTestSupport.h>

#include <klRenderProtocol.h>

#include <array>

using namespace kltest;

namespace {

Bytes requestBytes(const klRenderRequest& request) {
    klNetMessage message;
    request.write(message);
    return concatPayloads(message.takeSendBuffers());
}

// What a server makes of these request bytes: "" when it accepts them, else its refusal.
std::string verdictOn(const Bytes& wire) {
    klNetMessage message;
    message.putBytes(wire.data(), wire.size());
    message.setRecvBuffers(message.takeSendBuffers());
    const std::string verdict = outcome([&] { klRenderRequest::read(message).validate(); });
    return verdict == "returned" ? "" : verdict;
}

TEST(klRenderProtocolTest, RequestBytesArePinnedAndSplitFramesEqualTheWhole) {
    klRenderRequest frame = klRenderRequest::defaultFrame(97, 61);
    EXPECT_EQ(hex("4B4C524E 01000000 61000000 3D000000 00000000 00000000 61000000 3D000000"
                  "000000000000E8BF 0000000000000000 0000000000000C40 F4010000 00"
                  "9A9999999999E9BF 2B8716D9CEF7C33F"),
              requestBytes(frame));

    klRenderRequest julia = frame;
    julia.fractal = klRenderFractal::julia;
    julia.centreX = 0.1;
    julia.viewWidth = 0.8;
    julia.maxIterations = 3000;
    for (const klRenderRequest& scene : {frame, julia}) {
        SCOPED_TRACE(int(scene.fractal));
        const Bytes whole = klRenderPixels(scene);
        ASSERT_EQ(97u * 61 * 3, whole.size());
        EXPECT_GT(std::set<Bytes::value_type>(whole.begin(), whole.end()).size(), 100u)
            << "smooth colouring gives many shades";
        // Three uneven regions: a top band, then the rest split left and right.
        const struct {
            std::uint32_t x0, y0, width, height;
        } regions[] = {{0, 0, 97, 20}, {0, 20, 33, 41}, {33, 20, 64, 41}};
        Bytes pieced(whole.size());
        for (const auto& r : regions) {
            klRenderRequest part = scene;
            part.x0 = r.x0, part.y0 = r.y0, part.width = r.width, part.height = r.height;
            const Bytes pixels = klRenderPixels(part);
            for (std::uint32_t row = 0; row < r.height; ++row) {
                std::copy_n(pixels.begin() + row * r.width * 3, r.width * 3,
                            pieced.begin() + ((r.y0 + row) * 97 + r.x0) * 3);
            }
        }
        EXPECT_TRUE(whole == pieced);
    }
    // The frame's centre lies in the Mandelbrot set's main cardioid; its corner far outside.
    const Bytes whole = klRenderPixels(frame);
    EXPECT_EQ(Bytes(3, 0),
              Bytes(whole.begin() + (30 * 97 + 48) * 3, whole.begin() + (30 * 97 + 48) * 3 + 3));
    EXPECT_NE(Bytes(3, 0), Bytes(whole.begin(), whole.begin() + 3));
}

// Each patch (wire offset, bytes there) of a valid request, and what a server says then: "" when
// it accepts the request, else its refusal after "Render request: ".
TEST(klRenderProtocolTest, RefusalsNameTheFirstBadField) {
    const std::string kNaN = "000000000000F87F", kInf = "000000000000F07F";
    const std::pair<std::vector<std::pair<std::size_t, std::string>>, std::string> cases[] = {
        {{{0, "4B4C524F"}}, "not a render request (magic 0x4F524C4B)"},
        {{{4, "02000000"}}, "protocol version 2 not supported (server speaks 1)"},
        {{{12, "00000000"}, {28, "00000000"}}, "frame size 97x0 is empty"},
        {{{24, "00000000"}}, "region 0,0 0x61 is empty"},
        {{{20, "01000000"}}, "region 0,1 97x61 lies outside the 97x61 frame"},
        // x0 + width wraps around in 32 bits.
        {{{16, "FFFFFFFF"}}, "region 4294967295,0 97x61 lies outside the 97x61 frame"},
        {{{8, "00200000"}, {12, "01200000"}, {24, "00200000"}, {28, "01200000"}},
         "region of 67117056 pixels exceeds the limit of 67108864"},
        {{{8, "00200000"}, {12, "00200000"}, {24, "00200000"}, {28, "00200000"}}, ""},
        {{{56, "00000000"}}, "max iterations 0 not in 1..100000"},
        {{{56, "A1860100"}}, "max iterations 100001 not in 1..100000"},
        {{{56, "A0860100"}}, ""},
        {{{48, "0000000000000000"}}, "view width must be finite and above 0"},
        {{{48, "000000000000F0BF"}}, "view width must be finite and above 0"},
        {{{48, kNaN}}, "view width must be finite and above 0"},
        {{{40, kInf}}, "centre must be finite"},
        {{{60, "02"}}, "fractal 2 is neither 0 (Mandelbrot) nor 1 (Julia)"},
        {{{69, kNaN}}, "julia constant must be finite"}};
    for (const auto& [patches, text] : cases) {
        SCOPED_TRACE(text);
        Bytes wire = requestBytes(klRenderRequest::defaultFrame(97, 61));
        for (const auto& [offset, bytes] : patches) {
            const Bytes patch = hex(bytes);
            std::copy(patch.begin(), patch.end(), wire.begin() + std::ptrdiff_t(offset));
        }
        EXPECT_EQ(text.empty() ? "" : "Render request: " + text, verdictOn(wire));
    }
}

// A stand-in server's answer to a region 2 pixels wide and 4 rows high from row 16: success,
// then bands (first row, rows, payload bytes). A band that does not fit the rows still missing
// is refused with its numbers, before a byte of it is stored.
TEST(klRenderProtocolTest, AnswersThatBreakTheProtocolAreRefused) {
    struct Band : klNetMessage {
        klNetMessageType getMessageType() override { return klNetMessageTypeImage; }
    };
    const std::string expected = ", expected row 16 and 1 to 4 rows of 6 bytes";
    const std::pair<std::vector<std::array<std::uint32_t, 3>>, std::string> cases[] = {
        {{{16, 5, 30}}, "band at row 16 with 5 rows and 30 bytes" + expected},
        {{{16, 3, 18}, {19, 2, 12}},
         "band at row 19 with 2 rows and 12 bytes, expected row 19 "
         "and 1 to 1 rows of 6 bytes"},
        {{{16, 2, 18}}, "band at row 16 with 2 rows and 18 bytes" + expected},
        {{{17, 1, 6}}, "band at row 17 with 1 rows and 6 bytes" + expected},
        {{{16, 0, 0}}, "band at row 16 with 0 rows and 0 bytes" + expected}};
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 16, region.width = 2, region.height = 4;
    for (const auto& [bands, text] : cases) {
        SCOPED_TRACE(text);
        auto [client, server] = connectedPair();
        klNetStream answer(server);
        answer.sendSuccess().flush();
        for (const auto& [y, rows, bytes] : bands) {
            Band band;
            band << y << rows;
            band.putValueSize(bytes);
            band.putBytes(Bytes(bytes).data(), bytes);
            answer.sendMessage(band, 0);
        }
        answer.sendSuccess().flush();
        klNetStream stream(client);
        EXPECT_EQ("Render answer: " + text,
                  outcome([&] { klRenderClient::render(stream, region, {}); }));
    }
}

// ---- the real server --------------------------------------------------------------------------

// The server program of this build, started on a pipe of ours with the command line the service
// gives it (or, as for older clients, with the pipe in KALD_LOCAL_SERVICE), and connections
// handed to it.
class ServerUnderTest {
public:
    ServerUnderTest(std::vector<std::string> options, const std::string& extra,
                    bool pipeInEnvironment = false) {
        const ScopedEnv env("KALD_LOCAL_SERVICE",
                            pipeInEnvironment ? pipe.getName().c_str() : nullptr);
        if (!pipeInEnvironment) {
            options.push_back("-socketpipe=" + pipe.getName());
        }
        options.push_back(extra);
        server = std::make_unique<ChildProcess>(programDir() + "/KALDClusterServer", options);
    }

    // A client connection, handed over as the service does.
    std::unique_ptr<klNetStream> connect() {
        auto [near, far] = connectedPair(0.0);  // the handed end waits as long as a client may
        far->sendDescriptor(pipe, 10.0);
        near->setRecvTimeout(30.0);
        return std::make_unique<klNetStream>(near);
    }

    std::string startLine(const std::string& rest) const {
        return "KALDClusterServer 10.0 serving pipe " + pipe.getName() + rest;
    }

    klSocketPipe pipe;
    std::unique_ptr<ChildProcess> server;
};

TEST(klRenderServerTest, ServesHandedClientsAndEndsWhenThePipeCloses) {
    // The extra argument may look like an option.
    ServerUnderTest s({"-Z", "-t"}, "-scene x");
    ChildProcess& server = *s.server;
    EXPECT_EQ(s.startLine(" (options: -Z -t; extra argument: '-scene x')"), server.readLine());

    auto client = s.connect();
    // Larger than one band, so the answer comes in several messages.
    klRenderRequest region = klRenderRequest::defaultFrame(1200, 400);
    region.x0 = 100, region.y0 = 20, region.width = 1000, region.height = 300;
    std::vector<std::size_t> progress;
    EXPECT_TRUE(klRenderPixels(region) ==
                klRenderClient::render(*client, region,
                                       [&](std::size_t rows) { progress.push_back(rows); }));
    EXPECT_GT(progress.size(), 1u);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(300u, progress.back());
    const std::string served =
        "request 1 from 127.0.0.1: region 100,20 1000x300 of 1200x400, "
        "Mandelbrot, 500 iterations: 300000 pixels in ";
    EXPECT_EQ(served, server.readLine().substr(0, served.size()));

    // A refused request leaves the connection usable.
    klRenderRequest bad = region;
    bad.maxIterations = 0;
    const std::string refusal = "Render request: max iterations 0 not in 1..100000";
    EXPECT_EQ(refusal, outcome([&] { klRenderClient::render(*client, bad, {}); }));
    EXPECT_EQ("request 2 from 127.0.0.1: refused: " + refusal, server.readLine());
    region.height = 5;
    EXPECT_TRUE(klRenderPixels(region) == klRenderClient::render(*client, region, {}));
    server.readLine();

    // A client that speaks something else gets told, then its connection is closed.
    auto stranger = s.connect();
    *stranger << std::uint32_t(0x50545448) << std::uint32_t(1) << klNetStream::flush;
    EXPECT_EQ("Render request: not a render request (magic 0x50545448)",
              outcome([&] { stranger->recvResult(); }));
    EXPECT_EQ("closed", outcome([&] { stranger->recvResult(); }));
    EXPECT_EQ(
        "connection from 127.0.0.1 ended: Render request: not a render request (magic "
        "0x50545448)",
        server.readLine());

    // The service closing its end stops the server, which shuts its clients' connections.
    s.pipe.shutdown();
    EXPECT_EQ(0, server.exitStatus(30.0));
    EXPECT_EQ("KALDClusterServer stopped", server.readLine());
    EXPECT_EQ("closed", outcome([&] { client->recvResult(); }));
}

TEST(klRenderServerTest, StopSignalEndsTheServerInTheMiddleOfARender) {
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        ServerUnderTest s({}, "", signal == SIGINT);
        ChildProcess& server = *s.server;
        EXPECT_EQ(s.startLine(" (options: none; extra argument: '')"), server.readLine());
        auto client = s.connect();
        const klRenderRequest frame = klRenderRequest::defaultFrame(40, 30);
        EXPECT_TRUE(klRenderPixels(frame) == klRenderClient::render(*client, frame, {}));
        server.readLine();

        // The largest frame inside a Siegel disk of a Julia set: every pixel takes all of its
        // 100000 iterations, hours of work, so only stopping the render lets the server end.
        klRenderRequest endless = klRenderRequest::defaultFrame(8192, 8192);
        endless.fractal = klRenderFractal::julia;
        endless.juliaX = -0.390540870218399, endless.juliaY = -0.586787907346969;
        endless.centreX = -0.3686844, endless.centreY = -0.3377452, endless.viewWidth = 0.05;
        endless.maxIterations = 100000;
        endless.write(*client);
        client->flush();
        client->recvResult();

        ::kill(server.pid(), signal);
        EXPECT_EQ("KALDClusterServer stopping on signal " + std::to_string(signal),
                  server.readLine());
        EXPECT_EQ("KALDClusterServer stopped", server.readLine());
        EXPECT_EQ(0, server.exitStatus(30.0));
        EXPECT_EQ("closed", outcome([&] { client->recvResult(); }));
    }
}

}  // namespace
