#include <klNetBase/link/detail/klSocketOps.h>

#include <klNetBase/core/klNetError.h>

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <string>

namespace klSocketOps {

void setIntOption(klSocketHandle fd, int level, int name, int value, const char* failureText) {
    if (::setsockopt(fd, level, name, &value, sizeof(value)) != 0) {
        throw klNetError(std::string(failureText) + klNetError::getLastErrorString());
    }
}

int pollOne(klSocketHandle fd, short events, int timeoutMs, short& revents) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    pollfd entry{fd, events, 0};
    for (;;) {
        const int ready = ::poll(&entry, 1, timeoutMs);
        if (ready >= 0) {
            revents = entry.revents;
            return ready;
        }
        if (errno != EINTR) {
            throw klNetError("WSAPoll(...):" + klNetError::getLastErrorString());
        }
        if (timeoutMs > 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            timeoutMs = left.count() > 0 ? int(left.count()) : 0;
        }
    }
}

int pendingError(klSocketHandle fd) {
    int value = -1;
    socklen_t length = sizeof(value);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &value, &length) != 0) {
        throw klNetError("getsockopt(...)" + klNetError::getLastErrorString());
    }
    return value;
}

int bytesAvailable(klSocketHandle fd) {
    int pending = 0;
    if (::ioctl(fd, FIONREAD, &pending) != 0) {
        throw klNetError("ioctlsocket()");
    }
    return pending;
}

}  // namespace klSocketOps
