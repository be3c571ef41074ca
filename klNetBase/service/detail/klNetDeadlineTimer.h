// klNetDeadlineTimer: runs short actions at given times on one thread of its own. Internal.
//
// The service bounds each request and each relay's idle time with it: an action shuts a link
// down, which wakes whichever thread is blocked on that link. One thread serves every deadline,
// so a service of many slow clients does not need a watcher thread per client.
//
// An action runs under the timer's lock: it must be short, must not block, and must not call
// schedule() or cancel(). It returns when it wants to run again, or kDone.
//
// Thread safety: schedule() and cancel() from any thread. Once cancel() has returned, the action
// is neither running nor will it run again, so whatever it touches may then be released.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

class klNetDeadlineTimer {
public:
    using Clock = std::chrono::steady_clock;
    using Action = std::function<Clock::time_point()>;
    // Returned by an action that is done.
    static constexpr Clock::time_point kDone = Clock::time_point::min();

    klNetDeadlineTimer();
    // Joins the thread; actions still scheduled never run.
    ~klNetDeadlineTimer();
    klNetDeadlineTimer(const klNetDeadlineTimer&) = delete;
    klNetDeadlineTimer& operator=(const klNetDeadlineTimer&) = delete;

    // Runs action at when (at once if that has passed); returns the id that cancels it.
    std::uint64_t schedule(Clock::time_point when, Action action);
    // Harmless for an id that has run its course or was cancelled already.
    void cancel(std::uint64_t id);

private:
    struct Entry {
        Clock::time_point when;
        Action action;
    };
    void run();

    // Guarded by m_lock.
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::map<std::uint64_t, Entry> m_entries;
    std::uint64_t m_lastId = 0;
    bool m_stopping = false;

    std::thread m_thread;
};
