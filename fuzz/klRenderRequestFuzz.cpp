// Fuzz target: render requests as a render server reads them from a client, and the answers it
// gives.
//
// Input: a byte choosing the cut of the data into stream-data buffers (0-127: 1 to 128 bytes
// each, 128-255: 1 to 128 KiB), then the stream data: any number of 77-byte requests, or
// anything else.
//
// First the requests are read one after the other with klRenderRequest::read() until the data
// ends or a read fails (a server closes the connection then). Every field read must be the one at
// its offset in the request layout; a wrong magic or version must be refused with its exact text,
// and data that ends inside a request must give klConnectionClosed. Each request is validated: a
// refusal's text must be a render request refusal, and an accepted request must describe a region
// that lies inside its frame, within the pixel and iteration limits, with finite numbers (what the
// renderer relies on).
//
// Then a server answers the same data with klRenderServer::serveRequest(), up to the first
// accepted request too large to render here, and a client reads the answers back with
// klRenderClient::render(): a refusal must arrive as the same text, an accepted region as exactly
// the pixels klRenderPixels() makes.
#include "klFuzzSupport.h"

#include "klRenderProtocol.h"

#include <atomic>
#include <cmath>
#include <string>

namespace {

// Requests rendered here are kept small (pixels times iterations) so that an input costs well
// under a millisecond: the target is after the parsing and the answers, not the arithmetic.
constexpr std::uint64_t kMaxWork = 20000;

// A link that serves stream data and keeps everything sent to it.
class AnswerLink : public klfuzz::StreamDataLink {
public:
    using StreamDataLink::StreamDataLink;
    void send(const std::shared_ptr<klNetBuffer>& buffer) override { sent.push_back(buffer); }

