// klEndOfInputWatcher: calls an action once when a descriptor (the service's standard input)
// reaches its end or fails, so that a service started by a program ends with it: that program
// holds the pipe's write end, and however it ends, even by SIGKILL, the system closes it.
//
// Bytes that arrive meanwhile are read and dropped. The descriptor is borrowed, not closed.
//
// Thread safety: one owner constructs and destroys it; the action runs on the watcher's thread,
// at most once, and not after the destructor has returned.
#pragma once

#include <functional>
#include <memory>
#include <thread>

class klEndOfInputWatcher {
public:
    klEndOfInputWatcher(int fd, std::function<void()> action);
    // Stops watching (the action is not called any more) and joins the thread.
    ~klEndOfInputWatcher();
    klEndOfInputWatcher(const klEndOfInputWatcher&) = delete;
    klEndOfInputWatcher& operator=(const klEndOfInputWatcher&) = delete;

private:
    void watch();

    int m_fd;
    std::function<void()> m_action;
    // Signalled by the destructor to wake the thread; owned here.
    int m_quit = -1;
    std::thread m_thread;
};
