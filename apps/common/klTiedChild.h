// klTiedChild: starts a program as a child process tied to the thread that starts it.
//
// The child gets SIGTERM from the kernel when that thread ends (the parent-death signal), so it
// cannot outlive this process however the process ends, SIGKILL included. posix_spawn cannot set
// that signal, hence fork and exec; between the two the child makes only async-signal-safe calls,
// as this process may run other threads. The child starts with default SIGPIPE handling and an
// empty signal mask, whatever this process has set for itself.
//
// Thread safety: any thread may start children; each child is tied to its own starting thread,
// which must therefore live as long as the child should (in practice the main thread).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct klTiedChild {
    // Descriptors that become the child's standard input, output and error; -1 leaves this
    // process's own.
    int in = -1;
    int out = -1;
    int err = -1;
    // The child leads a process group of its own, so that a Ctrl-C at the terminal reaches this
    // process alone.
    bool ownProcessGroup = false;

    // Starts argv[0] (a path) with argv and this process's environment; returns its process id.
    // Throws std::runtime_error "cannot start PATH: <reason>" when fork or exec fails; the child
    // has then been reaped.
    pid_t start(const std::vector<std::string>& argv) const;
};
