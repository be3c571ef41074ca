#include <klNetBase/core/klConnectionTimeout.h>

#include <sstream>

namespace {

constexpr char kText[] =
    "recv error: Connected party did not properly respond after a period of time";

std::string waited(double seconds) {
    if (!(seconds > 0)) {
        return std::string(kText) + ".";
    }
    std::ostringstream text;
    text << kText << " (" << seconds << " s).";
    return text.str();
}

}  // namespace

klConnectionTimeout::klConnectionTimeout() : klNetError(waited(0.0)) {}

klConnectionTimeout::klConnectionTimeout(double seconds) : klNetError(waited(seconds)) {}
