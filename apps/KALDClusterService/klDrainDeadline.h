// klDrainDeadline: the bound of a drain: once started, calls its action after the time given,
// on a thread of its own, unless its owner goes first.
//
// Thread safety: start() from any thread (the first call counts); constructed and destroyed on
// one thread, which joins the thread (after an action in progress).
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class klDrainDeadline {
public:
    explicit klDrainDeadline(std::function<void()> action) : m_action(std::move(action)) {}
    ~klDrainDeadline();
    klDrainDeadline(const klDrainDeadline&) = delete;
    klDrainDeadline& operator=(const klDrainDeadline&) = delete;

    // Calls the action seconds from now; a deadline started already stays as it is.
    void start(double seconds);

private:
    const std::function<void()> m_action;
    std::mutex m_lock;
    std::condition_variable m_cancelled;
    bool m_ending = false;  // guarded by m_lock
    std::thread m_thread;   // started under m_lock
};
