#include <klNetBase/core/klNetError.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sstream>

namespace {

std::string textOf(const std::ostream& text) {
    // Both std::ostringstream and std::stringstream keep their text in a std::stringbuf.
    if (auto* buffer = dynamic_cast<const std::stringbuf*>(text.rdbuf())) {
        return buffer->str();
    }
    return std::string();
}

}  // namespace

klNetError::klNetError(const std::string& message) : std::runtime_error(message) {}

klNetError::klNetError(const std::ostream& text) : std::runtime_error(textOf(text)) {}

std::string klNetError::getLastErrorString() {
    return getErrorString(errno);
}

std::string klNetError::getErrorString(int code) {
    if (code == 0) {
        return std::string();
    }
    std::string result = std::to_string(std::uint32_t(code)) + ":";
    // glibc's strerror_r invents "Unknown error N" for numbers it has no text for; those numbers
    // get no text at all, as a system without a message for them would give.
    if (strerrordesc_np(code) == nullptr) {
        return result;
    }
    char buffer[256];
    result += strerror_r(code, buffer, sizeof(buffer));
    return result;
}
