#include "klRenderProtocol.h"

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/serial/klNetMessage.h>
#include <klNetBase/serial/klNetStream.h>

#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <iomanip>
#include <limits>
#include <sstream>

namespace {

// |z| > 256: a large radius keeps the smooth colouring free of bands.
constexpr double kEscapeRadiusSquared = 65536.0;
// Rows per band are chosen so that a band holds about this many bytes: small enough for steady
// progress, large enough that the threads of one band are rarely idle waiting for its last row.
constexpr std::size_t kBandBytes = 512 * 1024;
// The palette repeats every kIterationsPerCycle escape steps.
constexpr double kIterationsPerCycle = 48.0;
constexpr std::size_t kPaletteSize = 2048;

// Image rows travel as image data, so that a pipeline set up for images (compression by the image
// setting) treats them as such.
class BandMessage final : public klNetMessage {
public:
    klNetMessageType getMessageType() override { return klNetMessageTypeImage; }
};

using Palette = std::array<std::uint8_t, 3 * kPaletteSize>;

// One cycle of colours, blended linearly between evenly spaced stops in integer arithmetic, so
// that every machine builds the same table.
Palette makePalette() {
    constexpr std::size_t kStops = 5;
    constexpr std::uint8_t kStop[kStops][3] = {
        {0, 7, 100}, {32, 107, 203}, {237, 255, 255}, {255, 170, 0}, {0, 2, 0}};
    Palette palette{};
    for (std::size_t i = 0; i < kPaletteSize; ++i) {
        const std::size_t position = i * kStops;
        const std::size_t stop = position / kPaletteSize;
        const std::size_t weight = position % kPaletteSize;
        for (std::size_t channel = 0; channel < 3; ++channel) {
            const std::size_t from = kStop[stop][channel];
            const std::size_t to = kStop[(stop + 1) % kStops][channel];
            palette[3 * i + channel] = std::uint8_t(
                (from * (kPaletteSize - weight) + to * weight + kPaletteSize / 2) / kPaletteSize);
        }
    }
    return palette;
}

const Palette& palette() {
    static const Palette instance = makePalette();
    return instance;
}

// log2 from the exponent bits and a short series in basic arithmetic only: the same result on
// every machine, where the C library's last digits may differ between versions, which would let
// servers on different nodes colour a pixel differently. About 6 correct digits, plenty for a
// colour. REQUIRES: x finite and above 0.
double portableLog2(double x) {
    int exponent = 0;
    const double m = std::frexp(x, &exponent);  // x = m * 2^exponent exactly, m in [0.5, 1)
    // ln m = 2 atanh(u) = 2 (u + u^3/3 + u^5/5 + ...), |u| <= 1/3
    const double u = (m - 1.0) / (m + 1.0);
    const double u2 = u * u;
    const double series = u * (1.0 + u2 * (1.0 / 3 + u2 * (1.0 / 5 + u2 * (1.0 / 7 + u2 / 9))));
    return double(exponent) + series * (2.0 / 0.6931471805599453);
}

// The scene of a request in the form the pixel loop needs. Every pixel's point is computed from
// its frame position alone, by the same expression wherever the region lies.
struct Scene {
    explicit Scene(const klRenderRequest& r)
        : step(r.viewWidth / double(r.imageWidth)),
          halfWidth(double(r.imageWidth) / 2.0),
          halfHeight(double(r.imageHeight) / 2.0),
          centreX(r.centreX),
          centreY(r.centreY),
          maxIterations(r.maxIterations),
          julia(r.fractal == klRenderFractal::julia),
          juliaX(r.juliaX),
          juliaY(r.juliaY),
          colours(palette()) {}

    double pointX(std::uint32_t x) const { return centreX + (double(x) + 0.5 - halfWidth) * step; }
    double pointY(std::uint32_t y) const { return centreY - (double(y) + 0.5 - halfHeight) * step; }

