#include "klPlatform.h"

#include <unistd.h>

#include <climits>

std::string klPlatform::getBinDir() {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) {
        return std::string();
    }
    std::string exe(path, std::size_t(length));
    const std::size_t slash = exe.rfind('/');
    return slash == std::string::npos ? std::string() : exe.substr(0, slash == 0 ? 1 : slash);
}
