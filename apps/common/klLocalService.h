// klLocalService: a KALDClusterService of this program's own, on a loopback port the system
// chooses, for programs that need a service only while they run (the cluster render demo, the
// service benchmark).
//
// The service is the program found beside the running one. The constructor returns once it
// listens; the destructor makes sure it has ended (SIGTERM, then SIGKILL after 30 s), so nothing
// is left running whatever happens to the owner.
// Thread safety: one owning thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class klLocalService {
public:
    // Starts the service with "--port 0 --no-console" and the given extra arguments; throws
    // std::runtime_error when it cannot be started or does not listen within 20 s.
    explicit klLocalService(const std::vector<std::string>& arguments = {});
    ~klLocalService();

    klLocalService(const klLocalService&) = delete;
    klLocalService& operator=(const klLocalService&) = delete;

    int port() const { return m_port; }
    pid_t pid() const { return m_pid; }
    // True once the service has ended; waits up to seconds (negative: without limit).
    bool waitForExit(double seconds);

private:
    // The service says "listening on port N" once it listens.
    int readPort();
    // Ends the service if it still runs and lets go of its output.
    void end();

    pid_t m_pid = -1;
    int m_out = -1;
    int m_port = 0;
    bool m_exited = false;
};
