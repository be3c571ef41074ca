#include <klNetBase/service/detail/klNetDeadlineTimer.h>

#include <algorithm>

klNetDeadlineTimer::klNetDeadlineTimer() : m_thread([this] { run(); }) {}

klNetDeadlineTimer::~klNetDeadlineTimer() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

std::uint64_t klNetDeadlineTimer::schedule(Clock::time_point when, Action action) {
    std::uint64_t id;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        id = ++m_lastId;
        m_entries.emplace(id, Entry{when, std::move(action)});
    }
    m_changed.notify_all();
    return id;
}

void klNetDeadlineTimer::cancel(std::uint64_t id) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_entries.erase(id);
}

void klNetDeadlineTimer::run() {
    std::unique_lock<std::mutex> guard(m_lock);
    while (!m_stopping) {
        // A service has at most a few hundred deadlines: a scan is cheaper than keeping an order.
        const auto next = std::min_element(
            m_entries.begin(), m_entries.end(),
            [](const auto& a, const auto& b) { return a.second.when < b.second.when; });
        if (next == m_entries.end()) {
            m_changed.wait(guard);
            continue;
        }
        // A copy: the entry may be cancelled while this waits.
        const Clock::time_point when = next->second.when;
        if (Clock::now() < when) {
            m_changed.wait_until(guard, when);
            continue;
        }
        Clock::time_point again = kDone;
        try {
            again = next->second.action();
        } catch (...) {
            // An action that fails is done; the deadlines of others still hold.
        }
        if (again == kDone) {
            m_entries.erase(next);
        } else {
            next->second.when = again;
        }
    }
}
