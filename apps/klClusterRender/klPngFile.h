// klPngFile: writes a frame as a PNG file (through libpng's simplified API).
//
// Thread safety: may run on any number of threads at once, each on a file of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Writes width x height RGB8 pixels (rows top to bottom, no padding) to path; throws
// std::runtime_error "cannot write PATH: <libpng's word>" when it cannot.
void klWritePng(const std::string& path, std::uint32_t width, std::uint32_t height,
                const std::vector<std::uint8_t>& rgb);
