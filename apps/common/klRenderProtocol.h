// klRenderProtocol: the render protocol between a client and a render server (KALDClusterServer).
//
// A client asks for a rectangular region of a frame of a Mandelbrot or Julia set and gets the
// region's pixels back as RGB8 (3 bytes a pixel, rows top to bottom, no padding). A frame may be
// split into regions rendered by any number of servers: a pixel's colour depends only on its
// position in the frame, the frame size and the scene, never on the region it was asked for in or
// on how the work was spread over threads, so the pieces put together equal a single render byte
// for byte.
//
// Scene: pixel (x, y) of a W x H frame shows the point
//     c = (centreX + (x + 0.5 - W / 2) * s,  centreY - (y + 0.5 - H / 2) * s),   s = viewWidth / W
// of the complex plane (square pixels, imaginary axis up). The Mandelbrot set iterates z = z^2 + c
// from z = 0, the Julia set z = z^2 + (juliaX, juliaY) from z = c, for at most maxIterations steps
// until |z| > 256. Points that never escape are black; the others are coloured smoothly by their
// fractional escape count.
//
// One exchange on a connection (the client writes, the server answers; many exchanges may follow
// one another on one connection):
//
//   client -> server, byte stream, flushed (77 bytes, little-endian):
//     offset  size  field
//     0       4     magic 0x4E524C4B ("KLRN")
//     4       4     protocol version, 1
//     8       4     frame width W                 the whole frame
//     12      4     frame height H
//     16      4     region x0                     the part of the frame to render
//     20      4     region y0
//     24      4     region width
//     28      4     region height
//     32      8     centreX (double)              the scene
//     40      8     centreY (double)
//     48      8     viewWidth (double)
//     56      4     maxIterations
//     60      1     fractal: 0 Mandelbrot, 1 Julia
//     61      8     juliaX (double)
//     69      8     juliaY (double)
//
//   server -> client:
//     1. a result on the byte stream (klNetStream::sendSuccess / sendException): success when the
//        request is accepted; a refused request gets the error text and nothing else follows.
//     2. band messages, image-data type (klNetMessageTypeImage), covering the region's rows in
//        order, each
//          u32 y (frame row of the band's first row) | u32 rows (>= 1) | size bytes
//          (= rows * region width * 3, as an 8-byte size) | the RGB8 bytes of those rows
//     3. a final result on the byte stream: success.
//
// Refusals (exact texts, checked in this order):
//   read():
//     "Render request: not a render request (magic 0x<8 hex digits>)"
//     "Render request: protocol version <v> not supported (server speaks 1)"
//   validate():
//     "Render request: frame size <W>x<H> is empty"
//     "Render request: region <x0>,<y0> <w>x<h> is empty"
//     "Render request: region <x0>,<y0> <w>x<h> lies outside the <W>x<H> frame"
//     "Render request: region of <n> pixels exceeds the limit of 67108864"
//     "Render request: max iterations <n> not in 1..100000"
//     "Render request: view width must be finite and above 0"
//     "Render request: centre must be finite"
//     "Render request: fractal <n> is neither 0 (Mandelbrot) nor 1 (Julia)"
//     "Render request: julia constant must be finite"
// A server answers a read() failure and then closes the connection, since it can no longer tell
// where the client's next request starts; after a validate() failure the connection stays usable.
//
// Thread safety: every function here may run on any number of threads at once; a stream belongs
// to one thread at a time. Renders use every core through oneTBB.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class klNetSerializer;
class klNetStream;

enum class klRenderFractal : std::uint8_t { mandelbrot = 0, julia = 1 };

// One render request: the frame, the region of it to render and the scene. A value type.
struct klRenderRequest {
    static constexpr std::uint32_t kMagic = 0x4E524C4B;
    static constexpr std::uint32_t kVersion = 1;
    static constexpr std::uint64_t kMaxPixels = std::uint64_t(1) << 26;
    static constexpr std::uint32_t kMaxIterations = 100000;

    std::uint32_t imageWidth = 0;
    std::uint32_t imageHeight = 0;
    std::uint32_t x0 = 0;
    std::uint32_t y0 = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    double centreX = -0.75;
    double centreY = 0.0;
    double viewWidth = 3.5;
    std::uint32_t maxIterations = 500;
    klRenderFractal fractal = klRenderFractal::mandelbrot;
    double juliaX = -0.8;
    double juliaY = 0.156;

    // The whole Mandelbrot set in a frame of the given size; the region is the whole frame.
    static klRenderRequest defaultFrame(std::uint32_t imageWidth, std::uint32_t imageHeight);

    // Pixels of the region (64-bit: no overflow for any field values).
    std::uint64_t pixelCount() const { return std::uint64_t(width) * height; }
    // Throws klNetError with one of the texts above when a field is out of range.
    void validate() const;

    // The 77 bytes of the table above.
    void write(klNetSerializer& out) const;
    // Reads the 77 bytes; throws klNetError for a wrong magic or version (the rest is then left
    // unread) and whatever the serializer throws. Does not validate.
    static klRenderRequest read(klNetSerializer& in);
};

// The region's pixels, RGB8, computed here on every core. Validates the request first (klNetError).
std::vector<std::uint8_t> klRenderPixels(const klRenderRequest& request);

// The client side of one exchange.
class klRenderClient {
public:
    // Sends the request, waits for the answer and returns the region's pixels as klRenderPixels
    // would. progress, if set, is called on this thread with the number of region rows received
    // so far after every band. A refusal throws klNetError with the server's text, leaving the
    // connection usable; an answer that breaks the protocol throws klNetError "Render answer: ..."
    // (the connection is then out of step). Connection failures as the stream reports them.
    static std::vector<std::uint8_t> render(
        klNetStream& stream, const klRenderRequest& request,
        const std::function<void(std::size_t rowsDone)>& progress);
};

// The server side of one exchange.
class klRenderServer {
public:
    // Reads one request from stream and answers it. Returns a one-line description for the log:
    // what was rendered and how long it took, or "refused: <text>" after a validate() failure (or
    // when there is no memory for a band).
    // Throws klConnectionClosed when the client has gone or cancel was set (the render stops within
    // about one pixel's work); any other klNetError means the connection cannot go on (a read()
    // failure has been answered to the client first).
    static std::string serveRequest(klNetStream& stream, const std::atomic<bool>& cancel);
};
