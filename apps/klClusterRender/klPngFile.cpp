#include "klPngFile.h"

#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

void klWritePng(const std::string& path, std::uint32_t width, std::uint32_t height,
                const std::vector<std::uint8_t>& rgb) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) == 0) {
        throw std::runtime_error("cannot write " + path + ": " + image.message);
    }
}

std::optional<std::string> klPngUnwritable(const std::string& path) {
    if (path.empty()) {
        return std::string(std::strerror(ENOENT));
    }
    struct stat existing {};
    if (::stat(path.c_str(), &existing) == 0) {
        if (S_ISDIR(existing.st_mode)) {
            return std::string(std::strerror(EISDIR));
        }
        if (::access(path.c_str(), W_OK) != 0) {
            return std::string(std::strerror(errno));
        }
        return std::nullopt;  // overwritten in place
    }
    // A temporary file in the same directory proves that the file can be made there: the
    // directory exists, is one, and may be written.
    const std::size_t slash = path.rfind('/');
    std::string probe = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) +
                        ".klClusterRender-XXXXXX";
    const int fd = ::mkstemp(probe.data());
    if (fd < 0) {
        return std::string(std::strerror(errno));
    }
    ::close(fd);
    ::unlink(probe.c_str());
    return std::nullopt;
}
