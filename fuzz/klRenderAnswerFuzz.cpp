// Fuzz target: a render server's answer as a render client reads it. A server is a peer like any
// other: nothing it sends may make the client write outside the region's pixels.
//
// Input: a byte choosing the region's width (1 to 8 pixels), one choosing its height (1 to 8
// rows), then what the server sends: buffers in the normal framing (a result, image bands, a
// final result, or anything else).
//
// klRenderClient::render() must either return exactly the region's pixels, having reported
// progress that rises to the region's height and never past it, or fail with klNetError.
#include "klFuzzSupport.h"

#include "klRenderProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    klRenderRequest region = klRenderRequest::defaultFrame(64, 48);
    region.y0 = 40;
    region.width = 1 + input.u8() % 8;
    region.height = 1 + input.u8() % 8;
    klNetStream client(std::make_shared<klfuzz::ScriptLink>(klfuzz::framesFrom(input)));
    std::size_t reported = 0;
    try {
        const std::vector<std::uint8_t> pixels =
            klRenderClient::render(client, region, [&](std::size_t rowsDone) {
                klfuzz::check(rowsDone > reported && rowsDone <= region.height,
                              "progress went back or past the region's rows");
                reported = rowsDone;
            });
        klfuzz::check(pixels.size() == region.pixelCount() * 3 && reported == region.height,
                      "the client returned other than the region's pixels");
    } catch (const klNetError&) {
        // A refusal, a broken answer or the server gone: all the client may do.
    }
    return 0;
}
