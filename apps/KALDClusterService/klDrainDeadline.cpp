#include "klDrainDeadline.h"

#include <chrono>

klDrainDeadline::~klDrainDeadline() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_ending = true;
        thread = std::move(m_thread);
    }
    m_cancelled.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

void klDrainDeadline::start(double seconds) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_thread.joinable() || m_ending) {
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(seconds));
    m_thread = std::thread([this, deadline] {
        {
            std::unique_lock<std::mutex> wait(m_lock);
            if (m_cancelled.wait_until(wait, deadline, [this] { return m_ending; })) {
                return;
            }
        }
        m_action();
    });
}