    void shade(double px, double py, std::uint8_t* out) const {
        double zr, zi, cr, ci;
        if (julia) {
            zr = px;
            zi = py;
            cr = juliaX;
            ci = juliaY;
        } else {
            // The main cardioid and the period-2 bulb never escape: most of the set's area, and
            // the most expensive pixels of a frame that shows the whole set.
            const double xq = px - 0.25;
            const double q = xq * xq + py * py;
            if (q * (q + xq) <= 0.25 * py * py || (px + 1.0) * (px + 1.0) + py * py <= 0.0625) {
                out[0] = out[1] = out[2] = 0;
                return;
            }
            zr = 0.0;
            zi = 0.0;
            cr = px;
            ci = py;
        }
        double zr2 = zr * zr;
        double zi2 = zi * zi;
        // Each step is a fixed function of z in double arithmetic: once z repeats a value bit for
        // bit, it cycles for ever and never escapes, so the pixel is black without iterating on
        // (the same colour it would get anyway). z is compared with a value saved at steps 1, 2,
        // 4, 8, ..., which catches every cycle once the saves lie further apart than its length.
        double savedR = zr;
        double savedI = zi;
        std::uint32_t nextSave = 1;
        std::uint32_t n = 0;
        while (zr2 + zi2 <= kEscapeRadiusSquared) {
            if (n == maxIterations) {
                out[0] = out[1] = out[2] = 0;
                return;
            }
            zi = 2.0 * zr * zi + ci;
            zr = zr2 - zi2 + cr;
            zr2 = zr * zr;
            zi2 = zi * zi;
            ++n;
            if (zr == savedR && zi == savedI) {
                out[0] = out[1] = out[2] = 0;
                return;
            }
            if (n == nextSave) {
                savedR = zr;
                savedI = zi;
                nextSave *= 2;
            }
        }
        // Fractional escape count: n + 1 - log2(log2 |z|). Points beyond the range of doubles
        // (|z|^2 infinite or NaN) take the first colour.
        const double r2 = zr2 + zi2;
        double mu = 0.0;
        if (r2 <= std::numeric_limits<double>::max()) {
            mu = std::max(0.0, double(n) + 1.0 - portableLog2(0.5 * portableLog2(r2)));
        }
        const std::size_t index =
            std::size_t(mu * (double(kPaletteSize) / kIterationsPerCycle)) % kPaletteSize;
        out[0] = colours[3 * index];
        out[1] = colours[3 * index + 1];
        out[2] = colours[3 * index + 2];
    }

    double step, halfWidth, halfHeight, centreX, centreY;
    std::uint32_t maxIterations;
    bool julia;
    double juliaX, juliaY;
    const Palette& colours;
};

// Renders rows [first, first + count) of the region (counted from its top) into out, which holds
// count * width * 3 bytes. cancel, when set, stops the work within one pixel; out is then partly
// written.
void renderRows(const klRenderRequest& request, std::uint32_t first, std::uint32_t count,
                std::uint8_t* out, const std::atomic<bool>* cancel) {
    const Scene scene(request);
    const std::size_t rowBytes = std::size_t(request.width) * 3;
    // Two-dimensional split so that a region of a few wide rows also keeps every core busy.
    tbb::parallel_for(
        tbb::blocked_range2d<std::uint32_t>(0, count, 1, 0, request.width, 64),
        [&](const tbb::blocked_range2d<std::uint32_t>& range) {
            for (std::uint32_t row = range.rows().begin(); row != range.rows().end(); ++row) {
                const double py = scene.pointY(request.y0 + first + row);
                std::uint8_t* pixel = out + row * rowBytes + std::size_t(range.cols().begin()) * 3;
                for (std::uint32_t col = range.cols().begin(); col != range.cols().end(); ++col) {
                    if (cancel != nullptr && cancel->load(std::memory_order_relaxed)) {
                        return;
                    }
                    scene.shade(scene.pointX(request.x0 + col), py, pixel);
                    pixel += 3;
                }
            }
        });
}

[[noreturn]] void refuse(const std::ostringstream& text) {
    throw klNetError("Render request: " + text.str());
}

}  // namespace

klRenderRequest klRenderRequest::defaultFrame(std::uint32_t imageWidth, std::uint32_t imageHeight) {
    klRenderRequest request;
    request.imageWidth = request.width = imageWidth;
    request.imageHeight = request.height = imageHeight;
    return request;
}

void klRenderRequest::validate() const {
    std::ostringstream text;
    const auto region = [this, &text] {
        text << "region " << x0 << ',' << y0 << ' ' << width << 'x' << height;
    };
    if (imageWidth == 0 || imageHeight == 0) {
        text << "frame size " << imageWidth << 'x' << imageHeight << " is empty";
        refuse(text);
    }
    if (width == 0 || height == 0) {
        region();
        text << " is empty";
        refuse(text);
    }
    if (std::uint64_t(x0) + width > imageWidth || std::uint64_t(y0) + height > imageHeight) {
        region();
        text << " lies outside the " << imageWidth << 'x' << imageHeight << " frame";
        refuse(text);
    }
    if (pixelCount() > kMaxPixels) {
        text << "region of " << pixelCount() << " pixels exceeds the limit of " << kMaxPixels;
        refuse(text);
    }
    if (maxIterations == 0 || maxIterations > kMaxIterations) {
        text << "max iterations " << maxIterations << " not in 1.." << kMaxIterations;
        refuse(text);
    }
    if (!std::isfinite(viewWidth) || !(viewWidth > 0.0)) {
        text << "view width must be finite and above 0";
        refuse(text);
    }
    if (!std::isfinite(centreX) || !std::isfinite(centreY)) {
        text << "centre must be finite";
        refuse(text);
    }
    if (fractal != klRenderFractal::mandelbrot && fractal != klRenderFractal::julia) {
        text << "fractal " << unsigned(fractal) << " is neither 0 (Mandelbrot) nor 1 (Julia)";
        refuse(text);
    }
    if (!std::isfinite(juliaX) || !std::isfinite(juliaY)) {
        text << "julia constant must be finite";
        refuse(text);
    }
}

