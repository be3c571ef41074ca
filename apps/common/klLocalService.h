// klLocalService: a KALDClusterService of this program's own, for programs that need a service
// only while they run (the cluster render demo, the service benchmark).
//
// The service is the program found beside the running one. It listens on a port of 127.0.0.1
// alone that the system chooses, and (by default) serves only clients sealed with a key made for
// this run: 32 random bytes written to the service's standard input, so that they are never in a
// file, on a command line or in the environment; other users of the machine cannot use it.
//
// Nothing outlives the owner, however it ends: the owner holds the write end of the pipe on the
// service's standard input, which the service watches (--stop-on-stdin-close), and the system
// closes it when the owner ends, even by SIGKILL; as a second guard the service gets SIGTERM when
// the thread that started it ends (the parent-death signal). Either way the service stops its
// servers and exits. The destructor closes the pipe and waits for the service to end (SIGTERM
// as well, SIGKILL after 30 s).
//
// Thread safety: one owning thread, which must live as long as the service (the parent-death
// signal follows the thread that started it): in practice the main thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

class klNetLinkSealer;

class klLocalService {
public:
    enum class Sealing {
        runKey,  // a key made for this run: clients seal with sealer()
        none,    // every connection in the clear (for comparisons)
    };

    // Starts the service with "--port 0 --listen 127.0.0.1 --no-console --stop-on-stdin-close",
    // "--key-file -" with the run's key, and the given extra arguments; throws
    // std::runtime_error when it cannot be started or does not listen within 20 s.
    explicit klLocalService(const std::vector<std::string>& arguments = {},
                            Sealing sealing = Sealing::runKey);
    ~klLocalService();

    klLocalService(const klLocalService&) = delete;
    klLocalService& operator=(const klLocalService&) = delete;

    // The address it listens on, and its port.
    static const char* host() { return "127.0.0.1"; }
    int port() const { return m_port; }
    pid_t pid() const { return m_pid; }
    // Seals a client's connections with the run's key; null with Sealing::none.
    const std::shared_ptr<klNetLinkSealer>& sealer() const { return m_sealer; }
    // True once the service has ended; waits up to seconds (negative: without limit).
    bool waitForExit(double seconds);

private:
    // The service says "listening on port N" once it listens.
    int readPort();
    // Ends the service if it still runs and lets go of its pipes.
    void end();

    pid_t m_pid = -1;
    int m_out = -1;
    // The write end of the service's standard input: the service lives while it is open.
    int m_in = -1;
    int m_port = 0;
    bool m_exited = false;
    std::shared_ptr<klNetLinkSealer> m_sealer;
};
