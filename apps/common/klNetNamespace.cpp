#include "klNetNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

klNetNamespace::klNetNamespace(const std::string& name) {
    const auto fail = [&name](int error) {
        return std::runtime_error("cannot enter network namespace " + name + ": " +
                                  std::strerror(error));
    };
    if (name.empty() || name.find('/') != std::string::npos) {
        throw fail(EINVAL);
    }
    m_previous = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (m_previous < 0) {
        throw fail(errno);
    }
    const int target = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    const int error = target < 0 ? errno : ::setns(target, CLONE_NEWNET) == 0 ? 0 : errno;
    if (target >= 0) {
        ::close(target);
    }
    if (error != 0) {
        ::close(m_previous);
        throw fail(error);
    }
}

klNetNamespace::~klNetNamespace() {
    // Going back to a namespace this thread was in cannot fail for want of rights.
    ::setns(m_previous, CLONE_NEWNET);
    ::close(m_previous);
}