void klRenderRequest::write(klNetSerializer& out) const {
    out << kMagic << kVersion << imageWidth << imageHeight << x0 << y0 << width << height << centreX
        << centreY << viewWidth << maxIterations << std::uint8_t(fractal) << juliaX << juliaY;
}

klRenderRequest klRenderRequest::read(klNetSerializer& in) {
    std::uint32_t magic = 0;
    in >> magic;
    if (magic != kMagic) {
        std::ostringstream text;
        text << "not a render request (magic 0x" << std::hex << std::uppercase << std::setw(8)
             << std::setfill('0') << magic << ')';
        refuse(text);
    }
    std::uint32_t version = 0;
    in >> version;
    if (version != kVersion) {
        std::ostringstream text;
        text << "protocol version " << version << " not supported (server speaks " << kVersion
             << ')';
        refuse(text);
    }
    klRenderRequest r;
    std::uint8_t fractal = 0;
    in >> r.imageWidth >> r.imageHeight >> r.x0 >> r.y0 >> r.width >> r.height >> r.centreX >>
        r.centreY >> r.viewWidth >> r.maxIterations >> fractal >> r.juliaX >> r.juliaY;
    r.fractal = klRenderFractal(fractal);
    return r;
}

std::vector<std::uint8_t> klRenderPixels(const klRenderRequest& request) {
    request.validate();
    std::vector<std::uint8_t> rgb(std::size_t(request.pixelCount()) * 3);
    renderRows(request, 0, request.height, rgb.data(), nullptr);
    return rgb;
}

std::vector<std::uint8_t> klRenderClient::render(
    klNetStream& stream, const klRenderRequest& request,
    const std::function<void(std::size_t rowsDone)>& progress) {
    request.write(stream);
    stream.flush();
    stream.recvResult();

    // Allocated only once the server has accepted the request, i.e. found its size sane.
    const std::size_t rowBytes = std::size_t(request.width) * 3;
    std::vector<std::uint8_t> rgb(rowBytes * request.height);
    BandMessage band;
    for (std::uint32_t done = 0; done < request.height;) {
        stream.recvMessage(band);
        std::uint32_t y = 0;
        std::uint32_t rows = 0;
        band >> y >> rows;
        const std::size_t bytes = band.getValueSize();
        const std::uint32_t left = request.height - done;
        if (y != request.y0 + done || rows == 0 || rows > left || bytes != rows * rowBytes) {
            std::ostringstream text;
            text << "Render answer: band at row " << y << " with " << rows << " rows and " << bytes
                 << " bytes, expected row " << request.y0 + done << " and 1 to " << left
                 << " rows of " << rowBytes << " bytes";
            throw klNetError(text.str());
        }
        band.getBytes(rgb.data() + done * rowBytes, bytes);
        done += rows;
        if (progress) {
            progress(done);
        }
    }
    stream.recvResult();
    return rgb;
}

std::string klRenderServer::serveRequest(klNetStream& stream, const std::atomic<bool>& cancel) {
    klRenderRequest request;
    try {
        request = klRenderRequest::read(stream);
    } catch (const klConnectionClosed&) {
        throw;
    } catch (const klNetError& e) {
        stream.sendException(e).flush();
        throw;
    }

    const std::size_t rowBytes = std::size_t(request.width) * 3;
    std::uint32_t bandRows = 0;
    std::vector<std::uint8_t> band;
    try {
        request.validate();
        bandRows = std::uint32_t(std::clamp<std::size_t>(kBandBytes / rowBytes, 1, request.height));
        band.resize(bandRows * rowBytes);
    } catch (const std::exception& e) {  // a refused field, or no memory for the band
        stream.sendException(e).flush();
        return std::string("refused: ") + e.what();
    }
    stream.sendSuccess().flush();

    const auto start = std::chrono::steady_clock::now();
    for (std::uint32_t done = 0; done < request.height;) {
        const std::uint32_t rows = std::min(bandRows, request.height - done);
        renderRows(request, done, rows, band.data(), &cancel);
        if (cancel.load()) {
            throw klConnectionClosed();
        }
        BandMessage message;
        message << std::uint32_t(request.y0 + done) << rows;
        message.putValueSize(rows * rowBytes);
        message.putBytes(band.data(), rows * rowBytes);
        stream.sendMessage(message, 0);
        done += rows;
    }
    stream.sendSuccess().flush();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::ostringstream text;
    text << "region " << request.x0 << ',' << request.y0 << ' ' << request.width << 'x'
         << request.height << " of " << request.imageWidth << 'x' << request.imageHeight << ", "
         << (request.fractal == klRenderFractal::julia ? "Julia" : "Mandelbrot") << ", "
         << request.maxIterations << " iterations: " << request.pixelCount() << " pixels in "
         << std::fixed << std::setprecision(1) << seconds * 1e3 << " ms";
    return text.str();
}
