// klPngFile: writes a frame as a PNG file (through libpng's simplified API), and checks
// beforehand that the file can be written at all.
//
// Thread safety: may run on any number of threads at once, each on a file of its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Writes width x height RGB8 pixels (rows top to bottom, no padding) to path; throws
// std::runtime_error "cannot write PATH: <libpng's word>" when it cannot.
void klWritePng(const std::string& path, std::uint32_t width, std::uint32_t height,
                const std::vector<std::uint8_t>& rgb);

// Why a PNG file could not be written to path, or nothing when it could: an existing file must be
// writable (and not a directory); for a new one a temporary file is made beside it and removed
// again, which proves the directory exists and may be written. An existing path is neither
// changed nor removed. The reason is strerror's text, e.g. "No such file or directory" or
// "Permission denied". Run before any work whose result goes there.
std::optional<std::string> klPngUnwritable(const std::string& path);