    std::vector<std::shared_ptr<klNetBuffer>> sent;
};

// How the reading of one request ended.
struct Exchange {
    enum Kind { kClosed, kReadRefused, kRefused, kAccepted };
    Kind kind = kClosed;
    klRenderRequest request;
    std::string text;  // the refusal
};

[[noreturn]] void finding(const std::string& what) {
    std::fprintf(stderr, "fuzz harness: %s\n", what.c_str());
    std::abort();
}

template <class T>
T fieldAt(const std::vector<std::uint8_t>& data, std::size_t at) {
    T value;
    std::memcpy(&value, data.data() + at, sizeof(T));
    return value;
}

bool sameBits(double a, double b) {
    return std::memcmp(&a, &b, sizeof(double)) == 0;
}

// The request at offset at of data, decoded by the documented layout; compared field by field.
void checkFields(const klRenderRequest& r, const std::vector<std::uint8_t>& data, std::size_t at) {
    const bool same = r.imageWidth == fieldAt<std::uint32_t>(data, at + 8) &&
                      r.imageHeight == fieldAt<std::uint32_t>(data, at + 12) &&
                      r.x0 == fieldAt<std::uint32_t>(data, at + 16) &&
                      r.y0 == fieldAt<std::uint32_t>(data, at + 20) &&
                      r.width == fieldAt<std::uint32_t>(data, at + 24) &&
                      r.height == fieldAt<std::uint32_t>(data, at + 28) &&
                      sameBits(r.centreX, fieldAt<double>(data, at + 32)) &&
                      sameBits(r.centreY, fieldAt<double>(data, at + 40)) &&
                      sameBits(r.viewWidth, fieldAt<double>(data, at + 48)) &&
                      r.maxIterations == fieldAt<std::uint32_t>(data, at + 56) &&
                      std::uint8_t(r.fractal) == data[at + 60] &&
                      sameBits(r.juliaX, fieldAt<double>(data, at + 61)) &&
                      sameBits(r.juliaY, fieldAt<double>(data, at + 69));
    if (!same) {
        finding("a request field differs from the bytes at its offset");
    }
}

// What validate() lets through must be safe to render.
void checkAccepted(const klRenderRequest& r) {
    const bool safe =
        r.imageWidth > 0 && r.imageHeight > 0 && r.width > 0 && r.height > 0 &&
        std::uint64_t(r.x0) + r.width <= r.imageWidth &&
        std::uint64_t(r.y0) + r.height <= r.imageHeight &&
        r.pixelCount() <= klRenderRequest::kMaxPixels && r.maxIterations >= 1 &&
        r.maxIterations <= klRenderRequest::kMaxIterations && std::isfinite(r.viewWidth) &&
        r.viewWidth > 0 && std::isfinite(r.centreX) && std::isfinite(r.centreY) &&
        std::isfinite(r.juliaX) && std::isfinite(r.juliaY) &&
        (r.fractal == klRenderFractal::mandelbrot || r.fractal == klRenderFractal::julia);
    if (!safe) {
        finding("validate() accepted a request the renderer cannot take");
    }
}

std::string readRefusal(const std::vector<std::uint8_t>& data, std::size_t at) {
    char text[96];
    const std::uint32_t magic = fieldAt<std::uint32_t>(data, at);
    if (magic != klRenderRequest::kMagic) {
        std::snprintf(text, sizeof(text), "Render request: not a render request (magic 0x%08X)",
                      unsigned(magic));
    } else {
        std::snprintf(text, sizeof(text),
                      "Render request: protocol version %u not supported (server speaks 1)",
                      unsigned(fieldAt<std::uint32_t>(data, at + 4)));
    }
    return text;
}

// Reads every request of the data as a server would, checking each against the layout.
std::vector<Exchange> readAll(const std::vector<std::uint8_t>& data, std::size_t piece) {
    klNetStream stream(std::make_shared<klfuzz::StreamDataLink>(data, piece));
    std::vector<Exchange> exchanges;
    for (std::size_t at = 0;; at += 77) {
        const std::size_t left = data.size() - at;
        // Where the layout says the read must stop: too few bytes for the magic, a wrong magic,
        // too few for the version, a wrong version, too few for the rest.
        const bool magicBad =
            left >= 4 && fieldAt<std::uint32_t>(data, at) != klRenderRequest::kMagic;
        const bool versionBad = !magicBad && left >= 8 &&
                                fieldAt<std::uint32_t>(data, at + 4) != klRenderRequest::kVersion;
        Exchange exchange;
        try {
            exchange.request = klRenderRequest::read(stream);
            exchange.kind = Exchange::kAccepted;
        } catch (const klConnectionClosed&) {
            exchange.kind = Exchange::kClosed;
        } catch (const klNetError& e) {
            exchange.kind = Exchange::kReadRefused;
            exchange.text = e.what();
        }
        if (magicBad || versionBad) {
            if (exchange.kind != Exchange::kReadRefused || exchange.text != readRefusal(data, at)) {
                finding("a wrong magic or version was not refused as \"" + readRefusal(data, at) +
                        "\"");
            }
        } else if ((left < 77) != (exchange.kind == Exchange::kClosed)) {
            finding("a request cut short did not end in klConnectionClosed, or a whole one did");
        }
        if (exchange.kind != Exchange::kAccepted) {
            exchanges.push_back(exchange);
            return exchanges;
        }
        checkFields(exchange.request, data, at);
        try {
            exchange.request.validate();
            checkAccepted(exchange.request);
        } catch (const klNetError& e) {
            exchange.kind = Exchange::kRefused;
            exchange.text = e.what();
            if (exchange.text.rfind("Render request: ", 0) != 0) {
                finding("validate() refused with \"" + exchange.text + "\"");
            }
        }
        exchanges.push_back(exchange);
    }
}

bool smallEnough(const Exchange& exchange) {
    return exchange.kind != Exchange::kAccepted ||
           exchange.request.pixelCount() * exchange.request.maxIterations <= kMaxWork;
}

// Serves the exchanges a server can answer here and checks what a client makes of the answers.
void serveAndAnswer(const std::vector<std::uint8_t>& data, std::size_t piece,
                    const std::vector<Exchange>& exchanges) {
    auto serverLink = std::make_shared<AnswerLink>(data, piece);
    klNetStream server(serverLink);
    const std::atomic<bool> cancel{false};
    std::size_t served = 0;
    for (const Exchange& exchange : exchanges) {
        if (exchange.kind == Exchange::kClosed || !smallEnough(exchange)) {
            break;
        }
        ++served;
        try {
            const std::string line = klRenderServer::serveRequest(server, cancel);
            if ((exchange.kind == Exchange::kRefused) != (line == "refused: " + exchange.text)) {
                finding("the server's log line \"" + line + "\" does not match the request");
            }
        } catch (const klConnectionClosed&) {
            finding("the server met the end of the data inside a whole request");
        } catch (const klNetError& e) {
            if (exchange.kind != Exchange::kReadRefused || exchange.text != e.what()) {
                finding(std::string("the server failed with \"") + e.what() + "\"");
            }
            break;
        }
    }

    klNetStream client(std::make_shared<klfuzz::ScriptLink>(std::move(serverLink->sent)));
    for (std::size_t i = 0; i < served; ++i) {
        const Exchange& exchange = exchanges[i];
        std::size_t rowsDone = 0;
        try {
            const std::vector<std::uint8_t> pixels = klRenderClient::render(
                client, exchange.request, [&rowsDone](std::size_t rows) { rowsDone = rows; });
            if (exchange.kind != Exchange::kAccepted || rowsDone != exchange.request.height ||
                pixels != klRenderPixels(exchange.request)) {
                finding("the pixels a client received differ from a render of the request");
            }
        } catch (const klNetError& e) {
            if (exchange.kind == Exchange::kAccepted || exchange.text != e.what()) {
                finding(std::string("the client got \"") + e.what() + "\", the server refused \"" +
                        exchange.text + "\"");
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const std::uint8_t cut = input.u8();
    const std::size_t piece = cut < 128 ? std::size_t(cut) + 1 : std::size_t(cut - 127) * 1024;
    const std::vector<std::uint8_t> streamData = input.rest();
    const std::vector<Exchange> exchanges = readAll(streamData, piece);
    serveAndAnswer(streamData, piece, exchanges);
    return 0;
}
