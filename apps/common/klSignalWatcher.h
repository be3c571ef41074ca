// klSignalWatcher: runs a program's reaction to SIGTERM and SIGINT (or the signals it is given) on
// a thread of its own, where it may lock, allocate and talk to the network, none of which a signal
// handler may do.
//
// The handler only writes the signal's number into a pipe (safe in a handler); the watcher's
// thread reads it and calls the action. (Blocking the signals for a sigwait thread instead would
// leave them blocked in the programs started from this one: a signal mask is inherited across
// exec, and those could then no longer be terminated.)
//
// With exitOnSecond, a signal that comes while an earlier one is still being handled ends the
// process at once from the handler, with status 128 + the signal's number (130 for SIGINT, 143
// for SIGTERM): the user's way out of a clean-up that takes too long.
//
// Thread safety: one owner constructs and destroys it (one watcher per process at a time); the
// action runs on the watcher's thread, one signal at a time.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <signal.h>

class klSignalWatcher {
public:
    // Installs the handlers; the action gets the signal's number.
    explicit klSignalWatcher(std::function<void(int signal)> action, bool exitOnSecond = false,
                             std::vector<int> signals = {SIGTERM, SIGINT});
    // Restores the previous handlers and joins the thread (after an action in progress).
    ~klSignalWatcher();
    klSignalWatcher(const klSignalWatcher&) = delete;
    klSignalWatcher& operator=(const klSignalWatcher&) = delete;

private:
    static void onSignal(int signal);
    void watch();

    // Written by the handler, read by the thread; closed by the owner.
    class Pipe;
    std::unique_ptr<Pipe> m_pipe;
    std::function<void(int)> m_action;
    std::thread m_thread;
    std::vector<std::pair<int, struct sigaction>> m_previous;

    // What the handler may touch.
    static std::atomic<int> s_writeEnd;
    static std::atomic<bool> s_exitOnSecond;
    static std::atomic<int> s_received;
};
